// The nl80211 wire format (building, validity rules, lookups), and the generic
// netlink client against a stand-in kernel on a datagram socketpair (replies
// queued before the request).
#include "UnitSupport.h"

#include <sys/socket.h>

#include <algorithm>

#include <android-base/unique_fd.h>

#include "wificond/net/netlink_utils.h"
#include "wificond/net/nl80211_attribute.h"
#include "wificond/net/nl80211_packet.h"

using android::base::unique_fd;
using android::wificond::BaseNL80211Attr;
using android::wificond::NetlinkUtils;
using android::wificond::NL80211Attr;
using android::wificond::NL80211NestedAttr;
using android::wificond::NL80211Packet;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A header of `length` and `type` (host byte order) padded to `size` bytes, then `body`.
template <typename Length>
Bytes Raw(Length length, uint16_t type, size_t size, const Bytes& body) {
    Bytes out(size, 0);
    memcpy(out.data(), &length, sizeof(length));
    memcpy(out.data() + sizeof(length), &type, 2);
    return Concat({out, body});
}
Bytes RawAttr(uint16_t nla_len, uint16_t type, const Bytes& payload = {}) { return Raw(nla_len, type, 4, payload); }
Bytes RawMessage(uint32_t nlmsg_len, uint16_t type, const Bytes& body = {}) { return Raw(nlmsg_len, type, 16, body); }

// A family reply (type 0x1c) carrying `attributes` after the generic header.
NL80211Packet FamilyMessage(const Bytes& attributes) {
    const Bytes body = Concat({{19, 1, 0, 0}, attributes});
    return NL80211Packet(RawMessage(16 + body.size(), 0x1c, body));
}

TEST(Nl80211Format, RequestAndAttributeBytes) {
    EXPECT_EQ(NL80211Packet(25, 3, 7, 0).GetConstData(),
              (Bytes{20, 0, 0, 0, 25, 0, 1, 0, 7, 0, 0, 0, 0, 0, 0, 0, 3, 1, 0, 0}));
    NL80211Attr<std::string> name(2, "wlan0");
    EXPECT_EQ(name.GetConstData(), (Bytes{10, 0, 2, 0, 'w', 'l', 'a', 'n', '0', 0, 0, 0}));
    EXPECT_EQ(name.GetValue(), "wlan0");
}

TEST(Nl80211Format, MessageValidityRules) {
    const struct { Bytes bytes; const char* message; /* nullptr: valid */ } cases[] = {
        {Bytes(15, 0), "Cannot retrieve netlink header."},
        {RawMessage(18, 0x1c, {1, 1}), "Cannot retrieve generic netlink header."},
        {RawMessage(16, 0x1c, {1, 1, 0, 0}), "Cannot retrieve generic netlink header."},
        {RawMessage(18, 2, {0, 0}), "Broken error message."}, {RawMessage(16, 2, {0, 0, 0, 0}), "Broken error message."},
        {RawMessage(24, 3, {0, 0, 0, 0}), "Discarding incomplete / invalid message."},
        {RawMessage(8, 3), "Discarding incomplete / invalid message."},
        {RawMessage(16, 3), nullptr}, {RawMessage(20, 2, {0xed, 0xff, 0xff, 0xff}), nullptr},
    };
    for (const auto& c : cases) {
        vord::LogCapture log;
        EXPECT_EQ(NL80211Packet(c.bytes).IsValid(), c.message == nullptr) << c.bytes.size();
        EXPECT_EQ(log.lines().size(), c.message ? 1u : 0u);
        EXPECT_EQ(log.count(c.message ? c.message : "E/"), c.message ? 1u : 0u);
    }
}

TEST(Nl80211Format, LookupsOfAbsentBrokenAndZeroLengthAttributes) {
    vord::LogCapture log;
    const Bytes one = RawAttr(6, 1, {0x1c, 0, 0, 0}), two = RawAttr(8, 2, {5, 0, 0, 0});
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    NL80211Packet packet = FamilyMessage(Concat({one, two}));
    EXPECT_TRUE(packet.GetAttributeValue(1, &u16) && packet.GetAttributeValue(2, &u32));
    EXPECT_EQ(u16, 0x1c);
    EXPECT_EQ(u32, 5u);
    EXPECT_FALSE(packet.GetAttributeValue(9, &u16));  // absent
    // nla_len 0 ends the walk before the attribute looked for.
    EXPECT_FALSE(FamilyMessage(Concat({RawAttr(0, 5), one})).GetAttributeValue(1, &u16));
    EXPECT_TRUE(log.lines().empty());
    // Claims more bytes than remain.
    EXPECT_FALSE(FamilyMessage(Concat({one, RawAttr(40, 2)})).GetAttributeValue(2, &u32));
    EXPECT_TRUE(log.contains("Failed to get attribute: broken nl80211 atrribute."));
}

