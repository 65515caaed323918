// A link lab (tools/linklab) for end-to-end tests: a handset namespace with
// dual-stack (or IPv6-only) links named like the handset's ("wlan0",
// "rmnet_data0", ...), each a TUN device with a real one-way delay in each
// direction, route tables named after the links, and behind them a peer
// namespace with the probe echo server (1.1.1.1:443, [2606:4700:4700::1111]:443)
// and an application server (198.18.0.10:8080, [2001:2::10]:8080) that tells
// each client which link its connection came in on. Links can be cut, restored and
// re-timed while everything runs. The destructor removes the lab, and every
// process still inside it.
//
//   LinkLab lab({{"wlan0", 20}, {"rmnet_data0", 15}});   // one-way ms
//   ASSERT_EQ(lab.error(), "");
//   LinkLab::installTools(root);               // rule tools act inside the lab
//   daemon.setCommandPrefix(lab.commandPrefix());  // vord runs inside the lab
//   auto app = lab.startClient(10123);         // an app as UID 10123
//   app->waitForLine("connected ", 5s);  lab.cut("wlan0");
#pragma once

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "DaemonProcess.h"

namespace vord {
namespace test {

// A process in the lab (an application client: vord-linklab client), one line
// per event: "connected local=A:P peer=A:P link=L", "connection aborted: ERRNO",
// "reconnected local=A:P peer=A:P link=L", "connect failed: ERRNO".
class LabClient : public Spawned {
  public:
    explicit LabClient(const std::vector<std::string>& args, const std::string& out = newOutput())
        : Spawned(args, out), out_(out) {}
    ~LabClient() {
        stop(SIGKILL);
        unlink(out_.c_str());
    }

    std::string output() const { return readWholeFile(out_); }
    // Lines that begin with `prefix`.
    std::vector<std::string> linesStartingWith(const std::string& prefix) const {
        std::vector<std::string> out;
        std::istringstream text(output());
        for (std::string l; std::getline(text, l);) {
            if (l.compare(0, prefix.size(), prefix) == 0) out.push_back(l);
        }
        return out;
    }
    // Waits until at least `nth` lines begin with `prefix`; returns the nth.
    std::string waitForLine(const std::string& prefix, std::chrono::milliseconds timeout,
                            size_t nth = 1) const {
        std::vector<std::string> found;
        waitFor([&] { return (found = linesStartingWith(prefix)).size() >= nth; }, timeout);
        return found.size() >= nth ? found[nth - 1] : "";
    }
    // The "link=" field of a "connected"/"reconnected" line.
    static std::string linkOf(const std::string& line) {
        const size_t at = line.find(" link=");
        return at == std::string::npos ? "" : line.substr(at + 6, line.find(' ', at + 6) - at - 6);
    }

  private:
    static std::string newOutput() {
        static int counter = 0;
        return "/tmp/vord-labclient-" + std::to_string(getpid()) + "-" + std::to_string(counter++) + ".log";
    }
    std::string out_;
};

class LinkLab {
  public:
    struct Link {
        std::string name;
        int oneWayMs;  // each direction; the round trip is twice this
        bool ipv6Only = false;
    };

    // Why a lab cannot be built here ("" when it can): not root, no TUN.
    static std::string unavailable() {
        if (geteuid() != 0) return "the link lab needs root (network namespaces, TUN devices)";
        struct stat st;
        if (stat("/dev/net/tun", &st) != 0) return "the link lab needs /dev/net/tun";
        return "";
    }

    // `defaultLink` carries the main table's default route; the last link when empty.
    explicit LinkLab(const std::vector<Link>& links, const std::string& defaultLink = "") {
        removeOrphans();
        static int counter = 0;
        name_ = "vlab-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
        std::string cmd = tool() + " up " + name_;
        for (const Link& l : links) {
            cmd += " " + l.name + "=" + std::to_string(l.oneWayMs) + (l.ipv6Only ? " --ipv6-only " + l.name : "");
        }
        if (!defaultLink.empty()) cmd += " --default " + defaultLink;
        std::string out;
        if (shell(cmd, &out) != 0) error_ = "\"" + cmd + "\" failed: " + out;
    }
    ~LinkLab() {
        std::string out;
        if (shell(tool() + " down " + name_, &out) != 0) ADD_FAILURE() << "lab down: " << out;
    }
    LinkLab(const LinkLab&) = delete;
    LinkLab& operator=(const LinkLab&) = delete;

