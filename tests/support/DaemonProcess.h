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

// Runs a program to completion with VORD_ROOT set to `root` (when given) and
// returns its exit status (-1 when it did not exit normally). Its stdout and
// stderr together go to `output`, when given.
int runProgram(const std::vector<std::string>& argv, const TempRoot* root = nullptr,
               std::string* output = nullptr);

// True while a socket bound at `path` is listening (from /proc/net/unix).
bool unixSocketListening(const std::string& path);

class DaemonProcess {
  public:
    explicit DaemonProcess(const TempRoot& root);
    // Kills the daemon if still running; fails the test if its log holds a
    // sanitizer report.
    ~DaemonProcess();
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
    // Waits until the control socket listens. Does not connect, so the daemon's
    // one-client-at-a-time cycle (and its log) is left untouched.
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
//
// The daemon serves one client at a time and re-creates its socket whenever that
// client hangs up; a client still queued on the old socket is dropped unread, and
// so is data that a client leaves unread when it hangs up. deliver() copes with
// both: it resends over a new connection when the old one was dropped, and
// returns only once the daemon has read everything.
class ControlClient {
  public:
    explicit ControlClient(const TempRoot& root);
    ~ControlClient();
    bool connect();  // one attempt
    // Retries a refused connection (socket being re-created) until `timeout`.
    bool connect(std::chrono::milliseconds timeout);
    bool connected() const { return fd_ >= 0; }
    // One record as one write of 1032 bytes. `length` defaults to strlen(text).
    bool send(int id, const std::string& text, int length = -1);
    // Raw bytes, for short or odd records.
    bool sendRaw(const void* data, size_t size);
    // Waits until the daemon has read everything sent so far. False on time-out
    // or when the connection was dropped with the data unread.
    bool waitRead(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Sends `bytes` in one write and waits until the daemon has read them,
    // (re)connecting as needed.
    bool deliver(const std::string& bytes, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void close();

    // The 1032 bytes of one record. `length` defaults to the size of `text`.
    static std::string record(int id, const std::string& text, int length = -1);

  private:
    const TempRoot& root_;
    int fd_ = -1;
};

}  // namespace test
}  // namespace vord
