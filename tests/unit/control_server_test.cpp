// The control server in-process: socket creation, dispatch, and the stop
// protocol in each state of the control thread.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <vord/LogCapture.h>

#include "DaemonProcess.h"
#include "TempRoot.h"
#include "config/Parameters.h"
#include "control/ControlState.h"
#include "control/VordSocketServer.h"

namespace vord {
namespace test {
namespace {

msg_t makeMsg(int id, const std::string& text) {
    msg_t msg;
    memset(&msg, 0, sizeof(msg));
    msg.id = id;
    msg.length = static_cast<int>(text.size());
    memcpy(msg.message, text.data(), std::min(text.size(), sizeof(msg.message)));
    return msg;
}

// A private sandbox root and store for each test; the process-wide ones are
// restored afterwards.
class ControlServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* old = getenv("VORD_ROOT");
        savedRoot_ = old != nullptr ? old : "";
        setenv("VORD_ROOT", root.path().c_str(), 1);
        savedStore_ = controlParameters();
        setControlParameters(&store);
    }
    void TearDown() override {
        setControlParameters(savedStore_);
        setenv("VORD_ROOT", savedRoot_.c_str(), 1);
    }

    TempRoot root;
    Parameters store;

  private:
    std::string savedRoot_;
    Parameters* savedStore_ = nullptr;
};

// Stale files, the mode and dispatch over the real socket: see the integration tests.
TEST_F(ControlServerTest, CreateSocketFailsCleanlyAndHidesFromChildren) {
    LogCapture log;
    EXPECT_EQ(createSocket(nullptr), -1);
    EXPECT_TRUE(log.contains("NULL params"));

    ASSERT_EQ(mkdir(root.at("/dev/socket/dir").c_str(), 0755), 0);  // cannot be unlinked
    EXPECT_EQ(createSocket("/dev/socket/dir"), -1);
    EXPECT_TRUE(log.contains("Failed to unlink old socket '/dev/socket/dir'"));

    int fd = createSocket("/dev/socket/unit");
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);  // not inherited by the tools we run
    close(fd);
}

TEST_F(ControlServerTest, DispatchReachesStoreAndLogsUnwiredIds) {
    LogCapture log;
    for (int id : {6, 9, 10, 11, 12, 13, 14}) handleMessage(makeMsg(id, "1"));
    EXPECT_EQ(log.lines().size(), 7u);  // one line each, nothing else
    EXPECT_TRUE(log.contains("DoubleWifiMonitor (id 6) is not available yet"));
    EXPECT_TRUE(log.contains("setGameAiModeCheckRtt (id 14) is not available yet"));

    // The whitelists reach the store (their rules: see the rule manager tests). The
    // last-payload memory outlives the test: a fresh UID each run.
    static int run = 0;
    const std::string uid = std::to_string(10700 + ++run % 100);
    for (int id : {2, 5, 7}) handleMessage(makeMsg(id, uid.c_str()));
    EXPECT_EQ(store.slaUidWhitelist(), std::vector<std::string>{uid});
    EXPECT_EQ(store.dwUidWhitelist(), std::vector<std::string>{uid});
    EXPECT_EQ(store.ddUidWhitelist(), std::vector<std::string>{uid});
    EXPECT_EQ(log.count("(id 2) is not available") + log.count("(id 5) is not available") +
                  log.count("(id 7) is not available"),
              0u);

    handleMessage(makeMsg(3, "0"));
    EXPECT_EQ(store.getInterfaceMode(), "0");
}

// No log capture while the control thread runs: the SIGUSR1 handler logs, and
// only the plain log (one write, no allocation) is safe inside a handler.
TEST_F(ControlServerTest, StopEndsThreadInEveryState) {
    // Stopped at once: the thread may still be creating its socket, or accepting.
    // Each stop must return (the join ends).
    for (int i = 0; i < 20; ++i) {
        ASSERT_NE(createSocketThreads(&store), static_cast<pthread_t>(-1));
        stopSocketThreads();
    }

    // Stopped while serving an idle client.
    ASSERT_NE(createSocketThreads(&store), static_cast<pthread_t>(-1));
    // The gateway memory outlives the test: a fresh address each run.
    static int run = 0;
    const std::string gateway = "10.1.1." + std::to_string(++run % 250);
    ControlClient client(root);
    ASSERT_TRUE(client.deliver(ControlClient::record(4, gateway)));
    stopSocketThreads();
    EXPECT_EQ(store.wifiGateways(), std::vector<std::string>{gateway});
    ControlClient late(root);
    EXPECT_FALSE(late.connect());

    LogCapture log;
    stopSocketThreads();  // no thread left
    EXPECT_TRUE(log.contains("pthread kill error"));
}

}  // namespace
}  // namespace test
}  // namespace vord
