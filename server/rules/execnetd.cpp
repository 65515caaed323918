// The command runner of the rule manager.
//
// The tool is started directly (posix_spawn), never through a shell: the command
// line is split at blanks into the argument vector, and the first token, a fixed
// path such as "/system/bin/iptables-wrapper-1.0", is resolved under the sandbox
// root. Standard output and standard error share one pipe, read line by line.
//
// The runner waits for the tool's exit, not for the end of its output: a child
// the tool leaves behind holding the pipe does not hold the caller. A tool still
// running at the deadline ("rule_command_timeout_s") is killed with its process
// group. A tool that exits non-zero or is killed counts as failed; its command
// line, result and output are kept for the status snapshot.

#define LOG_TAG "MUX-Vord-iptablesManager"

#include "rules/execnetd.h"

#include <log/log.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include <vord/RootPath.h>

#include "config/LogText.h"
#include "counters/Counters.h"
#include "counters/RuleFailure.h"

extern char** environ;

namespace {

// A command line is at most what a 1024-byte line holding "<cmd> 2>&1" takes.
constexpr size_t kLineSize = 1024;
constexpr size_t kStderrSuffix = sizeof(" 2>&1") - 1;
// Output is logged in pieces of at most kLineSize - 1 characters.
constexpr size_t kOutputPiece = kLineSize - 1;

std::vector<std::string> splitAtBlanks(const char* cmd) {
    std::vector<std::string> out;
    const char* p = cmd;
    while (*p) {
        while (*p == ' ' || *p == '\t') ++p;
        if (*p == '\0') break;
        const char* start = p;
        while (*p && *p != ' ' && *p != '\t') ++p;
        out.emplace_back(start, static_cast<size_t>(p - start));
    }
    return out;
}

// Output read in one go, at most, so that the deadline is looked at between two
// reads; and all that is read after the tool's exit (a child it left behind may
// go on writing).
constexpr size_t kReadAtOnce = 64 * 1024;
// Output kept for the status snapshot, at most.
constexpr size_t kKeptOutput = 512;
// Without a process descriptor the exit is looked for this often.
constexpr int kExitPollMs = 10;

std::atomic<int> g_timeoutSeconds{kDefaultRuleCommandTimeoutSeconds};

using Clock = std::chrono::steady_clock;

// The tool's output: logged one piece per line, or per kOutputPiece characters of
// a longer line, and the start of it kept; for a listing the daemon reads,
// collected whole into `collected` instead of being logged.
class ToolOutput {
  public:
    ToolOutput(const char* cmd, std::string* collected) : cmd_(cmd), collected_(collected) {}
    // Reads what the pipe holds, up to kReadAtOnce bytes. False at end of file.
    bool read(int fd) {
        char buf[512];
        for (size_t total = 0; total < kReadAtOnce;) {
            ssize_t n = ::read(fd, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n == 0) return false;
            if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
            total += static_cast<size_t>(n);
            add(buf, static_cast<size_t>(n));
        }
        return true;
    }
    // Logs the piece not yet ended by a line feed; the output kept so far.
    std::string finish() {
        if (!piece_.empty()) log();
        return kept_;
    }

  private:
    void add(const char* data, size_t n) {
        if (kept_.size() < kKeptOutput) kept_.append(data, std::min(n, kKeptOutput - kept_.size()));
        if (collected_ != nullptr) {
            collected_->append(data, n);
            return;
        }
        for (size_t i = 0; i < n; ++i) {
            piece_.push_back(data[i]);
            if (data[i] == '\n' || piece_.size() == kOutputPiece) log();
        }
    }
    void log() {
        ALOGE(" SLA EXECNETD FAIL - %s", piece_.c_str());
        ALOGE(" SLA EXECNETD FAIL cmd - %s", cmd_);
        piece_.clear();
    }
    const char* cmd_;
    std::string* collected_;
    std::string piece_;
    std::string kept_;
};

// A descriptor that becomes readable when process `pid` exits; -1 when the
// kernel offers none (the exit is then polled for).
int exitDescriptor(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    return -1;
#endif
}

int reap(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// Reads the tool's output until it exits or the deadline passes; at the
// deadline kills it and its process group. The wait status; `killed` tells a
// kill at the deadline.
int superviseTool(pid_t pid, int outFd, ToolOutput& output, bool& killed) {
    const int exitFd = exitDescriptor(pid);
    const auto deadline = Clock::now() + std::chrono::seconds(g_timeoutSeconds.load());
    bool outputOpen = true;
    int status = 0;
    killed = false;
    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            status = reap(pid);
            killed = true;
            break;
        }
        pollfd fds[2];
        nfds_t n = 0;
        if (outputOpen) fds[n++] = {outFd, POLLIN, 0};
        if (exitFd >= 0) fds[n++] = {exitFd, POLLIN, 0};
        const int64_t slice = exitFd >= 0 ? INT32_MAX : kExitPollMs;
        const int wait = static_cast<int>(std::min<int64_t>(left.count(), slice));
        if (poll(fds, n, wait) > 0 && outputOpen && fds[0].revents != 0) outputOpen = output.read(outFd);
    }
    if (exitFd >= 0) close(exitFd);
    // What is already in the pipe; a child left behind cannot hold the caller.
    if (outputOpen) output.read(outFd);
    return status;
}

