// The stop protocol of the control thread and its socket, in-process, and the
// daemon's verdict on payloads, which vordctl gives before sending.
#include "UnitSupport.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "control/ControlState.h"
#include "control/PayloadCheck.h"
#include "control/VordSocketServer.h"
#include "counters/Counters.h"

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

// A record counts as refused exactly when vordctl's check finds a reason.
TEST(ControlServer, HandlersRefuseWhatVordctlsCheckRefuses) {
    unittest::stubRuleTools();
    Parameters store;
    setControlParameters(&store);
    const std::pair<int, std::string> cases[] = {
        {1, "wlan0;reboot"}, {1, "a,b,c,d,e,f,g,h,i"}, {1, ""},
        {2, "10123,abc"}, {2, "NULL"}, {5, "0"}, {7, "123456"}, {7, "10123"},
        {3, "abc"}, {3, "1"},
        {4, "999.1.1.1"}, {4, std::string(64, '1')}, {4, "192.168.1.1,::1"},
        {6, "7"}, {6, "x"}, {6, "0"}, {14, "5"}, {14, "1"},
        {8, "AA:BB:CC:DD:EE:FF:11"}, {8, "AA:BB:CC:DD:EE:FF"},
        {10, "x"}, {11, "10123x"}, {11, "0"}, {12, "abc"}, {12, "99999999999"}, {12, "-5"},
        {13, "on"}, {13, "0"}, {0, ""}, {15, "x"},
    };
    vord::LogCapture quiet;
    for (const auto& c : cases) {
        msg_t msg{};
        msg.id = c.first;
        snprintf(msg.message, sizeof(msg.message), "%s", c.second.c_str());
        const uint64_t refused = vord::counters().controlRecordsRefused.load();
        const uint64_t served = vord::counters().controlRecordsServed.load();
        handleMessage(msg);
        const bool counted = vord::counters().controlRecordsRefused.load() == refused + 1;
        EXPECT_EQ(counted, !vord::payloadRefusal(c.first, c.second).empty()) << c.first << " " << c.second;
        EXPECT_EQ(vord::counters().controlRecordsServed.load(), served + (counted ? 0 : 1));
    }
    setControlParameters(nullptr);
}
