// A generic netlink message (nlmsghdr, genlmsghdr, attributes) as the nl80211
// client builds and reads it.
//
// The object owns one byte vector that is the whole message in wire form, all
// fields in host byte order:
//   0  uint32 nlmsg_len     whole message, attributes included
//   4  uint16 nlmsg_type    family id, or a control type (NLMSG_ERROR, NLMSG_DONE...)
//   6  uint16 nlmsg_flags
//   8  uint32 nlmsg_seq
//  12  uint32 nlmsg_pid
//  16  uint8  cmd, 17 uint8 version, 18 uint16 reserved
//  20  attributes
// Received bytes are checked with IsValid(). The header accessors return 0 (or
// false) for fields that a short vector doesn't hold, so they are safe on any
// packet, though only meaningful on valid ones.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "wificond/net/nl80211_attribute.h"

namespace android {
namespace wificond {

class NL80211Packet {
  public:
    // Wraps received bytes (copied).
    explicit NL80211Packet(const std::vector<uint8_t>& data);
    // A 20-byte request: nlmsg_len 20, NLM_F_REQUEST, generic netlink version 1.
    NL80211Packet(uint16_t type, uint8_t command, uint32_t sequence, uint32_t pid);

    // The header rules: a whole netlink header; a generic netlink header for
    // family messages; an error code for NLMSG_ERROR; nlmsg_len within the
    // vector. Each failure is logged.
    bool IsValid() const;

    uint16_t GetMessageType() const;
    uint16_t GetFlags() const;
    bool IsMulti() const;
    uint8_t GetCommand() const;
    uint32_t GetMessageSequence() const;
    uint32_t GetPortId() const;

    const std::vector<uint8_t>& GetConstData() const { return data_; }

    // Appends the attribute's bytes, padding included, and grows nlmsg_len.
    void AddAttribute(const BaseNL80211Attr& attribute);

    // Finds top-level attribute `id` and replaces *attribute with a copy of
    // its bytes. Returns false when it is absent or when the copy isn't a
    // valid attribute of its kind (*attribute is replaced all the same).
    template <typename T>
    bool GetAttribute(int id, NL80211Attr<T>* attribute) const {
        std::vector<uint8_t> bytes;
        if (!FindAttribute(id, &bytes)) return false;
        *attribute = NL80211Attr<T>(bytes);
        return attribute->IsValid();
    }
    bool GetAttribute(int id, NL80211NestedAttr* attribute) const;

    // GetAttribute and then GetValue into *value.
    template <typename T>
    bool GetAttributeValue(int id, T* value) const {
        NL80211Attr<T> attribute{std::vector<uint8_t>()};
        if (!GetAttribute(id, &attribute)) return false;
        *value = attribute.GetValue();
        return true;
    }

  private:
    bool FindAttribute(int id, std::vector<uint8_t>* bytes) const;

    std::vector<uint8_t> data_;
};

}  // namespace wificond
}  // namespace android
