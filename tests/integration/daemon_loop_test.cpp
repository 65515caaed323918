// The evaluation loop's period and its stop property.
#include <thread>

#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

class DaemonLoopTest : public DaemonTest {
  protected:
    // CPU time the daemon uses over about one second of wall time.
    long cpuMsOverOneSecond() {
        long before = daemon.cpuTimeMs();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        return daemon.cpuTimeMs() - before;
    }
};

TEST_F(DaemonLoopTest, ZeroIntervalRunsLoopWithoutSleeping) {
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=0\n"));
    // usleep(0) still costs the kernel's timer slack (about 50 us) per iteration,
    // and the machine may be busy: a spinning loop shows well over 100 ms.
    EXPECT_GT(cpuMsOverOneSecond(), 100);
}

TEST_F(DaemonLoopTest, DefaultIntervalLeavesDaemonIdle) {
    ASSERT_NO_FATAL_FAILURE(startDaemon(""));
    EXPECT_LT(cpuMsOverOneSecond(), 50);
}

TEST_F(DaemonLoopTest, OnlyNumericTwoStopsDaemon) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    root.setProperty("vendor.sla.enabled", "x");  // reads as 0
    std::this_thread::sleep_for(std::chrono::milliseconds(600));  // several loop periods
    EXPECT_EQ(daemon.countLog("Mux disabled"), 0u);
    root.setProperty("vendor.sla.enabled", "2abc");  // reads as 2
    EXPECT_TRUE(daemon.waitForLog("Vord exiting")) << daemon.log();
    EXPECT_TRUE(daemon.alive());
}

TEST_F(DaemonLoopTest, StopRequestedAtStartStillStopsControlThread) {
    // The stop reaches the control thread while it is still being created.
    root.setProperty("vendor.sla.enabled", "2");
    root.writeConf("mini_est_interval=0\n");
    daemon.start();
    EXPECT_TRUE(daemon.waitForLog("Vord exiting")) << daemon.log();
    EXPECT_EQ(daemon.countLog("socket Thread exit"), 1u);
    EXPECT_TRUE(daemon.alive());
}

}  // namespace
}  // namespace test
}  // namespace vord
