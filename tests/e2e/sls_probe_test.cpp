// The RTT probe against servers in a network namespace private to the test
// thread: nothing leaves this machine.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <vord/LogCapture.h>

#include "DaemonProcess.h"
#include "sls/Tcping.h"

namespace vord {
namespace test {
namespace {

using Clock = std::chrono::steady_clock;

// Runs `body` on a thread of its own in a fresh network namespace with lo up.
// Threads and child processes it starts share that namespace.
void inFreshNetns(const std::function<void()>& body) {
    std::thread worker([&] {
        ASSERT_EQ(0, unshare(CLONE_NEWNET)) << strerror(errno);
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq req{};
        strcpy(req.ifr_name, "lo");
        ASSERT_EQ(0, ioctl(fd, SIOCGIFFLAGS, &req));
        req.ifr_flags |= IFF_UP;
        ASSERT_EQ(0, ioctl(fd, SIOCSIFFLAGS, &req));
        close(fd);
        body();
    });
    worker.join();
}

enum class Peer { Echo, Silent, CloseAfterRead };

// A one-connection TCP server on 127.0.0.1 behaving as `mode`.
class ProbeServer {
  public:
    explicit ProbeServer(Peer mode) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        socklen_t len = sizeof(addr);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
        listen(fd_, 4);
        thread_ = std::thread([this, mode] { serve(mode); });
    }
    ~ProbeServer() {
        done_ = true;
        shutdown(fd_, SHUT_RDWR);
        thread_.join();
        close(fd_);
    }
    int port() const { return port_; }
    size_t received() const { return received_; }

  private:
    void serve(Peer mode) {
        int c = accept(fd_, nullptr, nullptr);
        if (c < 0) return;
        char buf[256];
        if (mode == Peer::Echo) {
            ssize_t n;
            while ((n = recv(c, buf, sizeof(buf), 0)) > 0) {
                received_ += static_cast<size_t>(n);
                send(c, buf, static_cast<size_t>(n), MSG_NOSIGNAL);
            }
        } else if (mode == Peer::CloseAfterRead) {
            // Reading first makes the close a FIN, not a reset.
            ssize_t n = recv(c, buf, 58, MSG_WAITALL);
            if (n > 0) received_ += static_cast<size_t>(n);
        } else {
            while (!done_) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        close(c);
    }
    int fd_ = -1, port_ = 0;
    std::atomic<bool> done_{false};
    std::atomic<size_t> received_{0};
    std::thread thread_;
};

struct Probe {
    int result;
    double seconds;
};

Probe probe(const char* ifname, const char* server, int port, int offsetMs = 0) {
    tcping_info info;
    info.ifname = ifname;
    info.server = server;
    info.port = port;
    auto start = Clock::now();
    int result = Tcping::updateTcpingRtt(&info, offsetMs);
    return {result, std::chrono::duration<double>(Clock::now() - start).count()};
}

class ProbeE2E : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "!!! probe tests need root for a private network namespace: SKIPPED !!!";
    }
    LogCapture log;
};

// Echo: the kernel's RTT (well under 1 ms on loopback) plus the penalty after ten
// exchanges. Silent: fails after half a second, no penalty. Closing after the first
// exchange: still the RTT.
TEST_F(ProbeE2E, EchoSilentAndClosingServers) {
    const struct {
        Peer peer;
        int offsetMs, minResult, maxResult;
        double minSeconds, maxSeconds;
        size_t received;
        const char* logged;
        const char* notLogged;
    } cases[] = {
        {Peer::Echo, 7, 7, 8, 0, 30, 10 * 58, "I/MUX-Vord-Tcping: TCPing cacla rtt is", "failed"},
        {Peer::Silent, 7, -1, -1, 0.45, 1.5, 0,
         "E/MUX-Vord-Tcping: recieve failed -1,device is lo(errno 11, errno count 0)", "cacla rtt"},
        {Peer::CloseAfterRead, 0, 0, 1, 0, 30, 58, "I/MUX-Vord-Tcping: TCPing cacla rtt is", "errno count 0)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        log.clear();
        inFreshNetns([&] {
            ProbeServer server(c.peer);
            Probe p = probe("lo", "127.0.0.1", server.port(), c.offsetMs);
            EXPECT_GE(p.result, c.minResult);
            EXPECT_LE(p.result, c.maxResult);
            EXPECT_GE(p.seconds, c.minSeconds);
            EXPECT_LT(p.seconds, c.maxSeconds);
            EXPECT_EQ(c.received, server.received());
        });
        EXPECT_TRUE(log.contains(c.logged));
        EXPECT_TRUE(log.contains(",device is lo"));
        EXPECT_FALSE(log.contains(c.notLogged));
    }
}

TEST_F(ProbeE2E, RefusedUnreachableAndMissingInterfaceFail) {
    inFreshNetns([&] {
        // Nobody listens on the port of a closed server.
        int port;
        { ProbeServer closed(Peer::Silent); port = closed.port(); }
        EXPECT_EQ(-1, probe("lo", "127.0.0.1", port).result);

        // A link that drops everything: the SYN never gets an answer.
        std::string out;
        ASSERT_EQ(0, shell("ip link add vordblack0 type dummy 2>/dev/null || "
                           "ip link add vordblack0 type veth peer name vordblack1; "
                           "ip addr add 10.77.0.1/24 dev vordblack0 && ip link set vordblack0 up", &out)) << out;
        Probe p = probe("vordblack0", "10.77.0.2", 443);
        EXPECT_EQ(-1, p.result);
        EXPECT_GE(p.seconds, 0.45);

        EXPECT_EQ(-1, probe("vordnosuch0", "127.0.0.1", 443).result);
        // Names are never resolved.
        EXPECT_EQ(-1, probe("lo", "localhost", port).result);
    });
    EXPECT_TRUE(log.contains("E/MUX-Vord-Tcping:  retrying_poll : "));
    EXPECT_TRUE(log.contains(" retrying_poll getsockopt failed"));
    EXPECT_TRUE(log.contains(" retrying_poll timeout"));
    EXPECT_TRUE(log.contains("E/MUX-Vord-Tcping: connect failed of client,device is vordblack0!"));
    EXPECT_TRUE(log.contains("E/MUX-Vord-Tcping: Set interface vordnosuch0 failed."));
}

}  // namespace
}  // namespace test
}  // namespace vord
