// The generic netlink client against a scripted kernel on a socketpair, and
// against this machine's real kernel for start-up.
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <vord/LogCapture.h>

#include "wificond/net/netlink_utils.h"

using android::base::unique_fd;
using android::wificond::BaseNL80211Attr;
using android::wificond::NetlinkUtils;
using android::wificond::NL80211Attr;
using android::wificond::NL80211NestedAttr;
using android::wificond::NL80211Packet;

namespace {

using Bytes = std::vector<uint8_t>;
using Datagrams = std::vector<Bytes>;

constexpr uint16_t kFamily = 0x1c;
constexpr uint16_t kMulti = 0x2;

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A message of `type`/`command` answering `sequence`, with extra flags.
Bytes Reply(uint16_t type, uint8_t command, uint32_t sequence, uint16_t flags,
            std::initializer_list<BaseNL80211Attr> attributes = {}) {
    NL80211Packet packet(type, command, sequence, 0);
    for (const BaseNL80211Attr& attribute : attributes) packet.AddAttribute(attribute);
    Bytes bytes = packet.GetConstData();
    memcpy(bytes.data() + 6, &flags, 2);
    return bytes;
}

Bytes Done(uint32_t sequence) { return Reply(3, 0, sequence, kMulti); }

// NLMSG_ERROR: the negative errno, then the request's netlink header.
Bytes ErrorReply(const NL80211Packet& request, int32_t error) {
    Bytes bytes = Reply(2, 0, request.GetMessageSequence(), 0);
    memcpy(bytes.data() + 16, &error, 4);
    const Bytes& original = request.GetConstData();
    bytes.insert(bytes.end(), original.begin(), original.begin() + 16);
    bytes[0] = static_cast<uint8_t>(bytes.size());
    return bytes;
}

// A station reply whose NL80211_ATTR_STA_INFO holds `signal_attribute`.
Bytes StationReply(uint32_t sequence, const Bytes& signal_attribute) {
    return Reply(kFamily, 19, sequence, 0,
                 {NL80211Attr<uint32_t>(3, 5), BaseNL80211Attr(21, signal_attribute)});
}

// Stands in for the kernel: answers each datagram written to the client end
// with the datagrams the script returns for it.
class FakeKernel {
  public:
    using Script = std::function<Datagrams(const NL80211Packet& request)>;

    explicit FakeKernel(Script script) : script_(std::move(script)) {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds) != 0) abort();
        client_.reset(fds[0]);
        kernel_.reset(fds[1]);
        thread_ = std::thread([this] { Serve(); });
    }
    ~FakeKernel() {
        stop_ = true;
        thread_.join();
    }

    unique_fd TakeClientEnd() { return std::move(client_); }
    std::vector<NL80211Packet> requests() {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

  private:
    void Serve() {
        Bytes buffer(8192);
        while (!stop_) {
            pollfd poll_fd = {kernel_.get(), POLLIN, 0};
            if (poll(&poll_fd, 1, 10) <= 0) continue;
            ssize_t n = read(kernel_.get(), buffer.data(), buffer.size());
            if (n <= 0) continue;
            NL80211Packet request(Bytes(buffer.begin(), buffer.begin() + n));
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.push_back(request);
            }
            for (const Bytes& reply : script_(request)) {
                send(kernel_.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
            }
        }
    }

    Script script_;
    unique_fd client_;
    unique_fd kernel_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<NL80211Packet> requests_;
    std::thread thread_;
};

// A client with the family already known, talking to `kernel`.
void Connect(NetlinkUtils* utils, FakeKernel* kernel) {
    utils->AdoptSocket(kernel->TakeClientEnd());
    utils->OnNewFamily(std::make_unique<const NL80211Packet>(
            Reply(16, 1, 0, 0, {NL80211Attr<uint16_t>(1, kFamily),
                                NL80211Attr<std::string>(2, "nl80211")})));
    ASSERT_EQ(utils->GetFamilyId(), kFamily);
}