    const std::string& name() const { return name_; }
    // Empty when the lab was built; else the failed command and its output.
    const std::string& error() const { return error_; }
    // Removes the lab (idempotent); true when nothing is left and the relay
    // exited without a sanitizer report.
    bool down() { return run("down " + name_); }

    bool cut(const std::string& link) const { return run("cut " + name_ + " " + link); }
    bool restore(const std::string& link) const { return run("restore " + name_ + " " + link); }
    bool setDelay(const std::string& link, int oneWayMs) const {
        return run("delay " + name_ + " " + link + " " + std::to_string(oneWayMs));
    }
    // How the probe server at 1.1.1.1:443 answers: "exact" (the default) echoes,
    // "fill" adds two bytes after every 58 received, so the daemon's probe (58
    // out, up to 60 in with MSG_WAITALL) completes each exchange in one round
    // trip instead of at its 500 ms receive time-out; "close" answers with a TLS
    // alert and closes; "silent" never answers.
    bool setProbeServer(const std::string& mode) const { return run("probe-echo " + name_ + " " + mode); }
    // The link's carrier on the handset side (off: nothing passes either).
    bool setCarrier(const std::string& link, bool on) const {
        return run("carrier " + name_ + " " + link + (on ? " on" : " off"));
    }
    // "lab NAME pid N default LINK probe-echo MODE" then one line per link:
    // "wlan0 delay=20ms rtt=40ms state=up|cut handset=... peer=... table=... ..."
    std::string status() const { return output("status " + name_); }
    // The servers' log: "echo|app accept|close peer=A:P link=L" lines.
    std::string connectionLog() const { return output("log " + name_); }

    // Output (stdout and stderr) of `cmd` run in the handset namespace (or the
    // peer's); `cmd` goes through the shell first, so pipes run outside.
    std::string exec(const std::string& cmd, bool peer = false) const {
        return output("exec " + name_ + (peer ? " --peer" : "") + " -- " + cmd);
    }
    // Prefix that runs a program inside the handset namespace, with the lab's
    // route-table names known to ip (for DaemonProcess::setCommandPrefix).
    std::vector<std::string> commandPrefix() const { return {tool(), "exec", name_, "--"}; }
    // Installs the rule tools in `root`: the real iptables, ip6tables and ip, for
    // a daemon running in the lab (commandPrefix), whose namespace they inherit.
    static void installTools(const TempRoot& root) {
        for (const std::string t : {"iptables", "ip6tables", "ip"}) {
            root.writeFile("/system/bin/" + t + "-wrapper-1.0", "#!/bin/sh\nexec " + t + " \"$@\"\n", 0755);
        }
    }

    // The line of `vord-linklab probe NAME LINK ARGS`: "link=L local=A:P rtt_us=N
    // min_rtt_us=N rttvar_us=N exchanges=N elapsed_ms=N", or an error text. By
    // default ten echoed 58-byte exchanges with the probe server.
    std::string probe(const std::string& link, const std::string& args = "") const {
        return output("probe " + name_ + " " + link + " " + args);
    }
    // The number after " NAME=" in `line`; -1 when absent.
    static long field(const std::string& line, const std::string& name) {
        const size_t at = line.find(" " + name + "=");
        return at == std::string::npos ? -1 : std::atol(line.c_str() + at + name.size() + 2);
    }

    // An application client running as `uid` in the handset namespace, talking
    // to the application server (its IPv6 address with `ipv6`) every 100 ms.
    std::unique_ptr<LabClient> startClient(int uid, bool ipv6 = false) const {
        std::vector<std::string> args{tool(), "client", name_, "--uid", std::to_string(uid), "--interval", "100"};
        if (ipv6) args.push_back("-6");
        return std::make_unique<LabClient>(args);
    }
    // `n` new connections of `uid` to the application server, one after the
    // other: "connections=N failed=F LINK=COUNT ...".
    std::string connections(int uid, int n, bool ipv6) const {
        return output("client " + name_ + " --uid " + std::to_string(uid) + " --connections " +
                      std::to_string(n) + (ipv6 ? " -6" : ""));
    }

