#include "Sys.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <sched.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace linklab {

int openNetns(const std::string& ns) {
    return open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
}

bool netnsExists(const std::string& ns) {
    struct stat st;
    return stat(("/run/netns/" + ns).c_str(), &st) == 0;
}

bool enterNetns(const std::string& ns, std::string& error) {
    const int fd = openNetns(ns);
    if (fd < 0) {
        error = "no network namespace " + ns + " (" + errnoName(errno) + ")";
        return false;
    }
    const bool ok = setns(fd, CLONE_NEWNET) == 0;
    if (!ok) error = "setns " + ns + ": " + errnoName(errno);
    close(fd);
    return ok;
}

int runProgram(const std::vector<std::string>& argv, std::string* output) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
    const pid_t pid = fork();
    if (pid < 0) {
        close(pipeFds[0]);
        close(pipeFds[1]);
        return -1;
    }
    if (pid == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        dup2(pipeFds[1], STDERR_FILENO);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        dprintf(STDERR_FILENO, "cannot run %s: %s\n", args[0], strerror(errno));
        _exit(127);
    }
    close(pipeFds[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(pipeFds[0], buf, sizeof(buf))) != 0;) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;
        text.append(buf, static_cast<size_t>(n));
    }
    close(pipeFds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (output != nullptr) *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool dropToUid(uid_t uid) {
    return setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 &&
           setresuid(uid, uid, uid) == 0;
}

int64_t monotonicNanos() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::string errnoName(int err) {
    const char* name = strerrorname_np(err);
    return name != nullptr ? name : "errno " + std::to_string(err);
}

std::string addrText(const sockaddr_storage& a) {
    char buf[INET6_ADDRSTRLEN] = "?";
    if (a.ss_family == AF_INET6) {
        const auto& a6 = reinterpret_cast<const sockaddr_in6&>(a);
        inet_ntop(AF_INET6, &a6.sin6_addr, buf, sizeof(buf));
        return "[" + std::string(buf) + "]:" + std::to_string(ntohs(a6.sin6_port));
    }
    const auto& a4 = reinterpret_cast<const sockaddr_in&>(a);
    inet_ntop(AF_INET, &a4.sin_addr, buf, sizeof(buf));
    return std::string(buf) + ":" + std::to_string(ntohs(a4.sin_port));
}

socklen_t socketAddress(const std::string& addr, int port, sockaddr_storage& out) {
    out = {};
    auto& a6 = reinterpret_cast<sockaddr_in6&>(out);
    auto& a4 = reinterpret_cast<sockaddr_in&>(out);
    if (inet_pton(AF_INET6, addr.c_str(), &a6.sin6_addr) == 1) {
        a6.sin6_family = AF_INET6;
        a6.sin6_port = htons(static_cast<uint16_t>(port));
        return sizeof(a6);
    }
    if (inet_pton(AF_INET, addr.c_str(), &a4.sin_addr) == 1) {
        a4.sin_family = AF_INET;
        a4.sin_port = htons(static_cast<uint16_t>(port));
        return sizeof(a4);
    }
    return 0;
}

std::string selfExe() {
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "vord-linklab";
}

bool writeSysctl(const std::string& key, const std::string& value) {
    const int fd = open(("/proc/sys/" + key).c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size());
    close(fd);
    return ok;
}

}  // namespace linklab
