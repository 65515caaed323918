#include "DaemonProcess.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "control/msg.h"

namespace vord {
namespace test {

namespace {

// True while a socket bound at `path` listens: the unix socket table of the
// daemon's network namespace (/proc/PID/net/unix) lists it with the
// __SO_ACCEPTCON flag.
bool listening(const std::string& path, pid_t pid) {
    std::istringstream table(readWholeFile("/proc/" + std::to_string(pid) + "/net/unix"));
    for (std::string line; std::getline(table, line);) {
        if (line.find(" 00010000 ") != std::string::npos && line.size() > path.size() &&
            line.compare(line.size() - path.size() - 1, std::string::npos, " " + path) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string binPath(const std::string& program) {
    return std::string(VORD_BIN_DIR) + "/" + program;
}

int shell(const std::string& cmd, std::string* output) {
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return -1;
    std::string text;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) text.append(buf, n);
    int status = pclose(p);
    if (output != nullptr) *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int vordctl(const TempRoot& root, const std::string& args, std::string* output) {
    return shell("VORD_ROOT=" + root.path() + " " + binPath("vordctl") + " " + args, output);
}

size_t countOf(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

std::string missingInOrder(const std::string& text, const std::vector<std::string>& needles) {
    size_t from = 0;
    for (const std::string& needle : needles) {
        if ((from = text.find(needle, from)) == std::string::npos) return needle;
        ++from;
    }
    return "";
}

int threadCount(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    if (dir == nullptr) return -1;
    int n = 0;
    while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
    closedir(dir);
    return n;
}

Spawned::Spawned(const std::vector<std::string>& argv, const std::string& logPath,
                 const std::string& vordRoot) {
    std::vector<std::string> copy = argv;
    std::vector<char*> args;
    for (std::string& a : copy) args.push_back(&a[0]);
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644), STDOUT_FILENO);
        dup2(STDOUT_FILENO, STDERR_FILENO);
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        if (!vordRoot.empty()) setenv("VORD_ROOT", vordRoot.c_str(), 1);
        execv(args[0], args.data());
        _exit(127);
    }
}

int Spawned::stop(int sig) {
    int status = -1;
    if (pid_ > 0 && ::kill(pid_, sig) == 0 && waitpid(pid_, &status, 0) == pid_) status_ = status;
    pid_ = -1;
    return status;
}

bool Spawned::alive() {
    if (pid_ > 0 && waitpid(pid_, &status_, WNOHANG) == pid_) pid_ = -1;
    return pid_ > 0;
}

void installMissingRuleTools(const TempRoot& root) {
    for (const char* tool : {"iptables-wrapper-1.0", "ip6tables-wrapper-1.0", "ip-wrapper-1.0"}) {
        if (access(root.at(std::string("/system/bin/") + tool).c_str(), F_OK) != 0) {
            root.installRecordingTool(tool);
        }
    }
}

std::unique_ptr<Spawned> startSimulator(const TempRoot& root, const std::string& rates) {
    root.writeFile("/sim/rates", rates);
    auto sim = std::make_unique<Spawned>(
            std::vector<std::string>{binPath("sla_stats_sim"), "--root", root.path(), "--rates-file",
                                     root.at("/sim/rates")},
            root.at("/sim/out.log"));
    EXPECT_TRUE(waitFor([&] { return root.readFile("/sim/out.log").find("config channel") != std::string::npos; }))
        << root.readFile("/sim/out.log");
    return sim;
}

DaemonProcess::~DaemonProcess() {
    kill();
    // A sanitizer report in the daemon ends up in its log, not in the test's.
    const std::string text = log();
    for (const char* marker : {"Sanitizer", "runtime error:"}) {
        if (text.find(marker) != std::string::npos) ADD_FAILURE() << "sanitizer report:\n" << text;
    }
}

void DaemonProcess::start() {
    std::vector<std::string> args = prefix_;
    args.push_back(program_);
    proc_ = std::make_unique<Spawned>(args, root_.at("/vord.log"), root_.path());
}

int DaemonProcess::waitExit(std::chrono::milliseconds timeout) {
    if (!proc_) return -1;
    if (waitFor([this] { return !proc_->alive(); }, timeout)) return proc_->status();
    proc_->stop(SIGKILL);
    return -1;
}

bool DaemonProcess::waitForLog(const std::string& needle, std::chrono::milliseconds timeout,
                               size_t times) const {
    return waitFor([&] { return countLog(needle) >= times; }, timeout);
}

bool DaemonProcess::waitUntilServing(std::chrono::milliseconds timeout) const {
    return waitForLog("Created socket success", timeout) &&
           waitFor([&] { return listening(root_.at("/dev/socket/vord"), pid()); }, timeout);
}

bool DaemonProcess::stopThroughProperty(std::chrono::milliseconds timeout) {
    root_.setProperty("vendor.sla.enabled", "2");
    return waitForLog("Vord exiting", timeout);
}

bool ControlClient::connect() {
    close();
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", root_.at("/dev/socket/vord").c_str());
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) close();
    return fd_ >= 0;
}

bool ControlClient::send(int id, const std::string& text, int length) {
    msg_t msg{};
    msg.id = id;
    msg.length = length >= 0 ? length : static_cast<int>(text.size());
    memcpy(msg.message, text.data(), std::min(text.size(), sizeof(msg.message)));
    return sendRaw(std::string(reinterpret_cast<const char*>(&msg), sizeof(msg)));
}

bool ControlClient::sendRaw(const std::string& bytes) {
    return fd_ >= 0 && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

void ControlClient::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

}  // namespace test
}  // namespace vord
