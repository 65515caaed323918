// The sock_diag client against a scripted kernel: request bytes, the dump reader
// and its length rules, the TCP-information attribute walk, the UID passes and the
// shutdown walk over the gaming UIDs.
#include "UnitSupport.h"

#include <arpa/inet.h>

#include "FakeDiagKernel.h"
#include "counters/Counters.h"
#include "sockdiag/SockDiag.h"

using android::net::SockDiag;
using android::net::tcp_info_ext;
using vord::test::FakeDiagKernel;
using K = FakeDiagKernel;
using Bytes = K::Bytes;

namespace {

constexpr uint32_t kUid = 10010;
constexpr uint32_t kOtherUid = 10011;

// A dumped socket; the cookie tells sockets apart in the requests.
inet_diag_msg Sock(uint8_t family, uint32_t uid, uint32_t cookie, const char* src = nullptr,
                   const char* dst = nullptr, uint8_t state = 1) {
    inet_diag_msg m = {};
    m.idiag_family = family;
    m.idiag_state = state;
    m.idiag_uid = uid;
    m.id.idiag_cookie[0] = cookie;
    if (src) inet_pton(family, src, m.id.idiag_src);
    if (dst) inet_pton(family, dst, m.id.idiag_dst);
    return m;
}

std::vector<uint32_t> DestroyedCookies(const FakeDiagKernel& k) {
    std::vector<uint32_t> out;
    for (const auto& r : k.requestsOfType(SOCK_DESTROY)) out.push_back(r.get<uint32_t>(24 + 40));
    return out;
}

Bytes TcpInfoBytes(uint32_t rtt, size_t len = sizeof(tcp_info_ext)) {
    tcp_info_ext info = {};
    info.tcpi_rtt = rtt;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&info);
    return Bytes(p, p + len);
}

struct SockDiagTest : ::testing::Test {
    FakeDiagKernel kernel;
    SockDiag sd{kernel};
    vord::LogCapture log;
    void SetUp() override {
        ASSERT_TRUE(sd.open());
        ASSERT_FALSE(sd.open());  // already open: keeps its sockets
    }
    // Answers the first dump request with `datagrams` (the rest with an empty dump).
    void answerFirstDump(std::vector<Bytes> datagrams) {
        kernel.onRequest = [this, datagrams, first = true](const K::Request& r) mutable {
            if (r.type() != SOCK_DIAG_BY_FAMILY || !first) return false;
            first = false;
            for (const Bytes& d : datagrams) kernel.queue(r.fd, d);
            return true;
        };
    }
};

TEST_F(SockDiagTest, DumpRequestAndADestroyRequestThatCopiesTheDumpedIdentity) {
    iovec iov[1];  // the request goes in the first element
    ASSERT_EQ(0, sd.sendDumpRequest(6, AF_INET6, 0x02, 0x0E, iov, 1));
    EXPECT_TRUE(iov[0].iov_base == nullptr && iov[0].iov_len == 0);
    Bytes dump = {72, 0, 0, 0, 20, 0, 0x01, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 10, 6, 0x02, 0, 0x0E, 0, 0, 0};
    dump.resize(72, 0);
    ASSERT_EQ(1u, kernel.requests.size());
    EXPECT_EQ(dump, kernel.requests[0].bytes);
    EXPECT_EQ(100, kernel.requests[0].fd);  // the dump socket
    kernel.requests.clear();
    inet_diag_msg m = Sock(AF_INET6, kUid, 0, nullptr, nullptr, 7);
    uint8_t* id = reinterpret_cast<uint8_t*>(&m.id);
    for (size_t i = 0; i < sizeof(m.id); ++i) id[i] = static_cast<uint8_t>(0x30 + i);
    const uint64_t before = vord::counters().socketsDestroyed.load();
    ASSERT_EQ(0, sd.sockDestroy(IPPROTO_UDP, &m));
    EXPECT_EQ(before + 1, vord::counters().socketsDestroyed.load());
    // Length, SOCK_DESTROY, NLM_F_REQUEST, sequence and pid 0, family, protocol,
    // the state's bit, then the 48-byte identity unchanged.
    Bytes want = {72, 0, 0, 0, SOCK_DESTROY, 0, NLM_F_REQUEST, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                  AF_INET6, IPPROTO_UDP, 0, 0, 1 << 7, 0, 0, 0};
    want.insert(want.end(), id, id + 48);
    ASSERT_EQ(1u, kernel.requests.size());
    EXPECT_EQ(want, kernel.requests[0].bytes);
    EXPECT_EQ(101, kernel.requests[0].fd);  // the destroy socket
    EXPECT_EQ(0, sd.sockDestroy(IPPROTO_UDP, nullptr));
    EXPECT_EQ(1u, kernel.requests.size());
}

