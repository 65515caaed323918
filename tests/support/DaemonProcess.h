// Runs the real vord binary in a sandbox root and watches its log.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "TempRoot.h"

namespace vord {
namespace test {

// Path of a program built into build/bin (vord, vordctl, setprop, ...).
std::string binPath(const std::string& program);

class DaemonProcess {
  public:
    explicit DaemonProcess(const TempRoot& root);
    ~DaemonProcess();  // kills the daemon if still running
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Starts vord with VORD_ROOT set; stdout and stderr go to "<root>/vord.log".
    void start();
    pid_t pid() const { return pid_; }
    bool alive();
    void kill();

    std::string log() const;
    std::vector<std::string> logLines() const;
    size_t countLog(const std::string& needle) const;
    // Waits until the log holds `needle` at least `times` times.
    bool waitForLog(const std::string& needle,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10),
                    size_t times = 1) const;
    // Waits for the banner and for the control socket to accept clients.
    bool waitUntilServing(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // CPU time (user + system) consumed so far, in milliseconds.
    long cpuTimeMs() const;

    // Stops the daemon through the property and waits for "Vord exiting".
    bool stopThroughProperty(std::chrono::milliseconds timeout = std::chrono::seconds(15));

  private:
    const TempRoot& root_;
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// A client of "/dev/socket/vord" in a sandbox root.
class ControlClient {
  public:
    explicit ControlClient(const TempRoot& root);
    ~ControlClient();
    bool connect();
    // One record as one write of 1032 bytes. `length` defaults to strlen(text).
    bool send(int id, const std::string& text, int length = -1);
    // Raw bytes, for short or odd records.
    bool sendRaw(const void* data, size_t size);
    void close();

  private:
    const TempRoot& root_;
    int fd_ = -1;
};

}  // namespace test
}  // namespace vord
