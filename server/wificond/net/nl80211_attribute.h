// Generic netlink attributes (nlattr) as the nl80211 client builds and reads them.
//
// Every attribute object owns one byte vector that is exactly its wire form:
// a 4-byte header (uint16 nla_len, uint16 nla_type, host byte order), the
// payload, and zero padding up to a multiple of 4. nla_len counts the header
// and the payload but not the padding. An attribute is added to a message by
// appending its bytes.
//
// Received attributes are wrapped as they are and checked with IsValid();
// nothing here reads outside the object's own vector, whatever the bytes say.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <array>
#include <string>
#include <type_traits>
#include <vector>

namespace android {
namespace wificond {

// Size of the attribute header and the alignment of attributes on the wire.
constexpr size_t kNlaHeaderLength = 4;
constexpr size_t NlaAlign(size_t length) { return (length + 3) & ~static_cast<size_t>(3); }

class BaseNL80211Attr {
  public:
    // Header with nla_type `id` and nla_len 4 plus the raw length, the raw
    // bytes as payload, then zero padding.
    BaseNL80211Attr(int id, const std::vector<uint8_t>& raw_buffer);
    virtual ~BaseNL80211Attr() = default;

    BaseNL80211Attr(const BaseNL80211Attr&) = default;
    BaseNL80211Attr& operator=(const BaseNL80211Attr&) = default;
    BaseNL80211Attr(BaseNL80211Attr&&) = default;
    BaseNL80211Attr& operator=(BaseNL80211Attr&&) = default;

    // At least a header, and the padded nla_len is exactly the vector's size.
    virtual bool IsValid() const;

    const std::vector<uint8_t>& GetConstData() const { return data_; }

    // nla_len and nla_type as stored; 0 when the vector is shorter than a header.
    uint16_t GetLength() const;
    uint16_t GetAttributeId() const;

    // Looks for attribute `id` among the attributes in [buf, buf + len).
    // Attributes are stepped over by their padded length; one with nla_len 0
    // ends the search. On a match whose padded end lies inside the buffer,
    // stores the attribute's first byte and padded end in *start and *end
    // (when both are given) and returns true. A match that runs past the end
    // of the buffer is logged and reported as a miss.
    static bool GetAttributeImpl(const uint8_t* buf, size_t len, int id, uint8_t** start,
                                 uint8_t** end);

  protected:
    BaseNL80211Attr() = default;

    // Resizes the vector to the header plus the padded payload (new bytes are
    // zero) and writes nla_type `id` and nla_len 4 plus `payload_length`.
    void InitHeaderAndResize(int id, int payload_length);

    // Payload length claimed by nla_len, clipped to what the vector holds.
    size_t PayloadLength() const;

    std::vector<uint8_t> data_;
};

// Fixed-size integer attributes: uint16_t, uint32_t and int8_t.
template <typename T>
class NL80211Attr : public BaseNL80211Attr {
    static_assert(std::is_same<T, uint16_t>::value || std::is_same<T, uint32_t>::value ||
                      std::is_same<T, int8_t>::value,
                  "unsupported attribute payload type");

  public:
    NL80211Attr(int id, T value) {
        InitHeaderAndResize(id, sizeof(T));
        const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
        std::copy(bytes, bytes + sizeof(T), data_.begin() + kNlaHeaderLength);
    }
    explicit NL80211Attr(const std::vector<uint8_t>& data) { data_ = data; }

    // Base rule, and exactly one padded T: an 8-byte vector with nla_len 4 + sizeof(T).
    bool IsValid() const override {
        return BaseNL80211Attr::IsValid() &&
               data_.size() == kNlaHeaderLength + NlaAlign(sizeof(T)) &&
               GetLength() == kNlaHeaderLength + sizeof(T);
    }

    // The T stored after the header; 0 when the vector is too short to hold one.
    T GetValue() const {
        T value = 0;
        if (data_.size() >= kNlaHeaderLength + sizeof(T)) {
            std::copy(data_.begin() + kNlaHeaderLength,
                      data_.begin() + kNlaHeaderLength + sizeof(T),
                      reinterpret_cast<uint8_t*>(&value));
        }
        return value;
    }
};

// A NUL-terminated string.
template <>
class NL80211Attr<std::string> : public BaseNL80211Attr {
  public:
    // Payload: the characters of `value` and one NUL byte.
    NL80211Attr(int id, const std::string& value);
    explicit NL80211Attr(const std::vector<uint8_t>& data);

    // The payload without its trailing NUL bytes.
    std::string GetValue() const;
};

// A MAC address.
template <>
class NL80211Attr<std::array<uint8_t, 6>> : public BaseNL80211Attr {
  public:
    NL80211Attr(int id, const std::array<uint8_t, 6>& value);
    explicit NL80211Attr(const std::vector<uint8_t>& data);

    // The six bytes after the header; zeros when the vector is too short.
    std::array<uint8_t, 6> GetValue() const;
};

// An attribute whose payload is a sequence of attributes.
class NL80211NestedAttr : public BaseNL80211Attr {
  public:
    // Empty: just the header, nla_len 4, nla_type `id` as given.
    explicit NL80211NestedAttr(int id);
    explicit NL80211NestedAttr(const std::vector<uint8_t>& data);

    // Finds attribute `id` in the payload and replaces *attribute with a copy
    // of its bytes. Returns false when it is absent or when the copy isn't a
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

    // Splits the payload into its attributes, each as a nested attribute of
    // its padded bytes. Fails, leaving *list untouched, when an element runs
    // past the end (logged) or isn't a valid attribute (nla_len 0, silently).
    bool GetListOfNestedAttributes(std::vector<NL80211NestedAttr>* list) const;

  private:
    bool FindAttribute(int id, std::vector<uint8_t>* bytes) const;
};

}  // namespace wificond
}  // namespace android
