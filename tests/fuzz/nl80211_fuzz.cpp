// Arbitrary bytes through message validation, attribute lookups and the walk
// over nested attributes. Any out-of-bounds read or endless loop is a finding.
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <string>
#include <vector>

#include <vord/LogCapture.h>

#include "wificond/net/nl80211_attribute.h"
#include "wificond/net/nl80211_packet.h"

using android::wificond::BaseNL80211Attr;
using android::wificond::NL80211Attr;
using android::wificond::NL80211NestedAttr;
using android::wificond::NL80211Packet;

namespace {

// Reads every kind of value under `id` from a packet or a nested attribute.
template <typename Container>
void ReadAll(const Container& container, int id) {
    uint32_t u32;
    int8_t s8;
    std::string text;
    std::array<uint8_t, 6> mac;
    container.GetAttributeValue(id, &u32);
    container.GetAttributeValue(id, &s8);
    container.GetAttributeValue(id, &text);
    container.GetAttributeValue(id, &mac);
}

// Visits `nested`, its attribute `id` and its list elements, as far down as `depth`.
void Walk(const NL80211NestedAttr& nested, int id, int depth) {
    ReadAll(nested, id);
    NL80211NestedAttr inner(0);
    std::vector<NL80211NestedAttr> list;
    if (depth > 0 && nested.GetAttribute(id, &inner)) Walk(inner, id, depth - 1);
    if (depth > 0 && nested.GetListOfNestedAttributes(&list)) {
        for (const NL80211NestedAttr& element : list) Walk(element, id, depth - 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vord::LogCapture quiet;  // keeps the validation messages off stderr
    // The first byte picks the attribute id looked for: 0-7 cover the controller
    // and station attributes.
    const int id = size > 0 ? data[0] % 8 : 0;
    const std::vector<uint8_t> bytes(data, data + size);

    NL80211Packet packet(bytes);
    packet.IsValid();
    packet.IsMulti();
    ReadAll(packet, id);
    NL80211NestedAttr nested(0);
    if (packet.GetAttribute(id, &nested)) Walk(nested, id, 3);
    // The same bytes taken as one attribute.
    Walk(NL80211NestedAttr(bytes), id, 3);
    NL80211Attr<std::string>(bytes).GetValue();

    uint8_t* start = nullptr;
    uint8_t* end = nullptr;
    if (BaseNL80211Attr::GetAttributeImpl(data, size, id, &start, &end) &&
        (start < data || end > data + size || start > end)) {
        __builtin_trap();
    }
    return 0;
}
