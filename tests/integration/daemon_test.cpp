// The real daemon: its control channel over the real socket, vordctl, the
// evaluation loop's period and its stop property.
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

TEST_F(DaemonTest, SocketFileIsReplacedOpenedToAllAndRecreatedAfterAHangUp) {
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

    // Stopped while serving: the thread ends, the socket serves no one, the process idles.
    ASSERT_TRUE(daemon.stopThroughProperty()) << daemon.log();
    EXPECT_EQ(daemon.countLog("socket Thread exit"), 1u);
    EXPECT_FALSE(ControlClient(root).connect());
    EXPECT_TRUE(daemon.alive());
}

TEST(DaemonLoop, ZeroIntervalRunsTheLoopWithoutSleeping) {
    for (bool zero : {true, false}) {
        SCOPED_TRACE(zero ? "mini_est_interval=0" : "default interval");
        TempRoot root;
        DaemonProcess daemon(root);
        if (zero) root.writeConf("mini_est_interval=0\n");
        daemon.start();
        ASSERT_TRUE(daemon.waitUntilServing()) << daemon.log();
        const long before = daemon.cpuTimeMs();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const long used = daemon.cpuTimeMs() - before;
        // usleep(0) still costs the timer slack (about 50 us) per iteration, and
        // the machine may be busy: a spinning loop shows well over 100 ms.
        EXPECT_TRUE(zero ? used > 100 : used < 50) << used << " ms";
    }
}

TEST_F(DaemonTest, OnlyANumericTwoInThePropertyStopsTheDaemon) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    root.setProperty("vendor.sla.enabled", "x");  // reads as 0
    std::this_thread::sleep_for(std::chrono::milliseconds(600));  // several loop periods
    EXPECT_EQ(daemon.countLog("Mux disabled"), 0u);
    root.setProperty("vendor.sla.enabled", "2abc");  // reads as 2
    EXPECT_TRUE(daemon.waitForLog("Vord exiting")) << daemon.log();
    EXPECT_FALSE(client.connect());  // stopped while accepting
    EXPECT_TRUE(daemon.alive());
}

}  // namespace
}  // namespace test
}  // namespace vord