TEST(Nl80211Format, NestedLists) {
    const Bytes scan = RawAttr(12, 1, {'s', 'c', 'a', 'n', 0, 0, 0, 0});
    const Bytes id = RawAttr(8, 2, {7, 0, 0, 0}), three = RawAttr(3, 1), four = RawAttr(4, 2);
    const Bytes untouched = NL80211NestedAttr(9).GetConstData();
    // Elements {untouched}: refused; the message: the one error logged, if any.
    const struct { Bytes bytes; std::vector<Bytes> elements; const char* message; } cases[] = {
        {Concat({RawAttr(24, 7), scan, id}), {scan, id}, nullptr},
        {RawAttr(4, 7), {}, nullptr},
        {Concat({RawAttr(16, 7), id, RawAttr(0, 2)}), {untouched}, nullptr},  // nla_len 0: silently
        {Concat({RawAttr(12, 7), three, four}), {three, four}, nullptr},  // nla_len 3: 4 bytes
        {Concat({RawAttr(12, 7), RawAttr(12, 1, {0, 0, 0, 0})}), {untouched},  // past the end
         "Failed to get list of nested attributes: invalid nla_len."},
    };
    for (const auto& c : cases) {
        vord::LogCapture log;
        std::vector<NL80211NestedAttr> list(1, NL80211NestedAttr(9));
        const bool refused = c.elements == std::vector<Bytes>{untouched};
        EXPECT_EQ(NL80211NestedAttr(c.bytes).GetListOfNestedAttributes(&list), !refused);
        std::vector<Bytes> seen;
        for (const NL80211NestedAttr& element : list) seen.push_back(element.GetConstData());
        EXPECT_EQ(seen, c.elements);
        EXPECT_EQ(log.count(c.message ? c.message : "E/"), c.message ? 1u : 0u);
    }
}

constexpr uint16_t kFamily = 0x1c;
constexpr uint16_t kMulti = 0x2;

// A message of `type`/`command` answering `sequence`, with `flags`.
Bytes Reply(uint16_t type, uint8_t command, uint32_t sequence, uint16_t flags = 0,
            std::initializer_list<BaseNL80211Attr> attributes = {}) {
    NL80211Packet packet(type, command, sequence, 0);
    for (const BaseNL80211Attr& attribute : attributes) packet.AddAttribute(attribute);
    Bytes bytes = packet.GetConstData();
    memcpy(bytes.data() + 6, &flags, 2);
    return bytes;
}

// An NLMSG_ERROR answering `sequence` with `code`, where a reply's command would be.
Bytes ErrorReply(uint32_t sequence, int32_t code) {
    Bytes error = Reply(2, 0, sequence);
    memcpy(error.data() + 16, &code, 4);
    return error;
}

// A station reply whose NL80211_ATTR_STA_INFO holds `signal`.
Bytes StationReply(uint32_t sequence, const BaseNL80211Attr& signal) {
    return Reply(kFamily, 19, sequence, 0, {BaseNL80211Attr(21, signal.GetConstData())});
}

// A client with the nl80211 family known, on one end of a socketpair; the test
// plays the kernel on the other.
class NetlinkUtilsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        pair();
        utils.OnNewFamily(std::make_unique<const NL80211Packet>(
            Reply(16, 1, 0, 0, {NL80211Attr<uint16_t>(1, kFamily), NL80211Attr<std::string>(2, "nl80211")})));
        ASSERT_EQ(utils.GetFamilyId(), kFamily);
    }
    void pair() {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds), 0);
        kernel.reset(fds[1]);
        utils.AdoptSocket(unique_fd(fds[0]));
    }
    // The next request the client sent, as the kernel reads it.
    NL80211Packet asked() {
        Bytes buffer(8192);
        buffer.resize(std::max<ssize_t>(0, recv(kernel.get(), buffer.data(), buffer.size(), MSG_DONTWAIT)));
        return NL80211Packet(buffer);
    }
    void queue(const Bytes& datagram) {
        ASSERT_EQ(send(kernel.get(), datagram.data(), datagram.size(), 0), ssize_t(datagram.size()));
    }

    unique_fd kernel;
    NetlinkUtils utils;
    vord::LogCapture log;
};

