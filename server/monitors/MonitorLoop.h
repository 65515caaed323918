// The thread of one monitor: runs a round once per period while active, and
// while inactive sleeps until it is activated or stopped (no periodic wake-up).
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace vord {

class MonitorLoop {
  public:
    MonitorLoop() = default;
    ~MonitorLoop() { stop(); }
    MonitorLoop(const MonitorLoop&) = delete;
    MonitorLoop& operator=(const MonitorLoop&) = delete;

    // Starts the thread. The first round runs at once when `active`.
    void start(std::function<void()> round, std::chrono::milliseconds period, bool active);
    // The period between the end of a round and the next, from the next sleep on.
    void setPeriod(std::chrono::milliseconds period);
    // Activates (the next round runs at once) or pauses the rounds.
    void setActive(bool active);
    bool isActive() const;
    // Ends the thread after its current round and joins it. Must not be called
    // from a round.
    void stop();
    bool isRunning() const { return m_thread.joinable(); }

  private:
    void run();

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_active = false;
    bool m_stop = false;
    std::function<void()> m_round;
    std::chrono::milliseconds m_period{1000};
    std::thread m_thread;
};

}  // namespace vord