TEST_F(SockDiagTest, DestroysOnlyTheUidsSocketsAndLogsTheCountOnceAfterIpv6) {
    kernel.table = {{IPPROTO_TCP, Sock(AF_INET, kUid, 1), {}}, {IPPROTO_TCP, Sock(AF_INET, kOtherUid, 2), {}},
                    {IPPROTO_TCP, Sock(AF_INET, kUid, 3), {}}, {IPPROTO_UDP, Sock(AF_INET, kUid, 4), {}}};
    bool loggedBeforeIpv6Dump = true;
    kernel.onRequest = [&](const K::Request& r) {
        if (r.type() == SOCK_DIAG_BY_FAMILY && r.family() == AF_INET6)
            loggedBeforeIpv6Dump = log.contains("Destroyed");
        return false;
    };
    EXPECT_EQ(0, sd.destroySockets(IPPROTO_TCP, kUid, false));
    EXPECT_EQ(std::vector<uint32_t>({1, 3}), DestroyedCookies(kernel));
    EXPECT_FALSE(loggedBeforeIpv6Dump);
    EXPECT_EQ(1u, log.count("I/MUX-Vord-SockDiag: Destroyed 2 sockets for UID"));
    EXPECT_EQ(2, sd.socketsDestroyed());
    EXPECT_TRUE(kernel.queues[100].empty() && kernel.queues[101].empty());

    // Refused destroys are not counted and end nothing; no sockets logs nothing.
    log.clear();
    kernel.destroyError = -EOPNOTSUPP;
    EXPECT_EQ(0, sd.destroySockets(IPPROTO_TCP, kUid, false));
    EXPECT_EQ(0, sd.socketsDestroyed());
    EXPECT_EQ(0, sd.destroySockets(IPPROTO_TCP, 4242, false));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SockDiagTest, ExcludeLoopbackKeepsLoopbackSockets) {
    const struct { uint8_t family; const char *src, *dst; bool loopback; } cases[] = {
            {AF_INET, "127.0.0.1", "127.0.0.1", true},   {AF_INET, "10.0.0.2", "127.0.0.53", true},
            {AF_INET, "10.0.0.2", "10.0.0.2", true},     {AF_INET, "10.0.0.2", "10.0.0.1", false},
            {AF_INET6, "::1", "::1", true},              {AF_INET6, "::ffff:127.0.0.1", "2001:db8::1", true},
            {AF_INET6, "2001:db8::1", "::ffff:127.1.2.3", true}, {AF_INET6, "2001:db8::5", "2001:db8::5", true},
            {AF_INET6, "::ffff:10.0.0.127", "2001:db8::1", false}, {AF_INET6, "2001:db8::1", "2001:db8::2", false}};
    std::vector<uint32_t> destroyed;
    uint32_t cookie = 0;
    for (const auto& c : cases) {
        inet_diag_msg m = Sock(c.family, kUid, ++cookie, c.src, c.dst);
        EXPECT_EQ(c.loopback, SockDiag::isLoopbackSocket(&m)) << c.src << " -> " << c.dst;
        kernel.table.push_back({IPPROTO_TCP, m, {}});
        if (!c.loopback) destroyed.push_back(cookie);
    }
    inet_diag_msg unix = Sock(AF_UNIX, kUid, 99);
    EXPECT_FALSE(SockDiag::isLoopbackSocket(&unix));
    EXPECT_EQ(0, sd.destroySockets(IPPROTO_TCP, kUid, true));
    EXPECT_EQ(destroyed, DestroyedCookies(kernel));
}