// Signal -55; a malformed signal attribute (nla_len 8) gives 0; an unassociated
// interface's error reply (-ENODEV, its code where a reply's command would be)
// gives 0 and the wrong-command message. The counter wraps past 0xFFFFFFFF and a
// reply reaches its request only when their sequence numbers match.
TEST_F(NetlinkUtilsTest, StationSignalErrorReplyAndSequenceWrap) {
    utils.SetSequenceNumberForTesting(0xFFFFFFFD);
    queue(StationReply(0xFFFFFFFE, NL80211Attr<int8_t>(7, -55)));
    queue(StationReply(0xFFFFFFFF, BaseNL80211Attr(7, {0xc9, 0, 0, 0})));
    queue(ErrorReply(1, -19));
    EXPECT_EQ(utils.GetStationInfo("a1b2c3d4e5f6", "lo"), -55);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(utils.GetStationInfo("a1b2c3d4e5f6", "lo"), 0);
    EXPECT_TRUE(log.contains("Failed to get NL80211_STA_INFO_SIGNAL"));
    EXPECT_EQ(utils.GetStationInfo("ffffffffffff", "lo"), 0);
    EXPECT_EQ(log.count("Wrong command in response to a get station request: 237"), 1u);
    EXPECT_EQ(utils.GetSequenceNumberForTesting(), 1u);
}

TEST_F(NetlinkUtilsTest, MultipartReplyOverTwoReadsAndATimeout) {
    // First read: an unsolicited message (sequence 0) and part one; second read:
    // part two and NLMSG_DONE.
    queue(Concat({Reply(kFamily, 19, 0), Reply(kFamily, 19, 42, kMulti)}));
    queue(Concat({Reply(kFamily, 20, 42, kMulti), Reply(3, 0, 42, kMulti)}));
    std::vector<std::unique_ptr<const NL80211Packet>> responses;
    ASSERT_TRUE(utils.SendMessageAndGetResponses(NL80211Packet(kFamily, 17, 42, 0), &responses));
    ASSERT_EQ(responses.size(), 2u);
    EXPECT_EQ((std::vector<int>{responses[0]->GetCommand(), responses[1]->GetCommand()}), (std::vector<int>{19, 20}));
    EXPECT_EQ(utils.PendingRequestCountForTesting(), 0u);
    // No reply at all: a time-out that leaves no handler behind.
    std::unique_ptr<const NL80211Packet> response;
    EXPECT_FALSE(utils.SendMessageAndGetSingleResponse(NL80211Packet(kFamily, 17, 9, 0), &response));
    EXPECT_EQ(utils.PendingRequestCountForTesting(), 0u);
}

// Family discovery on a kernel without nl80211: the controller answers the
// GETFAMILY request for "nl80211" with -ENOENT.
class NetlinkDiscoveryTest : public NetlinkUtilsTest {
    void SetUp() override { pair(); }
};

TEST_F(NetlinkDiscoveryTest, OnAKernelWithoutNl80211FailsCleanly) {
    queue(ErrorReply(1, -2));  // the first request takes sequence number 1
    EXPECT_FALSE(utils.DiscoverFamilyId());
    EXPECT_TRUE(log.contains("Failed to get NL80211 family id")) << ::testing::PrintToString(log.lines());
    EXPECT_EQ(utils.PendingRequestCountForTesting(), 0u);
    NL80211Packet request = asked();  // GETFAMILY (type 16, command 3) for "nl80211"
    std::string family;
    request.GetAttributeValue(2, &family);
    EXPECT_EQ(std::to_string(request.GetMessageType()) + " " + std::to_string(request.GetCommand()) + " " + family,
              "16 3 nl80211");
}

}  // namespace
