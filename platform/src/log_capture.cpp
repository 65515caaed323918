#include <vord/LogCapture.h>

#include <atomic>
#include <mutex>

#include "LogSink.h"

namespace vord {
namespace {

std::atomic<bool> g_active{false};
std::mutex g_mutex;
std::vector<std::string> g_lines;

}  // namespace

namespace detail {

bool deliverToSink(const char* line) {
    if (!g_active.load(std::memory_order_acquire)) return false;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.emplace_back(line);
    return true;
}

}  // namespace detail

LogCapture::LogCapture() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
    g_active.store(true, std::memory_order_release);
}

LogCapture::~LogCapture() {
    g_active.store(false, std::memory_order_release);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<std::string> LogCapture::grep(const std::string& needle) const {
    std::vector<std::string> out;
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto& l : g_lines) {
        if (l.find(needle) != std::string::npos) out.push_back(l);
    }
    return out;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

}  // namespace vord
