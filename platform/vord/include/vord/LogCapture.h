// In-process capture of platform log lines, for tests.
//
// While a LogCapture is alive, every line that would go to stderr
// ("<P>/<tag>: <message>") is kept in memory instead. Captures do not nest.
#pragma once

#include <string>
#include <vector>

namespace vord {

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    // Lines that contain `needle`.
    std::vector<std::string> grep(const std::string& needle) const;
    size_t count(const std::string& needle) const { return grep(needle).size(); }
    bool contains(const std::string& needle) const { return count(needle) != 0; }
    void clear();
};

}  // namespace vord
