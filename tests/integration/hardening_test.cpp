// The real daemon against hostile or nonsensical input: refusals leave nothing
// half-built, warnings are logged, a block cut short under its mapping is
// skipped, and no payload byte breaks a log line.
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <thread>

#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

constexpr size_t kBlockSize = 20480;

class HardeningTest : public DaemonTest {
  protected:
    void SetUp() override {
        root.installRecordingTool("iptables-wrapper-1.0");
        root.installRecordingTool("ip-wrapper-1.0");
        root.writeFile("/proc/sla/config", "");
    }
    // A full-size block file, so that mapping it needs no retries.
    void blockFile(const std::string& name) {
        root.writeFile("/proc/sla/" + name + "_mmap", std::string(kBlockSize, '\0'));
    }
    // Sends one record, then a no-op marker record, and waits until the marker
    // is received. One connection serves the whole test: a client that connects
    // while the previous one's hang-up is pending would be dropped.
    void sendAndWait(int id, const std::string& text, const std::string& marker) {
        if (!connected) {
            ASSERT_TRUE(client.connect(std::chrono::seconds(10)));
            connected = true;
        }
        ASSERT_TRUE(client.send(id, text));
        ASSERT_TRUE(client.send(12, marker));
        ASSERT_TRUE(daemon.waitForLog("msg.message=[" + marker + "]")) << daemon.log();
    }
    size_t linesStartingWith(const std::string& prefix) const {
        std::istringstream in(daemon.log());
        size_t n = 0;
        for (std::string line; std::getline(in, line);) n += line.compare(0, prefix.size(), prefix) == 0;
        return n;
    }
    bool connected = false;
};

// Refused names, lists, payloads and UIDs leave nothing half-built; a huge cache
// is clamped; a directory in place of the conf file is a failed read.
TEST_F(HardeningTest, RefusalsBuildNothingClampedCacheAndDirectoryConf) {
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=100\nbest_est_cache_size=1000000000\n"));
    EXPECT_EQ(1u, daemon.countLog("W/MUX-Vord-SlaParameters: best_est_cache_size 1000000000 is above "
                                  "the maximum of 3600: 3600 is used"));
    const char* refused[] = {"local", "main", "255", "rmnet_data123"};
    int n = 0;
    for (const char* name : refused) {
        ASSERT_NO_FATAL_FAILURE(sendAndWait(1, name, "after-" + std::to_string(n++)));
        EXPECT_EQ(1u, daemon.countLog(std::string("addInterfaces refused interface \"") + name))
            << daemon.log();
    }
    ASSERT_NO_FATAL_FAILURE(sendAndWait(1, "wlan0,wlan1,rmnet_data0,rmnet_data1,ccmni0,ccmni1,"
                                           "wwan0,wwan1,wlan2", "after-list"));
    EXPECT_EQ(1u, daemon.countLog("updateInterfaces refused a list of 9 interfaces (at most 8)"));
    // A newline in a payload stays in its line; root is never whitelisted.
    ASSERT_NO_FATAL_FAILURE(sendAndWait(2, "0,1\n2,10123\nE/MUX-Vord-daemon: forged", "after-forge"));
    ASSERT_NO_FATAL_FAILURE(sendAndWait(2, "0,10456", "after-root"));
    EXPECT_EQ(0u, linesStartingWith("E/MUX-Vord-daemon: forged")) << daemon.log();
    EXPECT_EQ(1u, daemon.countLog("msg.message=[0,1\\x0a2,10123\\x0aE/MUX-Vord-daemon: forged]"));
    EXPECT_EQ(1u, daemon.countLog("refused entry \"1\\x0a2\": not a decimal UID"));
    EXPECT_EQ(2u, daemon.countLog("populateSlauidwhitelist refused entry \"0\": UID 0 (root) is never steered"));
    ASSERT_TRUE(daemon.stopThroughProperty()) << daemon.log();

    // Nothing half-built: no rule, no block file, no module line, no slot.
    const std::string cmds = root.recordedCommands();
    EXPECT_EQ(std::string::npos, cmds.find("vexo_fw_")) << cmds;
    EXPECT_EQ(std::string::npos, cmds.find("rule add")) << cmds;
    EXPECT_EQ(std::string::npos, root.readFile("/proc/sla/config").find("iface="));
    for (const char* name : {"local", "main", "255", "rmnet_data123", "wlan0"}) {
        EXPECT_NE(0, access(root.at(std::string("/proc/sla/") + name + "_mmap").c_str(), F_OK)) << name;
    }
    EXPECT_EQ(0u, daemon.countLog("m_interfaceInfoMap add"));
    EXPECT_NE(std::string::npos, cmds.find("--uid-owner 10456 ")) << cmds;
    EXPECT_EQ(std::string::npos, cmds.find("--uid-owner 0 ")) << cmds;
    daemon.kill();

    TempRoot dirRoot;
    ASSERT_EQ(0, mkdir(dirRoot.at("/vendor/etc/sla/vord.conf").c_str(), 0755));
    DaemonProcess second(dirRoot);
    second.start();
    ASSERT_TRUE(second.waitUntilServing()) << second.log();
    EXPECT_EQ(1u, second.countLog("E/MUX-Vord-SlaParameters: read vord conf file failed!"));
    second.kill();
}

TEST_F(HardeningTest, FifthInterfaceWarnsAndModeMustBeANumber) {
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0", "rmnet_data1", "ccmni0"}) blockFile(name);
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_NO_FATAL_FAILURE(sendAndWait(3, "1,9", "after-mode"));
    EXPECT_EQ(1u, daemon.countLog("UpdateInterfaceMode refused mode \"1,9\": not a decimal number"));
    ASSERT_NO_FATAL_FAILURE(sendAndWait(1, "wlan0,wlan1,rmnet_data0,rmnet_data1,ccmni0", "after-five"));
    EXPECT_EQ(1u, daemon.countLog("W/MUX-Vord-SlaParameters: getValidInterfaceMark every mark slot is "
                                  "held: ccmni0 shares mark 0x200000 with wlan0, and its routing rule "
                                  "replaces the one of wlan0"))
        << daemon.log();
    ASSERT_TRUE(daemon.stopThroughProperty()) << daemon.log();
    // The refused mode left the cellular links metered (mode "1"): they got wrappers.
    const std::string cmds = root.recordedCommands();
    EXPECT_NE(std::string::npos, cmds.find("-N vexo_fw_rmnet_data1_wrapper")) << cmds;
    EXPECT_EQ(1u, daemon.countLog("SLA m_ifaceParams[0] = rmnet_data1,1,rmnet_data1,"));
}

TEST_F(HardeningTest, BlockCutShortWhileMappedLeavesTheDaemonServing) {
    blockFile("wlan0");
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_NO_FATAL_FAILURE(sendAndWait(1, "wlan0", "after-add"));
    ASSERT_TRUE(daemon.waitForLog("initMmap + wlan0")) << daemon.log();
    ASSERT_EQ(0, truncate(root.at("/proc/sla/wlan0_mmap").c_str(), 100));
    ASSERT_TRUE(daemon.waitForLog("WLAN: statistics block of wlan0 holds 100 of 20480 bytes; skipped "
                                  "until it is whole"))
        << daemon.log();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // several more periods
    EXPECT_TRUE(daemon.alive());
    ASSERT_NO_FATAL_FAILURE(sendAndWait(4, "192.168.1.1", "still-serving"));
    EXPECT_EQ(1u, daemon.countLog("skipped until it is whole"));
    ASSERT_TRUE(daemon.stopThroughProperty()) << daemon.log();
}

}  // namespace
}  // namespace test
}  // namespace vord
