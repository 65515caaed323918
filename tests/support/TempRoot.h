// A throw-away sandbox root (VORD_ROOT) with the daemon's directory layout.
#pragma once

#include <string>

namespace vord {
namespace test {

class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::string& path() const { return path_; }
    // Absolute path of `rel` (a fixed path such as "/proc/sla/config") in the root.
    std::string at(const std::string& rel) const;

    void writeFile(const std::string& rel, const std::string& content, int mode = 0644) const;
    // Writes an absolute path (creating its directories), replacing the file whole.
    static void writeAt(const std::string& full, const std::string& content, int mode = 0644);
    std::string readFile(const std::string& rel) const;
    bool exists(const std::string& rel) const;

    // Writes the configuration file "/vendor/etc/sla/vord.conf".
    void writeConf(const std::string& content) const { writeFile("/vendor/etc/sla/vord.conf", content); }
    void setProperty(const std::string& name, const std::string& value) const {
        writeFile("/properties/" + name, value);
    }

    // Installs "/system/bin/<tool>" as a script that appends its command line
    // ("/system/bin/<tool> ARGS...") to "/record/commands" and prints `output`.
    void installRecordingTool(const std::string& tool, const std::string& output = "") const;
    // The lines recorded so far by the recording tools.
    std::string recordedCommands() const;

  private:
    std::string path_;
};

// Reads a whole file; empty when it cannot be read.
std::string readWholeFile(const std::string& path);

}  // namespace test
}  // namespace vord
