// The real daemon: its control channel over the real socket, the evaluation
// loop's period and its stop property (a loop period of 0: status_snapshot_test).
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

    // "x" reads as 0: the loop runs on, sleeping its period.
    root.setProperty("vendor.sla.enabled", "x");
    const long cpu = daemon.cpuTimeMs();
    std::this_thread::sleep_for(std::chrono::milliseconds(600));  // several loop periods
    EXPECT_LT(daemon.cpuTimeMs() - cpu, 50);
    EXPECT_EQ(daemon.countLog("Mux disabled"), 0u);
    // "2abc" reads as 2. Stopped while serving a client: the thread ends, the
    // socket serves no one, the process idles.
    root.setProperty("vendor.sla.enabled", "2abc");
    ASSERT_TRUE(daemon.waitForLog("Vord exiting")) << daemon.log();
    EXPECT_EQ(daemon.countLog("socket Thread exit"), 1u);
    EXPECT_FALSE(ControlClient(root).connect());
    EXPECT_TRUE(daemon.alive());
}

}  // namespace
