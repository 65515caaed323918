// A throw-away sandbox root (VORD_ROOT) with the daemon's directory layout.
#pragma once

#include <string>

namespace vord {
namespace test {

// Reads a whole file; empty when it cannot be read.
std::string readWholeFile(const std::string& path);

class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::string& path() const { return path_; }
    // Absolute path of `rel` (a fixed path such as "/proc/sla/config") in the root.
    std::string at(const std::string& rel) const { return path_ + rel; }
    // Replaces the file at an absolute path whole, creating its directories.
    static void writeAt(const std::string& full, const std::string& content, int mode = 0644);
    void writeFile(const std::string& rel, const std::string& content, int mode = 0644) const {
        writeAt(at(rel), content, mode);
    }
    std::string readFile(const std::string& rel) const { return readWholeFile(at(rel)); }
    void writeConf(const std::string& content) const {
        writeFile("/vendor/etc/sla/vord.conf", content);
    }
    void setProperty(const std::string& name, const std::string& value) const {
        writeFile("/properties/" + name, value);
    }

    // Installs "/system/bin/<tool>" as a script that appends its command line
    // ("/system/bin/<tool> ARGS...") to "/record/commands", prints `output` and
    // exits with `status`.
    void installRecordingTool(const std::string& tool, const std::string& output = "",
                              int status = 0) const;
    std::string recordedCommands() const { return readFile("/record/commands"); }

  private:
    std::string path_;
};

}  // namespace test
}  // namespace vord
