// The command runner of the rule manager.
//
// The tool is started directly (posix_spawn), never through a shell: the command
// line is split at blanks into the argument vector, and the first token, a fixed
// path such as "/system/bin/iptables-wrapper-1.0", is resolved under the sandbox
// root. Standard output and standard error share one pipe, read line by line.

#define LOG_TAG "MUX-Vord-iptablesManager"

#include "rules/execnetd.h"

#include <log/log.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <vord/RootPath.h>

#include "counters/Counters.h"

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

void logOutputLine(const std::string& line, const char* cmd) {
    ALOGE(" SLA EXECNETD FAIL - %s", line.c_str());
    ALOGE(" SLA EXECNETD FAIL cmd - %s", cmd);
}

// Reads the tool's output until end of file and logs it: one piece per line, or
// per kOutputPiece characters of a longer line. With `collected`, keeps it there
// instead.
void drainOutput(int fd, const char* cmd, std::string* collected) {
    std::string piece;
    char buf[512];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (n == 0) break;
        if (collected != nullptr) {
            collected->append(buf, static_cast<size_t>(n));
            continue;
        }
        for (ssize_t i = 0; i < n; ++i) {
            piece.push_back(buf[i]);
            if (buf[i] == '\n' || piece.size() == kOutputPiece) {
                logOutputLine(piece, cmd);
                piece.clear();
            }
        }
    }
    if (!piece.empty()) logOutputLine(piece, cmd);
}

}  // namespace

int execnetd(const char* cmd, std::string* output) {
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
    if (pipe2(fds, O_CLOEXEC) != 0) {
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
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
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
    drainOutput(fds[0], cmd, output);
    close(fds[0]);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return 0;
}
