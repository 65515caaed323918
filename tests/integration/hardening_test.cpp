// The real daemon against hostile or nonsensical input: refusals leave nothing
// half-built, warnings are logged, and no payload byte breaks a log line.
#include <unistd.h>


#include "DaemonTest.h"

namespace {

using namespace vord::test;

// Refused names, lists, payloads and UIDs leave nothing half-built, and each
// refused command counts once; failing rule tools are counted and shown, a
// hanging one is killed at its deadline.
TEST_F(DaemonTest, RefusalsBuildNothingAndFailingToolsAreCounted) {
    root.writeFile("/proc/sla/config", "");
    // Rule tools that record each command and then fail it; the first one hangs.
    for (const char* tool : {"iptables-wrapper-1.0", "ip6tables-wrapper-1.0", "ip-wrapper-1.0"}) {
        root.writeFile(std::string("/system/bin/") + tool,
                       std::string("#!/bin/sh\necho \"/system/bin/") + tool + " $*\" >> '" +
                           root.at("/record/commands") + "'\n[ \"$*\" = '-w -t mangle -N vexo_MUX' ] && sleep 60\n"
                           "echo \"no: $2\"\nexit 1\n",
                       0755);
    }
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=100\nrule_command_timeout_s=1\n"));
    EXPECT_EQ(1u, daemon.countLog("execnetd command failed (killed after 1 s): /system/bin/iptables-wrapper-1.0 -w "
                                  "-t mangle -N vexo_MUX"));
    // Sends one record, then a no-op marker record, and waits until the marker
    // is received. One connection serves the whole test.
    int sent = 0;
    auto sendAndWait = [&](int id, const std::string& text) {
        const std::string marker = "marker-" + std::to_string(++sent);
        ASSERT_TRUE(sent > 1 || client.connect(std::chrono::seconds(10)));
        ASSERT_TRUE(client.send(id, text) && client.send(10, marker));
        ASSERT_TRUE(daemon.waitForLog("msg.message=[" + marker + "]")) << daemon.log();
    };
    for (const char* name : {"local", "main", "255", "rmnet_data123"}) {
        ASSERT_NO_FATAL_FAILURE(sendAndWait(1, name));
        EXPECT_EQ(1u, daemon.countLog(std::string("addInterfaces refused interface \"") + name)) << daemon.log();
    }
    // A newline in a payload stays in its line; root is never whitelisted.
    ASSERT_NO_FATAL_FAILURE(sendAndWait(2, "0,1\n2,10123\nE/MUX-Vord-daemon: forged"));
    ASSERT_NO_FATAL_FAILURE(sendAndWait(2, "0,10456"));
    EXPECT_EQ(std::string::npos, daemon.log().find("\nE/MUX-Vord-daemon: forged")) << daemon.log();
    EXPECT_EQ(1u, daemon.countLog("msg.message=[0,1\\x0a2,10123\\x0aE/MUX-Vord-daemon: forged]"));
    EXPECT_EQ(1u, daemon.countLog("refused entry \"1\\x0a2\": not a decimal UID"));
    EXPECT_EQ(2u, daemon.countLog("populateSlauidwhitelist refused entry \"0\": UID 0 (root) is never steered"));
    ASSERT_NO_FATAL_FAILURE(sendAndWait(6, "7"));
    ASSERT_NO_FATAL_FAILURE(sendAndWait(14, "5"));
    EXPECT_EQ(1u, daemon.countLog("setDoubleWifiMonitor refused \"7\": neither 1 (on) nor 0 (off)"));
    EXPECT_EQ(1u, daemon.countLog("setGameAiModeCheckRtt refused \"5\": neither 1 (on) nor 0 (off)"));
    // Whitelists 2, 5 and 7: a repeated payload changes nothing, "NULL" empties
    // the list, and a repeated "NULL" changes nothing either.
    const std::string flush = "/iptables-wrapper-1.0 -w -t mangle -F vexo_MUX_wapper";  // IPv4's
    const size_t rebuilt = countOf(root.recordedCommands(), flush);
    for (int id : {2, 5, 7}) {
        for (const char* text : {"10777", "10777", "NULL", "NULL"}) ASSERT_NO_FATAL_FAILURE(sendAndWait(id, text));
    }
    EXPECT_EQ(rebuilt + 6, countOf(root.recordedCommands(), flush));
    EXPECT_EQ(1u, daemon.countLog("SLA Double Wlan UID whitelist = 10777"));
    // Refused in whole or in part: 4 names, 2 whitelists, 2 switches.
    ASSERT_TRUE(waitSnapshot([&](const vord::status::Snapshot& s) { return s.controlServed == 12u + sent; }))
        << last.controlServed << " served, " << sent << " sent";
    EXPECT_EQ(8u, last.controlRefused);
    // Every rule command failed; the last one is shown with its output.
    EXPECT_EQ(last.ruleCommandsFailed, last.ruleCommandsRun);
    EXPECT_EQ(last.lastFailedResult + " " + last.lastFailedOutput, "exit 1 no: -t\\x0a");
    // (an IPv6 one: each group's IPv6 commands come after its IPv4 ones).
    EXPECT_EQ(last.lastFailedCommand.rfind("/system/bin/ip6tables-wrapper-1.0 -w -t ", 0), 0u) << last.lastFailedCommand;
    EXPECT_EQ(0u, last.slaWhitelist + last.dwWhitelist + last.ddWhitelist);

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

    ASSERT_TRUE(daemon.stopThroughProperty()) << daemon.log();
}

}  // namespace