std::string describeFailure(int status, bool killed) {
    if (killed) return "killed after " + std::to_string(g_timeoutSeconds.load()) + " s";
    if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) return "exit " + std::to_string(WEXITSTATUS(status));
    return "";
}

}  // namespace

int execnetd(const char* cmd, CommandOutcome* outcome, std::string* listing) {
    if (cmd == nullptr) cmd = "";
    size_t len = strlen(cmd);
    if (len + kStderrSuffix >= kLineSize) {
        ALOGE("%s command of %zu characters is too long, not run: %.64s...", "execnetd", len, cmd);
        vord::bump(vord::counters().ruleCommandsNotStarted);
        return -1;
    }
    std::vector<std::string> args = splitAtBlanks(cmd);
    if (args.empty()) {
        ALOGE("SEND SLA NDC COMMAND - FAIL  %s \n", cmd);
        vord::bump(vord::counters().ruleCommandsNotStarted);
        return -1;
    }
    std::string tool = vord::resolvePath(args[0]);
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    argv.push_back(const_cast<char*>(tool.c_str()));
    for (size_t i = 1; i < args.size(); ++i) argv.push_back(const_cast<char*>(args[i].c_str()));
    argv.push_back(nullptr);

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0 || fcntl(fds[0], F_SETFL, O_NONBLOCK) != 0) {
        ALOGE("SEND SLA NDC COMMAND - FAIL  %s \n", cmd);
        vord::bump(vord::counters().ruleCommandsNotStarted);
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // dup2 onto 1 and 2 clears close-on-exec there; both pipe ends themselves
    // close on exec.
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    // The tool starts with an empty signal mask and every signal at its default
    // action, whatever the calling thread blocks or ignores (the control thread
    // keeps SIGUSR1 blocked outside its waits).
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    // A process group of its own, so that a kill at the deadline also ends the
    // children it started.
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, tool.c_str(), &actions, &attr, argv.data(), environ);
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        ALOGE("SEND SLA NDC COMMAND - FAIL  %s \n", cmd);
        vord::bump(vord::counters().ruleCommandsNotStarted);
        return -1;
    }
    vord::bump(vord::counters().ruleCommandsRun);
    ALOGI("SEND SLA NDC COMMAND - PASS  %s\n", cmd);
    // A caller that takes the outcome reports a failure itself (once per group of
    // commands), so the tool's output is collected rather than logged line by line.
    std::string unlogged;
    ToolOutput output(cmd, listing != nullptr ? listing : outcome != nullptr ? &unlogged : nullptr);
    bool killed = false;
    const int status = superviseTool(pid, fds[0], output, killed);
    close(fds[0]);
    const std::string kept = output.finish();
    const std::string result = describeFailure(status, killed);
    if (!result.empty()) {
        if (outcome == nullptr) ALOGE("%s command failed (%s): %s", "execnetd", result.c_str(), cmd);
        vord::bump(vord::counters().ruleCommandsFailed);
        vord::recordRuleFailure({cmd, result, vord::escapeForLog(kept, kKeptOutput)});
    }
    if (outcome != nullptr) {
        outcome->started = true;
        outcome->exitStatus = !killed && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        outcome->firstLine = kept.substr(0, kept.find('\n'));
    }
    return 0;
}

void setRuleCommandTimeout(int seconds) {
    g_timeoutSeconds.store(seconds > 0 ? seconds : kDefaultRuleCommandTimeoutSeconds);
}