TEST_F(SockDiagTest, ErrorProbeTakesAcksAndLeavesOtherDataForTheReader) {
    // A first reply that is a dump entry stays on the socket and is read.
    answerFirstDump({K::entry(Sock(AF_INET, kUid, 5)), K::done()});
    EXPECT_EQ(0, sd.destroySockets(IPPROTO_TCP, kUid, false));
    EXPECT_EQ(std::vector<uint32_t>({5}), DestroyedCookies(kernel));

    // An error acknowledgement of the request (echoing it) is taken off and returned.
    kernel.onRequest = nullptr;
    kernel.dumpError[0] = -ENOENT;
    log.clear();
    EXPECT_EQ(-ENOENT, sd.destroySockets(0, kUid, false));
    EXPECT_TRUE(kernel.queues[100].empty());
    EXPECT_TRUE(log.contains("E/MUX-Vord-SockDiag: Failed to dump IPv4 sockets for UID: No such file or directory"));
}

TEST_F(SockDiagTest, DumpReaderLengthAndErrorRules) {
    // An NLMSG_ERROR inside a dump ends it with its error; IPv6 is not asked for.
    answerFirstDump({K::concat({K::entry(Sock(AF_INET, kUid, 1)), K::error(-EPERM), K::entry(Sock(AF_INET, kUid, 2))})});
    EXPECT_EQ(-EPERM, sd.destroySockets(IPPROTO_TCP, kUid, false));
    EXPECT_EQ(std::vector<uint32_t>({1}), DestroyedCookies(kernel));
    EXPECT_EQ(1u, kernel.requestsOfType(SOCK_DIAG_BY_FAMILY).size());

    // An error field that is no errno (positive, or beyond the range) is a bad reply.
    for (int32_t bogus : {5, INT32_MIN}) {
        answerFirstDump({K::error(bogus)});
        EXPECT_EQ(-EBADMSG, sd.destroySockets(IPPROTO_TCP, kUid, false)) << bogus;
    }

    // nlmsg_len 8 ends the walk of that read, though a whole entry follows its 8
    // bytes; the next read goes on. Entries too short for an inet_diag_msg are passed over.
    kernel.requests.clear();
    Bytes len8 = K::message(SOCK_DIAG_BY_FAMILY, {}, 8);
    len8.resize(8);
    answerFirstDump({K::concat({K::entry(Sock(AF_INET, kUid, 3)), len8, K::entry(Sock(AF_INET, kUid, 4))}),
                     K::concat({K::message(SOCK_DIAG_BY_FAMILY, Bytes(40, 0)), K::entry(Sock(AF_INET, kUid, 5)), K::done()})});
    EXPECT_EQ(0, sd.destroySockets(IPPROTO_TCP, kUid, false));
    EXPECT_EQ(std::vector<uint32_t>({3, 5}), DestroyedCookies(kernel));
}

