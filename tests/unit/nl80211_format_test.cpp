// Message and attribute wire format: building, validity rules and lookups.
#include <string.h>

#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <vord/LogCapture.h>

#include "wificond/net/nl80211_attribute.h"
#include "wificond/net/nl80211_packet.h"

using android::wificond::BaseNL80211Attr;
using android::wificond::NL80211Attr;
using android::wificond::NL80211NestedAttr;
using android::wificond::NL80211Packet;

namespace {

using Bytes = std::vector<uint8_t>;

// A raw attribute header (nla_len, nla_type) followed by `payload` as given.
Bytes RawAttr(uint16_t nla_len, uint16_t type, const Bytes& payload = {}) {
    Bytes out(4);
    memcpy(out.data(), &nla_len, 2);
    memcpy(out.data() + 2, &type, 2);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

// A message: 16-byte header with the given fields, then `body`.
Bytes RawMessage(uint32_t nlmsg_len, uint16_t type, const Bytes& body = {}) {
    Bytes out(16, 0);
    memcpy(out.data(), &nlmsg_len, 4);
    memcpy(out.data() + 4, &type, 2);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A family reply (type 0x1c) carrying `attributes` after the generic header.
NL80211Packet FamilyMessage(const Bytes& attributes) {
    Bytes body = Concat({{19, 1, 0, 0}, attributes});
    return NL80211Packet(RawMessage(static_cast<uint32_t>(20 + attributes.size()), 0x1c, body));
}

TEST(Nl80211FormatTest, RequestWireForm) {
    NL80211Packet request(25, 3, 7, 0);
    EXPECT_EQ(request.GetConstData(), (Bytes{0x14, 0, 0, 0, 0x19, 0, 1, 0, 7, 0, 0, 0, 0, 0, 0, 0,
                                             3, 1, 0, 0}));
    EXPECT_TRUE(request.IsValid());
    request.AddAttribute(NL80211Attr<uint32_t>(3, 0xdeadbeef));
    ASSERT_EQ(request.GetConstData().size(), 28u);
    EXPECT_EQ(request.GetConstData()[0], 28);
    uint32_t value = 0;
    EXPECT_TRUE(request.GetAttributeValue(3, &value));
    EXPECT_EQ(value, 0xdeadbeefu);
}

TEST(Nl80211FormatTest, AttributeWireFormAndValues) {
    NL80211Attr<std::string> name(2, "wlan0");
    EXPECT_EQ(name.GetConstData(), (Bytes{10, 0, 2, 0, 'w', 'l', 'a', 'n', '0', 0, 0, 0}));
    EXPECT_TRUE(name.IsValid());
    EXPECT_EQ(name.GetValue(), "wlan0");

    // Trailing NULs are stripped; payloads shorter than claimed or than a
    // header give what is there, never more.
    EXPECT_EQ(NL80211Attr<std::string>(RawAttr(8, 1, {0, 0, 0, 0})).GetValue(), "");
    EXPECT_EQ(NL80211Attr<std::string>(RawAttr(2, 1)).GetValue(), "");
    EXPECT_EQ(NL80211Attr<std::string>(Bytes()).GetValue(), "");
    EXPECT_EQ(NL80211Attr<std::string>(RawAttr(200, 1, {'a', 'b', 0, 0})).GetValue(), "ab");

    NL80211Attr<std::array<uint8_t, 6>> mac(6, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(mac.GetConstData().size(), 12u);
    EXPECT_EQ(mac.GetConstData()[0], 10);
    using Mac = std::array<uint8_t, 6>;
    EXPECT_EQ(mac.GetValue(), (Mac{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ((NL80211Attr<Mac>(RawAttr(6, 6, {9, 9})).GetValue()), Mac{});

    NL80211Attr<int8_t> signal(7, -55);
    EXPECT_EQ(signal.GetConstData(), (Bytes{5, 0, 7, 0, 0xc9, 0, 0, 0}));
    EXPECT_EQ(signal.GetValue(), -55);
    EXPECT_EQ(NL80211NestedAttr(7).GetConstData(), (Bytes{4, 0, 7, 0}));
}

TEST(Nl80211FormatTest, IntegerAttributeValidity) {
    EXPECT_FALSE(NL80211Attr<uint16_t>(RawAttr(8, 1, {1, 0, 0, 0})).IsValid());
    EXPECT_TRUE(NL80211Attr<uint16_t>(RawAttr(6, 1, {1, 0, 0, 0})).IsValid());
    EXPECT_TRUE(NL80211Attr<int8_t>(RawAttr(5, 1, {1, 0, 0, 0})).IsValid());
    EXPECT_FALSE(NL80211Attr<int8_t>(RawAttr(8, 1, {1, 0, 0, 0})).IsValid());
    EXPECT_FALSE(NL80211Attr<uint32_t>(RawAttr(8, 1, {1, 0})).IsValid());
    // Too short to hold a value: 0, and nothing read past the vector.
    EXPECT_EQ(NL80211Attr<uint32_t>(RawAttr(8, 1, {1, 0})).GetValue(), 0u);
    EXPECT_FALSE(NL80211NestedAttr(Bytes{4, 0}).IsValid());
}

TEST(Nl80211FormatTest, MessageValidityRules) {
    struct Case {
        Bytes bytes;
        const char* message;  // nullptr: valid
    };
    const Case cases[] = {
            {Bytes(15, 0), "Cannot retrieve netlink header."},
            {RawMessage(18, 0x1c, {1, 1}), "Cannot retrieve generic netlink header."},
            {RawMessage(16, 0x1c, {1, 1, 0, 0}), "Cannot retrieve generic netlink header."},
            {RawMessage(18, 2, {0, 0}), "Broken error message."},
            {RawMessage(16, 2, {0, 0, 0, 0}), "Broken error message."},
            {RawMessage(24, 3, {0, 0, 0, 0}), "Discarding incomplete / invalid message."},
            {RawMessage(8, 3), "Discarding incomplete / invalid message."},
            {RawMessage(16, 3), nullptr},
            {RawMessage(20, 2, {0xed, 0xff, 0xff, 0xff}), nullptr},
    };
    for (const Case& c : cases) {
        vord::LogCapture log;
        EXPECT_EQ(NL80211Packet(c.bytes).IsValid(), c.message == nullptr);
        if (c.message != nullptr) {
            ASSERT_EQ(log.lines().size(), 1u);
            EXPECT_NE(log.lines()[0].find(std::string("E/mux-netlink: nl80211_packet.cpp:") ),
                      std::string::npos);
            EXPECT_TRUE(log.contains(c.message)) << log.lines()[0];
        } else {
            EXPECT_TRUE(log.lines().empty());
        }
    }
}

TEST(Nl80211FormatTest, HeaderAccessorsOnShortPackets) {
    NL80211Packet tiny(Bytes{0xff, 0xff, 0xff});
    EXPECT_EQ(tiny.GetMessageType(), 0);
    EXPECT_EQ(tiny.GetCommand(), 0);
    EXPECT_EQ(tiny.GetMessageSequence(), 0u);
    EXPECT_FALSE(tiny.IsMulti());
    uint32_t value = 0;
    EXPECT_FALSE(tiny.GetAttributeValue(1, &value));
}

TEST(Nl80211FormatTest, TopLevelLookups) {
    vord::LogCapture log;
    NL80211Packet packet = FamilyMessage(
            Concat({RawAttr(6, 1, {0x1c, 0, 0, 0}), RawAttr(12, 2, {'n', 'l', '8', '0', '2', '1',
                                                                    '1', 0})}));
    uint16_t id = 0;
    std::string name;
    EXPECT_TRUE(packet.GetAttributeValue(1, &id));
    EXPECT_EQ(id, 0x1c);
    EXPECT_TRUE(packet.GetAttributeValue(2, &name));
    EXPECT_EQ(name, "nl80211");

    EXPECT_FALSE(packet.GetAttributeValue(9, &id));
    EXPECT_TRUE(log.lines().empty());

    // Found, but the wrong size for its type: false, and the copy is kept.
    NL80211Attr<uint32_t> wrong{Bytes()};
    EXPECT_FALSE(packet.GetAttribute(1, &wrong));
    EXPECT_EQ(wrong.GetConstData().size(), 8u);

    // Claims more bytes than remain.
    NL80211Packet broken = FamilyMessage(Concat({RawAttr(6, 1, {1, 0, 0, 0}), RawAttr(40, 2)}));
    EXPECT_FALSE(broken.GetAttributeValue(2, &name));
    EXPECT_TRUE(log.contains("Failed to get attribute: broken nl80211 atrribute."));

    // nla_len 0 ends the walk before the attribute looked for.
    log.clear();
    NL80211Packet stuck = FamilyMessage(Concat({RawAttr(0, 5), RawAttr(6, 1, {1, 0, 0, 0})}));
    EXPECT_FALSE(stuck.GetAttributeValue(1, &id));
    EXPECT_TRUE(log.lines().empty());
}

TEST(Nl80211FormatTest, NestedLookupAndList) {
    Bytes group1 = Concat({RawAttr(9, 1, {'s', 'c', 'a', 'n', 0, 0, 0, 0}),
                           RawAttr(8, 2, {6, 0, 0, 0})});
    Bytes group2 = Concat({RawAttr(9, 1, {'m', 'l', 'm', 'e', 0, 0, 0, 0}),
                           RawAttr(8, 2, {7, 0, 0, 0})});
    Bytes groups_payload = Concat({BaseNL80211Attr(1, group1).GetConstData(),
                                   BaseNL80211Attr(2, group2).GetConstData()});
    NL80211Packet packet = FamilyMessage(BaseNL80211Attr(7, groups_payload).GetConstData());
    NL80211NestedAttr groups(0);
    ASSERT_TRUE(packet.GetAttribute(7, &groups));
    std::vector<NL80211NestedAttr> list;
    ASSERT_TRUE(groups.GetListOfNestedAttributes(&list));
    ASSERT_EQ(list.size(), 2u);
    std::string name;
    uint32_t id = 0;
    EXPECT_TRUE(list[1].GetAttributeValue(1, &name));
    EXPECT_TRUE(list[1].GetAttributeValue(2, &id));
    EXPECT_EQ(name, "mlme");
    EXPECT_EQ(id, 7u);
    NL80211NestedAttr inner(0);
    EXPECT_TRUE(groups.GetAttribute(2, &inner));
    EXPECT_EQ(inner.GetConstData().size(), group2.size() + 4);

    EXPECT_TRUE(NL80211NestedAttr(7).GetListOfNestedAttributes(&list));
    EXPECT_TRUE(list.empty());
}

TEST(Nl80211FormatTest, NestedListRejectsBrokenElements) {
    std::vector<NL80211NestedAttr> list(3, NL80211NestedAttr(1));
    vord::LogCapture log;

    // nla_len 0: false, no message, list untouched.
    NL80211NestedAttr zero(Concat({RawAttr(16, 7), RawAttr(8, 1, {1, 0, 0, 0}), RawAttr(0, 2)}));
    EXPECT_FALSE(zero.GetListOfNestedAttributes(&list));
    EXPECT_EQ(list.size(), 3u);
    EXPECT_TRUE(log.lines().empty());

    // nla_len 3 is taken as a 4-byte element.
    NL80211NestedAttr three(Concat({RawAttr(12, 7), RawAttr(3, 1), RawAttr(4, 2)}));
    ASSERT_TRUE(three.GetListOfNestedAttributes(&list));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].GetConstData(), (Bytes{3, 0, 1, 0}));

    // An element running past the end.
    NL80211NestedAttr overrun(Concat({RawAttr(12, 7), RawAttr(12, 1, {0, 0, 0, 0})}));
    EXPECT_FALSE(overrun.GetListOfNestedAttributes(&list));
    EXPECT_TRUE(log.contains("Failed to get list of nested attributes: invalid nla_len."));
    EXPECT_EQ(list.size(), 2u);
}

}  // namespace
