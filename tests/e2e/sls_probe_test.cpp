// The RTT probe against servers in a network namespace private to the test
// thread: nothing leaves this machine.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <vord/LogCapture.h>

#include "DaemonProcess.h"
#include "NetNamespace.h"
#include "sls/Tcping.h"

namespace {

using namespace vord;
using namespace vord::test;

using Clock = std::chrono::steady_clock;

enum class Peer { Echo, Silent, CloseAfterRead };

// A one-connection TCP server on 127.0.0.1 (::1 with AF_INET6) behaving as `mode`.
class ProbeServer {
  public:
    explicit ProbeServer(Peer mode, int family = AF_INET) : fd_(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_storage addr{};
        auto* in4 = reinterpret_cast<sockaddr_in*>(&addr);
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
        addr.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET6) in6->sin6_addr = in6addr_loopback;
        else in4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), family == AF_INET6 ? sizeof(*in6) : sizeof(*in4));
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(in4->sin_port);  // where sin6_port is
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
        const int c = accept(fd_, nullptr, nullptr);
        if (c < 0) return;
        char buf[256];
        ssize_t n;
        while (mode == Peer::Silent && !done_) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        // Reading first makes the close a FIN, not a reset.
        if (mode == Peer::CloseAfterRead && (n = recv(c, buf, 58, MSG_WAITALL)) > 0) received_ += static_cast<size_t>(n);
        while (mode == Peer::Echo && (n = recv(c, buf, sizeof(buf), 0)) > 0) {
            received_ += static_cast<size_t>(n);
            send(c, buf, static_cast<size_t>(n), MSG_NOSIGNAL);
        }
        close(c);
    }
    int fd_, port_ = 0;
    std::atomic<bool> done_{false};
    std::atomic<size_t> received_{0};
    std::thread thread_;
};

struct Probe {
    int result;
    double seconds;
};

Probe probe(const char* ifname, const char* server, int port, int offsetMs = 0, int abortFd = -1) {
    tcping_info info;
    info.ifname = ifname;
    info.server = server;
    info.port = port;
    info.abortFd = abortFd;
    auto start = Clock::now();
    int result = Tcping::updateTcpingRtt(&info, offsetMs);
    return {result, std::chrono::duration<double>(Clock::now() - start).count()};
}