TEST(Nl80211NetlinkUtilsTest, DiscoversFamilyAndGroups) {
    auto group = [](const char* name, uint32_t id) {
        return Concat({NL80211Attr<std::string>(1, name).GetConstData(),
                       NL80211Attr<uint32_t>(2, id).GetConstData()});
    };
    FakeKernel kernel([&](const NL80211Packet& request) {
        Bytes groups = Concat({BaseNL80211Attr(1, group("scan", 6)).GetConstData(),
                               BaseNL80211Attr(2, group("mlme", 7)).GetConstData()});
        return Datagrams{Reply(16, 1, request.GetMessageSequence(), 0,
                               {NL80211Attr<std::string>(2, "nl80211"),
                                NL80211Attr<uint16_t>(1, kFamily), BaseNL80211Attr(7, groups)})};
    });
    NetlinkUtils utils;
    utils.AdoptSocket(kernel.TakeClientEnd());
    ASSERT_TRUE(utils.DiscoverFamilyId());
    EXPECT_EQ(utils.GetFamilyId(), kFamily);
    EXPECT_EQ(utils.GetMulticastGroups(),
              (std::map<std::string, uint32_t>{{"mlme", 7}, {"scan", 6}}));

    const NL80211Packet request = kernel.requests().at(0);
    EXPECT_EQ(request.GetMessageType(), 16);
    EXPECT_EQ(request.GetCommand(), 3);
    std::string name;
    EXPECT_TRUE(request.GetAttributeValue(2, &name));
    EXPECT_EQ(name, "nl80211");
}

TEST(Nl80211NetlinkUtilsTest, StationSignal) {
    std::vector<Bytes> signals = {NL80211Attr<int8_t>(7, -55).GetConstData(),
                                  BaseNL80211Attr(7, {0xc9, 0, 0, 0}).GetConstData()};
    std::atomic<size_t> next{0};
    FakeKernel kernel([&](const NL80211Packet& request) {
        return Datagrams{StationReply(request.GetMessageSequence(), signals[next++])};
    });
    NetlinkUtils utils;
    Connect(&utils, &kernel);
    vord::LogCapture log;

    EXPECT_EQ(utils.GetStationInfo("a1b2c3d4e5f6", "lo"), -55);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(utils.GetStationInfo("a1b2c3d4e5f6", "lo"), 0);  // signal with nla_len 8
    EXPECT_TRUE(log.contains("Failed to get NL80211_STA_INFO_SIGNAL"));

    const NL80211Packet request = kernel.requests().at(0);
    EXPECT_EQ(request.GetMessageType(), kFamily);
    EXPECT_EQ(request.GetCommand(), 17);
    uint32_t ifindex = 0;
    std::array<uint8_t, 6> mac{};
    EXPECT_TRUE(request.GetAttributeValue(3, &ifindex));
    EXPECT_EQ(ifindex, 1u);  // loopback
    EXPECT_TRUE(request.GetAttributeValue(6, &mac));
    EXPECT_EQ(mac, (std::array<uint8_t, 6>{0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0xf6}));
}

// An unassociated interface: the kernel answers with an error (-ENODEV), whose
// code sits where a reply's command would be. Also crosses the counter wrap.
TEST(Nl80211NetlinkUtilsTest, ErrorReplyAndSequenceWrap) {
    FakeKernel kernel([](const NL80211Packet& request) {
        return Datagrams{ErrorReply(request, -19)};
    });
    NetlinkUtils utils;
    Connect(&utils, &kernel);
    utils.SetSequenceNumberForTesting(0xFFFFFFFE);
    vord::LogCapture log;
    EXPECT_EQ(utils.GetStationInfo("ffffffffffff", "lo"), 0);
    EXPECT_EQ(utils.GetStationInfo("ffffffffffff", "lo"), 0);
    EXPECT_EQ(log.count("Wrong command in response to a get station request: 237"), 2u);
    ASSERT_EQ(kernel.requests().size(), 2u);
    EXPECT_EQ(kernel.requests()[0].GetMessageSequence(), 0xFFFFFFFFu);
    EXPECT_EQ(kernel.requests()[1].GetMessageSequence(), 1u);
    EXPECT_EQ(utils.GetSequenceNumberForTesting(), 1u);
}

TEST(Nl80211NetlinkUtilsTest, MultipartReplyOverSeveralReads) {
    // First read: an unsolicited message (sequence 0) and part one; second
    // read: part two and NLMSG_DONE packed together.
    FakeKernel kernel([](const NL80211Packet& request) {
        uint32_t seq = request.GetMessageSequence();
        return Datagrams{Concat({Reply(kFamily, 19, 0, 0), Reply(kFamily, 19, seq, kMulti)}),
                         Concat({Reply(kFamily, 20, seq, kMulti), Done(seq)})};
    });
    NetlinkUtils utils;
    Connect(&utils, &kernel);
    std::vector<std::unique_ptr<const NL80211Packet>> responses;
    ASSERT_TRUE(utils.SendMessageAndGetResponses(NL80211Packet(kFamily, 17, 42, 0), &responses));
    ASSERT_EQ(responses.size(), 2u);
    EXPECT_EQ(responses[0]->GetCommand(), 19);
    EXPECT_EQ(responses[1]->GetCommand(), 20);
    EXPECT_EQ(utils.PendingRequestCountForTesting(), 0u);
}

