// The stop protocol of the control thread and its socket, in-process.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <vord/RootPath.h>

#include "config/Parameters.h"
#include "control/ControlState.h"
#include "control/VordSocketServer.h"

namespace {

// No log capture while the control thread runs: the SIGUSR1 handler logs, and
// only the plain log is safe inside a handler.
TEST(ControlServer, StopEndsTheThreadWhileCreatingOrAccepting) {
    Parameters store;
    for (int i = 0; i < 20; ++i) {
        ASSERT_NE(createSocketThreads(&store), static_cast<pthread_t>(-1));
        // At once the thread may still be creating its socket; later it waits in accept.
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 4 == 3 ? 50 : 0));
        stopSocketThreads();  // returns once the thread is joined
    }
    setControlParameters(nullptr);
}

// With a socket handed over by init (ANDROID_SOCKET_vord), the daemon listens on
// it each time round and never replaces the file; a descriptor bound elsewhere is
// not taken.
TEST(ControlServer, ListensOnTheSocketInitHandsOver) {
    const std::string file = vord::resolvePath("/dev/socket/vord");
    unlink(file.c_str());
    int initFd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", file.c_str());
    ASSERT_EQ(bind(initFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    struct stat before {};
    ASSERT_EQ(stat(file.c_str(), &before), 0);
    setenv("ANDROID_SOCKET_vord", std::to_string(initFd).c_str(), 1);
    for (int round = 0; round < 2; ++round) {
        const int fd = createSocket("/dev/socket/vord");
        ASSERT_GE(fd, 0);
        EXPECT_NE(fd, initFd);
        ASSERT_EQ(listen(fd, 2), 0);
        const int client = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        close(client);
        close(fd);  // the restart point's close leaves init's socket open
    }
    struct stat after {};
    EXPECT_TRUE(stat(file.c_str(), &after) == 0 && after.st_ino == before.st_ino);
    setenv("ANDROID_SOCKET_vord", "0", 1);  // stdin: not that socket
    const int own = createSocket("/dev/socket/vord");
    EXPECT_TRUE(own >= 0 && stat(file.c_str(), &after) == 0 && after.st_ino != before.st_ino);
    close(own);
    close(initFd);
    unsetenv("ANDROID_SOCKET_vord");
    unlink(file.c_str());
}

}  // namespace