TEST_F(SockDiagTest, TcpInfoAttributeWalk) {
    // Length 2 ends the walk: the attribute after it is never taken.
    const Bytes shortAttr = K::concat({K::attr(9, {}, 2), K::attr(INET_DIAG_INFO, TcpInfoBytes(999))});
    const Bytes pastEnd = K::attr(INET_DIAG_INFO, TcpInfoBytes(333), 2000);
    // A newer kernel's longer record (1) is handed on with the length of the copy.
    const Bytes longer = K::concat({TcpInfoBytes(111), Bytes(16, 0xAB)});
    answerFirstDump({K::concat({K::entry(Sock(AF_INET, 0, 1), K::concat({K::attr(INET_DIAG_INFO, longer), shortAttr})),
                                K::entry(Sock(AF_INET, 0, 2), K::concat({K::attr(INET_DIAG_INFO, TcpInfoBytes(222)), pastEnd}))}),
                     K::concat({K::entry(Sock(AF_INET, 0, 3)),
                                K::entry(Sock(AF_INET, 0, 4), K::concat({K::attr(1, {9}), K::attr(INET_DIAG_INFO, TcpInfoBytes(7, 8)),
                                                                         K::attr(INET_DIAG_INFO, TcpInfoBytes(444, 104))})),
                                K::message(99, Bytes(72, 0)), K::done()})});
    std::vector<std::string> seen;  // "cookie info rtt len"
    ASSERT_EQ(0, sd.getLiveTcpInfos([&](const inet_diag_msg* m, const tcp_info_ext* info, uint32_t len) {
        seen.push_back(std::to_string(m->id.idiag_cookie[0]) + " " + std::to_string(info != nullptr) + " " +
                       std::to_string(info ? info->tcpi_rtt : 0) + " " + std::to_string(len));
    }));
    const std::string full = std::to_string(sizeof(tcp_info_ext));
    EXPECT_EQ(seen, (std::vector<std::string>{"1 1 111 " + full, "2 1 222 " + full, "3 0 0 0", "4 1 444 104"}));
    // IPv4 then IPv6, TCP only, the INET_DIAG_INFO extension, the three live states.
    std::vector<Bytes> dumps;
    for (const auto& d : kernel.requestsOfType(SOCK_DIAG_BY_FAMILY)) dumps.emplace_back(&d.bytes[16], &d.bytes[24]);
    EXPECT_EQ(dumps, (std::vector<Bytes>{{AF_INET, IPPROTO_TCP, 0x02, 0, 0x0E, 0, 0, 0},
                                         {AF_INET6, IPPROTO_TCP, 0x02, 0, 0x0E, 0, 0, 0}}));
}

TEST(KillSocketsForUid, ThreePassesAndTheirResult) {
    FakeDiagKernel kernel;
    kernel.table = {{IPPROTO_TCP, Sock(AF_INET6, kUid, 1), {}}, {IPPROTO_UDP, Sock(AF_INET, kUid, 2), {}}};
    kernel.dumpError[0] = -ENOENT;  // how a kernel may answer the IP pass: only logged
    vord::LogCapture log;
    EXPECT_EQ(0, killSocketsForUID("10010", kernel));
    std::vector<std::pair<int, int>> dumps;
    for (const auto& r : kernel.requestsOfType(SOCK_DIAG_BY_FAMILY)) dumps.push_back({r.protocol(), r.family()});
    EXPECT_EQ((std::vector<std::pair<int, int>>{{0, AF_INET}, {6, AF_INET}, {6, AF_INET6}, {17, AF_INET}, {17, AF_INET6}}), dumps);
    EXPECT_EQ(std::vector<uint32_t>({1, 2}), DestroyedCookies(kernel));
    EXPECT_TRUE(log.contains("E/MUX-Vord-SockDiag:  SLA_GAMING Error destroying IP sockets: No such file or directory"));
    EXPECT_EQ(std::vector<int>({100, 101}), kernel.closed);

    FakeDiagKernel udpFails;  // the result is the UDP pass's
    udpFails.dumpError[17] = -EPERM;
    EXPECT_EQ(-EPERM, killSocketsForUID("10010", udpFails));
    FakeDiagKernel refusing;  // a socket that can't be connected: both closed, nothing sent
    refusing.failConnectCall = 1;
    EXPECT_EQ(-1, killSocketsForUID("10010", refusing));
    EXPECT_EQ(std::vector<int>({100, 101}), refusing.closed);
    EXPECT_TRUE(refusing.requests.empty());
}

TEST(KillSocketsForUid, RefusesTextThatIsNotADecimalUid) {
    FakeDiagKernel kernel;
    vord::LogCapture log;
    for (const char* uid : {"", "abc", "10010x", "-1", " 10010", "1e5", "4294967296", "12345678901"})
        EXPECT_EQ(-1, killSocketsForUID(uid, kernel)) << uid;
    EXPECT_EQ(-1, killSocketsForUID(nullptr, kernel));
    EXPECT_EQ(0, kernel.socketCalls);
    EXPECT_EQ(9u, log.count("refusing a UID that is not a plain decimal number"));
    EXPECT_EQ(0, killSocketsForUID("4294967295", kernel));
}

}  // namespace
