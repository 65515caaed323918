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
    LogCapture log;

  private:
    std::string savedRoot_;
    Parameters* savedStore_ = nullptr;
};

TEST_F(ControlServerTest, CreateSocketReplacesStaleFileOrFailsCleanly) {
    EXPECT_EQ(createSocket(nullptr), -1);
    EXPECT_TRUE(log.contains("NULL params"));

    root.writeFile("/dev/socket/stale", "old", 0600);
    int fd = createSocket("/dev/socket/stale");
    ASSERT_GE(fd, 0);
    struct stat st {};
    ASSERT_EQ(lstat(root.at("/dev/socket/stale").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0666u);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);  // not inherited by the tools we run
    // The log shows the fixed path, not where the sandbox put it.
    EXPECT_TRUE(log.contains("Created socket success with '/dev/socket/stale', sockfd="));
    close(fd);

    ASSERT_EQ(mkdir(root.at("/dev/socket/dir").c_str(), 0755), 0);  // cannot be unlinked
    EXPECT_EQ(createSocket("/dev/socket/dir"), -1);
    EXPECT_TRUE(log.contains("Failed to unlink old socket '/dev/socket/dir'"));
}

TEST_F(ControlServerTest, DispatchReachesStoreAndLogsUnwiredAndUnknownIds) {
    for (int id : {0, 15, -7}) handleMessage(makeMsg(id, "x"));
    EXPECT_EQ(log.count("unknow mesage!!!"), 3u);

    log.clear();
    for (int id : {2, 5, 6, 7, 9, 10, 11, 12, 13, 14}) handleMessage(makeMsg(id, "1"));
    EXPECT_EQ(log.lines().size(), 10u);  // one line each, nothing else
    EXPECT_TRUE(log.contains("setUidWhitelist (id 2) is not available yet"));
    EXPECT_TRUE(log.contains("setGameAiModeCheckRtt (id 14) is not available yet"));

    handleMessage(makeMsg(3, "0"));
    EXPECT_EQ(store.getInterfaceMode(), "0");

    // A text filling all of `message` without a NUL is cut at its last byte.
    msg_t full = makeMsg(4, std::string(1024, '7'));
    handleMessage(full);
    EXPECT_TRUE(log.contains("refused a gateway list of 1023 characters"));
}

TEST_F(ControlServerTest, StopEndsThreadInEveryState) {
    // Stopped at once: the thread may still be creating its socket, or accepting.
    for (int i = 0; i < 20; ++i) {
        ASSERT_NE(createSocketThreads(&store), static_cast<pthread_t>(-1));
        stopSocketThreads();
    }
    EXPECT_EQ(log.count("socket Thread exit"), 20u);

    // Stopped while serving an idle client.
    ASSERT_NE(createSocketThreads(&store), static_cast<pthread_t>(-1));
    ControlClient client(root);
    ASSERT_TRUE(client.deliver(ControlClient::record(4, "10.1.1.1")));
    stopSocketThreads();
    EXPECT_TRUE(log.contains("populateWifiGateway = 10.1.1.1"));
    ControlClient late(root);
    EXPECT_FALSE(late.connect());

    log.clear();
    stopSocketThreads();  // no thread left
    EXPECT_TRUE(log.contains("pthread kill error"));
}

}  // namespace
}  // namespace test
}  // namespace vord
