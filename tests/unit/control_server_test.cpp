// The stop protocol of the control thread and its socket, in-process.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

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
    sockaddr_un addr{AF_UNIX, {}};
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", vord::resolvePath("/dev/socket/vord").c_str());
    unlink(addr.sun_path);
    const int initFd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(initFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    auto inode = [&] {
        struct stat st {};
        return stat(addr.sun_path, &st) == 0 ? st.st_ino : 0;
    };
    const ino_t before = inode();
    setenv("ANDROID_SOCKET_vord", std::to_string(initFd).c_str(), 1);
    for (int round = 0; round < 2; ++round) {
        const int fd = createSocket("/dev/socket/vord"), client = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_TRUE(fd >= 0 && fd != initFd && listen(fd, 2) == 0);
        EXPECT_EQ(connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        close(client);
        close(fd);  // as the restart point does: init's socket stays open
    }
    EXPECT_EQ(inode(), before);
    setenv("ANDROID_SOCKET_vord", "0", 1);  // stdin: not that socket
    const int own = createSocket("/dev/socket/vord");
    EXPECT_TRUE(own >= 0 && inode() != before);
    unsetenv("ANDROID_SOCKET_vord");
    close(own);
    close(initFd);
}

}  // namespace