// Echo: the kernel's RTT (well under 1 ms on loopback) plus the penalty after ten
// exchanges. Silent: fails after half a second, no penalty. Closing after the first
// exchange: still the RTT. Then a refused connection, a link that drops
// everything and a missing interface fail, each with its log line. A probe
// whose abort descriptor is readable gives up without a result, and a link
// answers (linkAnswers) when the server accepts or refuses, whatever it then does.
// Last, which family a probe takes.
TEST(ProbeE2E, EchoSilentClosingRefusedUnreachableMissingInterfaceAndIpv6WithoutIpv4) {
    if (geteuid() != 0) GTEST_SKIP() << "!!! probe tests need root for a private network namespace: SKIPPED !!!";
    PrivateNetns netns;
    ASSERT_TRUE(netns.ok()) << "no private network namespace";
    LogCapture log;
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
        ProbeServer server(c.peer);
        Probe p = probe("lo", "127.0.0.1", server.port(), c.offsetMs);
        EXPECT_TRUE(p.result >= c.minResult && p.result <= c.maxResult) << p.result;
        EXPECT_TRUE(p.seconds >= c.minSeconds && p.seconds < c.maxSeconds) << p.seconds << " s";
        EXPECT_EQ(c.received, server.received());
        EXPECT_TRUE(log.contains(c.logged));
        EXPECT_TRUE(log.contains(",device is lo"));
        EXPECT_FALSE(log.contains(c.notLogged));
        EXPECT_TRUE(Tcping::linkAnswers("lo", "127.0.0.1", server.port(), 500));
    }
    {
        ProbeServer echo(Peer::Echo);
        const int abortFd = eventfd(1, EFD_CLOEXEC);
        log.clear();
        EXPECT_EQ(-1, probe("lo", "127.0.0.1", echo.port(), 0, abortFd).result);
        EXPECT_FALSE(log.contains("cacla rtt") || log.contains("failed"));
        close(abortFd);
    }

    log.clear();
    // Nobody listens on the port of a closed server.
    int port;
    { ProbeServer closed(Peer::Silent); port = closed.port(); }
    EXPECT_EQ(-1, probe("lo", "127.0.0.1", port).result);
    EXPECT_TRUE(Tcping::linkAnswers("lo", "127.0.0.1", port, 500));  // refused: an answer all the same

    // A link that drops everything: the SYN never gets an answer.
    std::string out;
    ASSERT_EQ(0, shell("ip link add vordblack0 type dummy 2>/dev/null || "
                       "ip link add vordblack0 type veth peer name vordblack1; "
                       "ip addr add 10.77.0.1/24 dev vordblack0 && ip link set vordblack0 up", &out)) << out;
    Probe p = probe("vordblack0", "10.77.0.2", 443);
    EXPECT_EQ(-1, p.result);
    EXPECT_GE(p.seconds, 0.45);
    EXPECT_FALSE(Tcping::linkAnswers("vordblack0", "10.77.0.2", 443, 200));
    EXPECT_FALSE(Tcping::linkAnswers("vordnosuch0", "127.0.0.1", 443, 200));

    EXPECT_EQ(-1, probe("vordnosuch0", "127.0.0.1", 443).result);
    EXPECT_EQ(-1, probe("lo", "localhost", port).result);  // names are never resolved
    EXPECT_TRUE(log.contains("E/MUX-Vord-Tcping:  retrying_poll : "));
    EXPECT_TRUE(log.contains(" retrying_poll getsockopt failed"));
    EXPECT_TRUE(log.contains(" retrying_poll timeout"));
    EXPECT_TRUE(log.contains("E/MUX-Vord-Tcping: connect failed of client,device is vordblack0!"));
    EXPECT_TRUE(log.contains("E/MUX-Vord-Tcping: Set interface vordnosuch0 failed."));

    // The family of a probe: IPv4 while the link has an IPv4 route; the IPv6 probe
    // server when the IPv4 connect fails at once for want of a route (a bound socket
    // has the kernel assume its destination on-link, so a multicast address, which
    // TCP refuses with ENETUNREACH, stands in), or at once when the link has no
    // IPv4 address. The connection that confirms a stall chooses alike.
    const struct {
        const char* server;
        bool dropIpv4Address;
        const char* logged;  // null: over IPv4
    } families[] = {
        {"127.0.0.1", false, nullptr},
        {"224.0.0.1", false, "I/MUX-Vord-Tcping: lo has no IPv4 route: probing it over IPv6 ([::1]:"},
        {"127.0.0.1", true, "I/MUX-Vord-Tcping: lo has no IPv4 address: probing it over IPv6 ([::1]:"},
    };
    for (const auto& c : families) {
        SCOPED_TRACE(c.server);
        if (c.dropIpv4Address) {
            ASSERT_EQ(0, shell("ip addr del 127.0.0.1/8 dev lo", &out)) << out;
            EXPECT_FALSE(Tcping::linkAnswers("lo", c.server, 443, 500));
            EXPECT_TRUE(Tcping::linkAnswers("lo", c.server, 443, 500, -1, "::1"));  // refused over IPv6
        }
        log.clear();
        ProbeServer v4(Peer::CloseAfterRead), v6(Peer::CloseAfterRead, AF_INET6);  // one exchange
        tcping_info info;
        info.ifname = "lo";
        info.server = c.server;
        info.port = v4.port();
        info.server6 = "::1";
        info.port6 = v6.port();
        EXPECT_GE(Tcping::updateTcpingRtt(&info, 0), 0);
        EXPECT_EQ(c.logged != nullptr ? AF_INET6 : AF_INET, info.family);
        EXPECT_EQ(58u, (c.logged != nullptr ? v6 : v4).received());
        EXPECT_EQ(c.logged != nullptr ? 1u : 0u, log.count("probing it over IPv6")) << ::testing::PrintToString(log.lines());
        EXPECT_TRUE(c.logged == nullptr || log.contains(c.logged));
    }
}

}  // namespace