    static std::string tool() { return binPath("vord-linklab"); }

  private:
    // Labs of test processes that died without their destructor (a killed
    // test run): "vlab-PID-N" whose PID is gone.
    static void removeOrphans() {
        DIR* dir = opendir("/run/vord-linklab");
        if (dir == nullptr) return;
        std::vector<std::string> orphans;
        while (const dirent* e = readdir(dir)) {
            const std::string n = e->d_name;
            if (n.compare(0, 5, "vlab-") != 0) continue;
            const pid_t owner = static_cast<pid_t>(std::atol(n.c_str() + 5));
            if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH) orphans.push_back(n);
        }
        closedir(dir);
        for (const std::string& n : orphans) shell(tool() + " down " + n);
    }
    bool run(const std::string& args) const { return shell(tool() + " " + args) == 0; }
    std::string output(const std::string& args) const {
        std::string out;
        shell(tool() + " " + args, &out);
        return out;
    }

    std::string name_, error_;
};

// Fixture: a lab, and a daemon running inside it with the real rule tools.
// Skipped, loudly, where no lab can be built.
class LabTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = LinkLab::unavailable();
        if (!why.empty()) GTEST_SKIP() << "*** SKIPPED: " << why << " ***";
    }
    // Use with ASSERT_NO_FATAL_FAILURE, as startDaemon.
    void buildLab(const std::vector<LinkLab::Link>& links, const std::string& defaultLink = "") {
        lab = std::make_unique<LinkLab>(links, defaultLink);
        ASSERT_EQ(lab->error(), "");
        lab->installTools(root);
    }
    // Writes `conf`, starts a daemon in the lab and waits until it serves. With
    // `leastPrivilege` set the daemon runs as the device runs it (vord.rc): not
    // root, with only CAP_NET_ADMIN and CAP_NET_RAW, ambient so that the rule
    // tools have them too; the sandbox root is its own, and so is a copy of the
    // binary, reachable wherever the build tree is.
    void startDaemon(const std::string& conf) {
        root.writeConf(conf);
        daemon = std::make_unique<DaemonProcess>(root);
        std::vector<std::string> prefix = lab->commandPrefix();
        if (leastPrivilege) {
            const std::string id = std::to_string(kDaemonUid), caps = "-all,+net_admin,+net_raw";
            ASSERT_EQ(shell("cp " + binPath("vord") + " " + root.at("/vord") + " && chown -R " + id + ":" + id +
                            " " + root.path()), 0);
            daemon->setProgram(root.at("/vord"));
            prefix.insert(prefix.end(), {"setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups",
                                         "--inh-caps=" + caps, "--ambient-caps=" + caps, "--bounding-set=" + caps, "--"});
        }
        daemon->setCommandPrefix(prefix);
        daemon->start();
        ASSERT_TRUE(daemon->waitUntilServing(std::chrono::seconds(20))) << daemon->log();
        if (leastPrivilege) {  // CAP_NET_ADMIN (12) and CAP_NET_RAW (13), nothing else
            const std::string status = readWholeFile("/proc/" + std::to_string(daemon->pid()) + "/status");
            EXPECT_NE(status.find("\nUid:\t" + std::to_string(kDaemonUid) + "\t"), std::string::npos) << status;
            EXPECT_NE(status.find("\nCapEff:\t0000000000003000\n"), std::string::npos) << status;
        }
    }
    void vordctl(const std::string& args) {
        std::string out;
        ASSERT_EQ(0, test::vordctl(root, args, &out)) << args << ": " << out;
    }
    std::string mangle(bool v6 = false) const { return lab->exec(v6 ? "ip6tables-save -t mangle" : "iptables-save -t mangle"); }

    // A user id of no one on the host, as the daemon's own on the device.
    static constexpr int kDaemonUid = 2950;
    bool leastPrivilege = false;
    TempRoot root;
    std::unique_ptr<LinkLab> lab;
    std::unique_ptr<DaemonProcess> daemon;
};

}  // namespace test
}  // namespace vord
