// The control socket's file and life cycle: stale files, hang-ups, shutdown.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

class ControlSocketTest : public DaemonTest {
  protected:
    struct stat socketFile() const {
        struct stat st {};
        lstat(root.at("/dev/socket/vord").c_str(), &st);
        return st;
    }
};

// A socket file left by a process that is gone.
void leaveDeadSocket(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);
}

TEST_F(ControlSocketTest, StaleRegularFileIsReplacedBySocketOpenToAll) {
    root.writeFile("/dev/socket/vord", "left over", 0600);
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    struct stat st = socketFile();
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0666u);
    EXPECT_TRUE(client.deliver(ControlClient::record(12, "served")));
}

TEST_F(ControlSocketTest, HangUpRecreatesSocketForNextClient) {
    ASSERT_NO_FATAL_FAILURE(leaveDeadSocket(root.at("/dev/socket/vord")));
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_TRUE(client.deliver(ControlClient::record(12, "first")));
    // Only a re-created file can bring the path back.
    ASSERT_EQ(unlink(root.at("/dev/socket/vord").c_str()), 0);
    client.close();
    ASSERT_TRUE(daemon.waitForLog("socket EPOLLHUP error, retry create socket")) << daemon.log();
    ASSERT_TRUE(daemon.waitForLog("Created socket success", std::chrono::seconds(10), 2));

    ControlClient next(root);
    ASSERT_TRUE(next.deliver(ControlClient::record(12, "second")));
    EXPECT_TRUE(daemon.waitForLog("msg.message=[second]")) << daemon.log();
}

TEST_F(ControlSocketTest, AfterStopNoCommandIsServedAndDaemonIdles) {
    for (bool clientConnected : {false, true}) {
        SCOPED_TRACE(clientConnected ? "stopped while serving" : "stopped while accepting");
        TempRoot sandbox;
        DaemonProcess vord(sandbox);
        sandbox.writeConf(kFastConf);
        vord.start();
        ASSERT_TRUE(vord.waitUntilServing());
        ControlClient idle(sandbox);
        if (clientConnected) {
            ASSERT_TRUE(idle.deliver(ControlClient::record(12, "before stop")));
        }

        ASSERT_TRUE(vord.stopThroughProperty()) << vord.log();  // the join returned
        std::string log = vord.log();
        EXPECT_LT(log.find("socket Thread exit"), log.find("Mux disabled, starting cleanup"));
        ControlClient late(sandbox);
        EXPECT_FALSE(late.connect());
        EXPECT_TRUE(vord.alive());
    }
}

}  // namespace
}  // namespace test
}  // namespace vord
