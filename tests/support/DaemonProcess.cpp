#include "DaemonProcess.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "control/msg.h"

namespace vord {
namespace test {

std::string binPath(const std::string& program) { return std::string(VORD_BIN_DIR) + "/" + program; }

int runProgram(const std::vector<std::string>& argv, const TempRoot* root, std::string* output) {
    // Everything the child needs is built before the fork.
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::string rootVar = root != nullptr ? "VORD_ROOT=" + root->path() : std::string();
    std::vector<char*> env;
    for (char** e = environ; *e != nullptr; ++e) {
        if (root == nullptr || strncmp(*e, "VORD_ROOT=", 10) != 0) env.push_back(*e);
    }
    if (root != nullptr) env.push_back(const_cast<char*>(rootVar.c_str()));
    env.push_back(nullptr);

    int pipeFds[2];
    if (args.size() < 2 || pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        dup2(pipeFds[1], STDERR_FILENO);
        execve(args[0], args.data(), env.data());
        _exit(127);
    }
    ::close(pipeFds[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(pipeFds[0], buf, sizeof(buf))) != 0;) {
        if (n > 0) text.append(buf, static_cast<size_t>(n));
        else if (errno != EINTR) break;
    }
    ::close(pipeFds[0]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    if (output != nullptr) *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool unixSocketListening(const std::string& path) {
    constexpr unsigned long kAcceptCon = 0x10000;  // the socket is listening
    std::stringstream table(readWholeFile("/proc/net/unix"));
    std::string line;
    std::getline(table, line);  // header
    while (std::getline(table, line)) {
        std::stringstream fields(line);
        std::string num, refCount, protocol, flags, type, state, inode, name;
        if (!(fields >> num >> refCount >> protocol >> flags >> type >> state >> inode >> name)) {
            continue;
        }
        if (name == path && (std::stoul(flags, nullptr, 16) & kAcceptCon) != 0) return true;
    }
    return false;
}

DaemonProcess::DaemonProcess(const TempRoot& root) : root_(root) {}

DaemonProcess::~DaemonProcess() {
    kill();
    // A sanitizer report in the daemon ends up in its log, not in the test's.
    if (pid_ > 0) {
        std::string text = log();
        for (const char* marker : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                                   "ERROR: LeakSanitizer", "runtime error:"}) {
            size_t at = text.find(marker);
            if (at != std::string::npos) {
                ADD_FAILURE() << "sanitizer report in the daemon's log:\n"
                              << text.substr(at > 200 ? at - 200 : 0, 4000);
                break;
            }
        }
    }
}

void DaemonProcess::start() {
    std::string logPath = root_.at("/vord.log");
    std::string bin = binPath("vord");
    std::string env = "VORD_ROOT=" + root_.path();
    pid_ = fork();
    if (pid_ == 0) {
        int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            if (fd > STDERR_FILENO) ::close(fd);
        }
        setenv("VORD_ROOT", root_.path().c_str(), 1);
        char* argv[] = {const_cast<char*>(bin.c_str()), nullptr};
        execv(bin.c_str(), argv);
        _exit(127);
    }
    reaped_ = false;
}

bool DaemonProcess::alive() {
    if (pid_ <= 0 || reaped_) return false;
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
        reaped_ = true;
        return false;
    }
    return r == 0;
}

void DaemonProcess::kill() {
    if (pid_ <= 0 || reaped_) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    reaped_ = true;
}

std::string DaemonProcess::log() const { return root_.readFile("/vord.log"); }

std::vector<std::string> DaemonProcess::logLines() const {
    std::vector<std::string> out;
    std::stringstream ss(log());
    std::string line;
    while (std::getline(ss, line)) out.push_back(line);
    return out;
}

size_t DaemonProcess::countLog(const std::string& needle) const {
    std::string text = log();
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) {
        ++n;
    }
    return n;
}

bool DaemonProcess::waitForLog(const std::string& needle, std::chrono::milliseconds timeout,
                               size_t times) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (countLog(needle) >= times) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return countLog(needle) >= times;
}

bool DaemonProcess::waitUntilServing(std::chrono::milliseconds timeout) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    if (!waitForLog("Created socket success", timeout)) return false;
    while (std::chrono::steady_clock::now() < deadline) {
        if (unixSocketListening(root_.at("/dev/socket/vord"))) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

long DaemonProcess::cpuTimeMs() const {
    std::string stat = readWholeFile("/proc/" + std::to_string(pid_) + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) return -1;
    std::stringstream ss(stat.substr(close + 2));
    std::string field;
    long utime = 0, stime = 0;
    // Fields after the command name start at field 3 (state); utime is 14, stime 15.
    for (int i = 3; i <= 15 && ss >> field; ++i) {
        if (i == 14) utime = std::stol(field);
        if (i == 15) stime = std::stol(field);
    }
    return (utime + stime) * 1000 / sysconf(_SC_CLK_TCK);
}

bool DaemonProcess::stopThroughProperty(std::chrono::milliseconds timeout) {
    root_.setProperty("vendor.sla.enabled", "2");
    return waitForLog("Vord exiting", timeout);
}

ControlClient::ControlClient(const TempRoot& root) : root_(root) {}

ControlClient::~ControlClient() { close(); }

bool ControlClient::connect() {
    close();
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return false;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", root_.at("/dev/socket/vord").c_str());
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close();
        return false;
    }
    return true;
}

bool ControlClient::connect(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!connect()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool ControlClient::waitRead(std::chrono::milliseconds timeout) {
    if (fd_ < 0) return false;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int unread = 0;  // bytes sent that the peer has not read yet
        if (ioctl(fd_, SIOCOUTQ, &unread) != 0) return false;
        if (unread == 0) break;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // A connection dropped with data unread (or never accepted) reports a reset.
    int err = 0;
    socklen_t len = sizeof(err);
    getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len);
    return err != ECONNRESET;
}

bool ControlClient::deliver(const std::string& bytes, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        if (!connected() && !connect(left)) return false;
        if (sendRaw(bytes.data(), bytes.size()) && waitRead(left)) return true;
        close();
    }
}

std::string ControlClient::record(int id, const std::string& text, int length) {
    msg_t msg;
    memset(&msg, 0, sizeof(msg));
    msg.id = id;
    msg.length = length >= 0 ? length : static_cast<int>(text.size());
    memcpy(msg.message, text.data(), std::min(text.size(), sizeof(msg.message)));
    return std::string(reinterpret_cast<const char*>(&msg), sizeof(msg));
}

bool ControlClient::sendRaw(const void* data, size_t size) {
    if (fd_ < 0) return false;
    return ::send(fd_, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool ControlClient::send(int id, const std::string& text, int length) {
    std::string bytes = record(id, text, length);
    return sendRaw(bytes.data(), bytes.size());
}

void ControlClient::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

}  // namespace test
}  // namespace vord
