// The vordctl client against the real daemon.
#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

class VordctlTest : public DaemonTest {
  protected:
    int vordctl(std::vector<std::string> args, std::string* output) {
        args.insert(args.begin(), binPath("vordctl"));
        return runProgram(args, &root, output);
    }
};

TEST_F(VordctlTest, HelpListsEveryCommand) {
    std::string out;
    ASSERT_EQ(vordctl({"--help"}, &out), 0);
    for (const char* name : {"ifaces", "whitelist", "mode", "gateway", "dw-whitelist", "dw-monitor",
                             "dd-whitelist", "bssid", "sls-start", "sls-stop", "voip", "rtt",
                             "game-mode", "game-rtt-check", "raw"}) {
        EXPECT_NE(out.find(std::string("  ") + name + " "), std::string::npos) << name;
    }
}

TEST_F(VordctlTest, RefusesBadInvocationsAndAbsentDaemon) {
    struct Case {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
        {{"mode", "0"}, "cannot connect"},  // no daemon running
        {{"reboot", "now"}, "unknown command 'reboot'"},
        {{"ifaces", "wlan0", "gateway"}, "missing payload for 'gateway'"},
        {{"whitelist", std::string(1024, '1')}, "at most 1023"},
    };
    for (const Case& c : cases) {
        std::string out;
        EXPECT_NE(vordctl(c.args, &out), 0) << c.args[0];
        EXPECT_NE(out.find(c.message), std::string::npos) << out;
    }
}

TEST_F(VordctlTest, SendsSeveralCommandsOverOneConnection) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    std::string out;
    ASSERT_EQ(vordctl({"ifaces", "wlan0", "gateway", "192.168.1.1", "whitelist", "10123", "sls-stop"},
                      &out),
              0)
        << out;
    ASSERT_TRUE(daemon.waitForLog("socket EPOLLHUP error")) << daemon.log();
    std::vector<std::string> order = linesWith("");
    const char* expected[] = {"msg.id=1, msg.length=5, msg.message=[wlan0]",
                              "msg.id=4, msg.length=11, msg.message=[192.168.1.1]",
                              "msg.id=2, msg.length=5, msg.message=[10123]",
                              "msg.id=10, msg.length=0, msg.message=[]", "EPOLLHUP"};
    // All four records come before the one hang-up: they shared one connection.
    size_t at = 0;
    for (const char* want : expected) {
        while (at < order.size() && order[at].find(want) == std::string::npos) ++at;
        EXPECT_LT(at, order.size()) << "missing or out of order: " << want << "\n" << daemon.log();
    }
    EXPECT_EQ(daemon.countLog("EPOLLHUP"), 1u);
}

}  // namespace
}  // namespace test
}  // namespace vord
