// vordctl against a daemon that is busy (a long command holds the control
// thread) and against no daemon at all, and the payloads it refuses to send.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "DaemonTest.h"

namespace {

using namespace vord::test;

TEST_F(DaemonTest, VordctlWaitsThroughABusyDaemonUpToItsTimeout) {
    // The rule tool stand-in takes 3 s over the command that creates wlan0's mark
    // chain, so that adding wlan0 keeps the control thread busy that long.
    root.writeFile("/system/bin/iptables-wrapper-1.0",
                   "#!/bin/sh\ncase \"$*\" in *'-N vexo_fw_wlan0') sleep 3;; esac\n", 0755);
    root.writeFile("/proc/sla/wlan0_mmap", std::string(20480, '\0'));  // mapped at once
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    std::string first;
    ASSERT_EQ(vordctl(root, "ifaces wlan0", &first), 0) << first;  // read at once, then runs 3 s
    ASSERT_TRUE(daemon.waitForLog("add Interfaces is wlan0")) << daemon.log();

    // Behind it: one client with the default timeout, one that gives up after 1 s.
    std::string impatient, patient;
    int impatientStatus = 0;
    std::thread other([&] { impatientStatus = vordctl(root, "--timeout 1 rtt 7", &impatient); });
    EXPECT_EQ(vordctl(root, "rtt 42", &patient), 0) << patient << daemon.log();
    other.join();
    EXPECT_NE(patient.find("vord is busy (serving another client or a long command); waiting up to 60 s"),
              std::string::npos)
        << patient;
    EXPECT_NE(impatientStatus, 0);
    EXPECT_NE(impatient.find("within 1 s"), std::string::npos) << impatient;
    EXPECT_NE(impatient.find("--timeout"), std::string::npos) << impatient;
    // Served once, after the long command ran to its end.
    EXPECT_EQ(daemon.countLog("msg.message=[42]"), 1u);
    EXPECT_EQ("", missingInOrder(daemon.log(), {"-A vexo_nat_POSTROUTING_MUX -o wlan0 -j MASQUERADE",
                                                "msg.message=[42]"}))
        << daemon.log();
}

TEST(Vordctl, HelpRefusalsAndNothingListening) {
    TempRoot root;
    std::string out;
    ASSERT_EQ(vordctl(root, "--help", &out), 0);
    for (const char* name : {"ifaces", "whitelist", "gateway", "bssid", "sls-stop", "raw"}) {
        EXPECT_NE(out.find(std::string("  ") + name + " "), std::string::npos) << name;
    }
    // A socket file that nobody listens on: bound, never listening.
    const int bound = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string stale = root.at("/stale.sock");
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", stale.c_str());
    ASSERT_EQ(bind(bound, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    const struct {
        std::string args;
        int status;
        const char* text;
    } cases[] = {
        {"mode 0", 1, "vord is not listening on"},
        {"mode 0", 1, "no socket file"},
        {"--socket " + stale + " mode 0", 1, "connection refused"},
        {"reboot now", 2, "unknown command 'reboot'"},
        {"ifaces wlan0 gateway", 2, "missing payload for 'gateway'"},
        // Payloads the daemon would refuse: its reason, nothing sent.
        {"rtt 7 mode abc", 2, "mode: vord refuses this payload: refused mode \"abc\": not a decimal number"},
        {"whitelist 10123,0", 2, "refused entry \"0\": UID 0 (root) is never steered; nothing sent"},
        {"--force mode abc", 1, "no socket file"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vordctl(root, c.args, &out), c.status) << c.args;
        EXPECT_NE(out.find(c.text), std::string::npos) << out;
    }
    close(bound);
}

}  // namespace