TEST(Nl80211NetlinkUtilsTest, TimeoutLeavesNoHandler) {
    FakeKernel kernel([](const NL80211Packet&) { return Datagrams{}; });
    NetlinkUtils utils;
    utils.AdoptSocket(kernel.TakeClientEnd());
    vord::LogCapture log;
    std::unique_ptr<const NL80211Packet> response;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(utils.SendMessageAndGetSingleResponse(NL80211Packet(kFamily, 17, 9, 0),
                                                       &response));
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(950));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1500));
    EXPECT_TRUE(log.contains("Failed to poll netlink fd: time out "));
    EXPECT_EQ(utils.PendingRequestCountForTesting(), 0u);

    // A late reply finds no handler.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    unique_fd writer(pair[0]), reader(pair[1]);
    Bytes late = Reply(kFamily, 19, 9, 0);
    ASSERT_EQ(write(writer.get(), late.data(), late.size()), static_cast<ssize_t>(late.size()));
    utils.ReceivePacketAndRunHandler(reader.get());
    EXPECT_TRUE(log.contains("W/mux-netlink"));
    EXPECT_TRUE(log.contains("No handler for message: 9"));
}

TEST(Nl80211NetlinkUtilsTest, ReceiveWalkStaysInsideTheRead) {
    NetlinkUtils utils;
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    unique_fd writer(pair[0]), reader(pair[1]);
    auto receive = [&](const Bytes& datagram) {
        ASSERT_EQ(write(writer.get(), datagram.data(), datagram.size()),
                  static_cast<ssize_t>(datagram.size()));
        utils.ReceivePacketAndRunHandler(reader.get());
    };
    vord::LogCapture log;
    Bytes too_long = Reply(kFamily, 19, 0, 0);
    too_long[0] = 0xff;
    too_long[1] = 0x7f;
    receive(too_long);
    receive(Concat({Reply(kFamily, 19, 0, 0), Bytes(16, 0)}));  // nlmsg_len 0
    EXPECT_EQ(log.count("Receive invalid packet"), 2u);
    receive(Concat({Reply(kFamily, 19, 0, 0), Bytes(10, 0)}));
    receive(Bytes(12, 0));
    EXPECT_EQ(log.count("payload is broken."), 2u);
}

TEST(Nl80211NetlinkUtilsTest, ConcurrentQueriesGetTheirOwnReplies) {
    // The signal echoes the last byte of the MAC address asked about.
    FakeKernel kernel([](const NL80211Packet& request) {
        std::array<uint8_t, 6> mac{};
        request.GetAttributeValue(6, &mac);
        return Datagrams{StationReply(request.GetMessageSequence(),
                                      NL80211Attr<int8_t>(7, -static_cast<int8_t>(mac[5]))
                                              .GetConstData())};
    });
    NetlinkUtils utils;
    Connect(&utils, &kernel);
    std::atomic<int> wrong{0};
    std::atomic<int> ready{0};
    auto poller = [&](const char* bssid, int expected) {
        ++ready;
        while (ready.load() < 2) std::this_thread::yield();
        for (int i = 0; i < 100; ++i) {
            if (utils.GetStationInfo(bssid, "lo") != expected) ++wrong;
        }
    };
    std::thread a(poller, "00000000002a", -42);
    std::thread b(poller, "000000000050", -80);
    a.join();
    b.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(Nl80211NetlinkUtilsTest, StartOnKernelWithoutNl80211FailsCleanly) {
    NetlinkUtils utils;
    vord::LogCapture log;
    auto start = std::chrono::steady_clock::now();
    ASSERT_FALSE(utils.Start()) << "this kernel has an nl80211 family";
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_TRUE(log.contains("Failed to get NL80211 family info") ||
                log.contains("Failed to get NL80211 family id"))
            << ::testing::PrintToString(log.lines());
}

}  // namespace
