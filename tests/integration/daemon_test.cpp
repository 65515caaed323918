// The real daemon: its control channel over the real socket, the evaluation
// loop's period, its stop property and signals (a loop period of 0:
// status_snapshot_test), and its command line.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "DaemonTest.h"

namespace {

using namespace vord::test;

TEST_F(DaemonTest, SocketFileIsReplacedOpenedToAllRecreatedAndStoppedByANumericTwo) {
    const std::string path = root.at("/dev/socket/vord");
    ASSERT_EQ(mknod(path.c_str(), S_IFSOCK | 0600, 0), 0);  // stale: nobody listens
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0666u);
    ASSERT_TRUE(client.connect() && client.send(12, "first"));
    ASSERT_TRUE(daemon.waitForLog("msg.message=[first]")) << daemon.log();

    ASSERT_EQ(unlink(path.c_str()), 0);  // only a re-created file brings the path back
    client.close();
    ASSERT_TRUE(daemon.waitForLog("socket EPOLLHUP error, retry create socket")) << daemon.log();
    ASSERT_TRUE(daemon.waitForLog("Created socket success", std::chrono::seconds(10), 2));
    ASSERT_TRUE(client.connect(std::chrono::seconds(10)) && client.send(12, "second"));
    ASSERT_TRUE(daemon.waitForLog("msg.message=[second]")) << daemon.log();

    // "x" reads as 0: the loop runs on. A hang-up and a broken pipe are ignored.
    root.setProperty("vendor.sla.enabled", "x");
    ASSERT_EQ(kill(daemon.pid(), SIGHUP) | kill(daemon.pid(), SIGPIPE), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));  // several loop periods
    EXPECT_EQ(daemon.countLog("Mux disabled"), 0u);
    EXPECT_TRUE(daemon.alive());
    // "2abc" reads as 2. Stopped while serving a client: the thread ends, the
    // socket serves no one, the process idles.
    root.setProperty("vendor.sla.enabled", "2abc");
    ASSERT_TRUE(daemon.waitForLog("Vord exiting")) << daemon.log();
    EXPECT_EQ(daemon.countLog("socket Thread exit"), 1u);
    EXPECT_FALSE(ControlClient(root).connect());
    EXPECT_TRUE(daemon.alive());

    // What init's restart does when the property goes back to 1: SIGTERM ends the
    // idle daemon at once, and a new one serves again.
    EXPECT_EQ(daemon.signal(SIGTERM, std::chrono::seconds(2)), 0);
    EXPECT_EQ(daemon.countLog("SIGTERM received while idle: exiting"), 1u) << daemon.log();
    root.setProperty("vendor.sla.enabled", "1");
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_TRUE(client.connect() && client.send(12, "third"));
    EXPECT_TRUE(daemon.waitForLog("msg.message=[third]")) << daemon.log();
}

// --help and --version print and exit 0 without touching any path; anything else
// is refused with 2 and starts nothing.
TEST(DaemonCommandLine, HelpVersionAndRefusals) {
    TempRoot root;
    const std::string vord = "VORD_ROOT=" + root.path() + " " + binPath("vord");
    std::string before, out;
    shell("find " + root.path(), &before);
    EXPECT_EQ(shell(vord + " --help", &out), 0);
    EXPECT_NE(out.find("usage: vord"), std::string::npos) << out;
    EXPECT_EQ(shell(vord + " --version", &out), 0);
    EXPECT_EQ(out, "vord (SLA+SLS) 3.0.4.5\n");
    for (const char* args : {"--bogus", "--help extra", "-v"}) {
        EXPECT_EQ(shell(vord + " " + args, &out), 2) << args;
        EXPECT_NE(out.find("unexpected argument"), std::string::npos) << out;
    }
    shell("find " + root.path(), &out);
    EXPECT_EQ(out, before) << "paths touched";
}

}  // namespace
