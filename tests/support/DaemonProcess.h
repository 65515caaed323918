// Runs the real vord binary in a sandbox root and talks to it.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TempRoot.h"

namespace vord {
namespace test {

// Path of a program built into build/bin (vord, vordctl, setprop, ...).
std::string binPath(const std::string& program);
// Runs `cmd` through the shell; returns its exit status. Its stdout and stderr
// together go to `output`, when given.
int shell(const std::string& cmd, std::string* output = nullptr);
// Runs `vordctl ARGS` with VORD_ROOT set to `root`; as shell().
int vordctl(const TempRoot& root, const std::string& args, std::string* output = nullptr);
// Threads of process `pid`; -1 when it is gone.
int threadCount(pid_t pid);
// Occurrences of `needle` in `text`.
size_t countOf(const std::string& text, const std::string& needle);
// The first of `needles` that `text` lacks after the one before it; "" when
// all are there, in that order.
std::string missingInOrder(const std::string& text, const std::vector<std::string>& needles);

// Polls `pred` every 20 ms until it holds or `timeout` has passed.
template <typename Pred>
bool waitFor(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// A child program, its stdout and stderr appended to `logPath`, stdin /dev/null,
// VORD_ROOT set when `vordRoot` is given. Stopped (SIGTERM) and reaped at the end.
class Spawned {
  public:
    Spawned(const std::vector<std::string>& argv, const std::string& logPath,
            const std::string& vordRoot = "");
    ~Spawned() { stop(SIGTERM); }
    Spawned(const Spawned&) = delete;
    // Sends `sig` and reaps the child; its wait status (-1 when already reaped).
    int stop(int sig);
    bool alive();  // reaps the child once it has ended
    pid_t pid() const { return pid_; }
    int status() const { return status_; }  // once reaped; -1 before

  private:
    pid_t pid_ = -1;
    int status_ = -1;
};

// Installs a recording stand-in (TempRoot::installRecordingTool) for each of the
// three rule tools (iptables, ip6tables and ip wrappers) that `root` lacks.
void installMissingRuleTools(const TempRoot& root);

// Writes `rates` to "/sim/rates" and runs sla_stats_sim on it for `root`, its
// output in "/sim/out.log"; returns once it serves the config channel.
std::unique_ptr<Spawned> startSimulator(const TempRoot& root, const std::string& rates);

class DaemonProcess {
  public:
    explicit DaemonProcess(const TempRoot& root) : root_(root) {}
    // Kills the daemon if still running; fails the test if its log holds a
    // sanitizer report.
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;

    // Programs that start vord in place of a plain exec, e.g. a link lab's
    // {"vord-linklab", "exec", NAME, "--"}; each must exec what follows it, so
    // the process stays the daemon's.
    void setCommandPrefix(std::vector<std::string> prefix) { prefix_ = std::move(prefix); }
    // The daemon binary to run; build/bin/vord by default.
    void setProgram(std::string path) { program_ = std::move(path); }
    // Starts vord with VORD_ROOT set; stdout and stderr go to "<root>/vord.log".
    void start();
    bool alive() { return proc_ && proc_->alive(); }
    pid_t pid() const { return proc_ ? proc_->pid() : -1; }
    void kill() {
        if (proc_) proc_->stop(SIGKILL);
    }
    // Waits for the daemon to end: its wait status, or -1 (and a SIGKILL) when it
    // still runs after `timeout`. signal() sends `sig` first.
    int waitExit(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    int signal(int sig, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        return proc_ && ::kill(proc_->pid(), sig) == 0 ? waitExit(timeout) : -1;
    }

    std::string log() const { return root_.readFile("/vord.log"); }
    size_t countLog(const std::string& needle) const { return countOf(log(), needle); }
    // Waits until the log holds `needle` at least `times` times.
    bool waitForLog(const std::string& needle,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10),
                    size_t times = 1) const;
    // Waits until the control socket listens. Does not connect, so the daemon's
    // one-client-at-a-time cycle (and its log) is left untouched.
    bool waitUntilServing(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Stops the daemon through the property and waits for "Vord exiting".
    bool stopThroughProperty(std::chrono::milliseconds timeout = std::chrono::seconds(15));

  private:
    const TempRoot& root_;
    std::vector<std::string> prefix_;
    std::string program_ = binPath("vord");
    std::unique_ptr<Spawned> proc_;
};

// A client of "/dev/socket/vord" in a sandbox root. The daemon serves one client
// at a time.
class ControlClient {
  public:
    explicit ControlClient(const TempRoot& root) : root_(root) {}
    ~ControlClient() { close(); }
    bool connect();  // one attempt
    // Retries a refused connection (socket being re-created) until `timeout`.
    bool connect(std::chrono::milliseconds timeout) {
        return waitFor([this] { return connect(); }, timeout);
    }
    // One record as one write of 1032 bytes. `length` defaults to the size of `text`.
    bool send(int id, const std::string& text, int length = -1);
    // `bytes` as they are, in one write (a short or malformed record).
    bool sendRaw(const std::string& bytes);
    void close();

  private:
    const TempRoot& root_;
    int fd_ = -1;
};

}  // namespace test
}  // namespace vord
