#include "monitors/MonitorLoop.h"

namespace vord {

void MonitorLoop::start(std::function<void()> round, std::chrono::milliseconds period,
                        bool active) {
    if (m_thread.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_round = std::move(round);
        m_period = period;
        m_active = active;
        m_stop = false;
    }
    m_thread = std::thread(&MonitorLoop::run, this);
}

void MonitorLoop::setPeriod(std::chrono::milliseconds period) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_period = period;
}

void MonitorLoop::setActive(bool active) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_active = active;
    }
    m_wake.notify_all();
}

bool MonitorLoop::isActive() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_active;
}

void MonitorLoop::stop() {
    if (!m_thread.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void MonitorLoop::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_stop || m_active; });
        if (m_stop) return;
        // The round runs without the loop's lock, so setActive and stop never
        // wait for it.
        lock.unlock();
        m_round();
        lock.lock();
        // Sleep one period; an activation after a pause does not cut it short,
        // a stop does.
        m_wake.wait_for(lock, m_period, [this] { return m_stop; });
    }
}

}  // namespace vord
