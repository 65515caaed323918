#define LOG_TAG "mux-netlink"

#include "wificond/net/nl80211_attribute.h"

#include <string.h>

#include <android-base/logging.h>

namespace android {
namespace wificond {

namespace {

// Header fields are read with memcpy: received bytes carry no alignment promise.
uint16_t ReadU16(const uint8_t* p) {
    uint16_t value;
    memcpy(&value, p, sizeof(value));
    return value;
}

void WriteU16(uint8_t* p, uint16_t value) { memcpy(p, &value, sizeof(value)); }

}  // namespace

BaseNL80211Attr::BaseNL80211Attr(int id, const std::vector<uint8_t>& raw_buffer) {
    InitHeaderAndResize(id, static_cast<int>(raw_buffer.size()));
    std::copy(raw_buffer.begin(), raw_buffer.end(), data_.begin() + kNlaHeaderLength);
}

bool BaseNL80211Attr::IsValid() const {
    if (data_.size() < kNlaHeaderLength) return false;
    return NlaAlign(GetLength()) == data_.size();
}

uint16_t BaseNL80211Attr::GetLength() const {
    return data_.size() < kNlaHeaderLength ? 0 : ReadU16(data_.data());
}

uint16_t BaseNL80211Attr::GetAttributeId() const {
    return data_.size() < kNlaHeaderLength ? 0 : ReadU16(data_.data() + 2);
}

void BaseNL80211Attr::InitHeaderAndResize(int id, int payload_length) {
    size_t payload = payload_length > 0 ? static_cast<size_t>(payload_length) : 0;
    data_.assign(kNlaHeaderLength + NlaAlign(payload), 0);
    // A payload too large for the 16-bit nla_len leaves an attribute that
    // IsValid() rejects, rather than a silently truncated one.
    WriteU16(data_.data(), static_cast<uint16_t>(kNlaHeaderLength + payload));
    WriteU16(data_.data() + 2, static_cast<uint16_t>(id));
}

size_t BaseNL80211Attr::PayloadLength() const {
    size_t length = std::min<size_t>(GetLength(), data_.size());
    return length > kNlaHeaderLength ? length - kNlaHeaderLength : 0;
}

bool BaseNL80211Attr::GetAttributeImpl(const uint8_t* buf, size_t len, int id, uint8_t** start,
                                       uint8_t** end) {
    if (buf == nullptr) return false;
    // Offsets rather than pointers, so that a bogus nla_len never forms a
    // pointer past the end of the buffer.
    size_t offset = 0;
    while (len - offset >= kNlaHeaderLength) {
        const uint8_t* header = buf + offset;
        uint16_t nla_len = ReadU16(header);
        if (nla_len == 0) break;
        size_t padded = NlaAlign(nla_len);
        if (ReadU16(header + 2) == id) {
            if (padded > len - offset) {
                LOG(ERROR) << "Failed to get attribute: broken nl80211 atrribute.";
                return false;
            }
            if (start != nullptr && end != nullptr) {
                // The callers own mutable buffers; the const here only says
                // that the search itself writes nothing.
                *start = const_cast<uint8_t*>(header);
                *end = const_cast<uint8_t*>(header) + padded;
            }
            return true;
        }
        if (padded >= len - offset) break;
        offset += padded;
    }
    return false;
}

// NL80211Attr<std::string>

NL80211Attr<std::string>::NL80211Attr(int id, const std::string& value) {
    InitHeaderAndResize(id, static_cast<int>(value.size() + 1));
    std::copy(value.begin(), value.end(), data_.begin() + kNlaHeaderLength);
}

NL80211Attr<std::string>::NL80211Attr(const std::vector<uint8_t>& data) { data_ = data; }

std::string NL80211Attr<std::string>::GetValue() const {
    size_t length = PayloadLength();
    if (length == 0) return std::string();
    const char* payload = reinterpret_cast<const char*>(data_.data()) + kNlaHeaderLength;
    while (length > 0 && payload[length - 1] == '\0') --length;
    return std::string(payload, length);
}

// NL80211Attr<std::array<uint8_t, 6>>

NL80211Attr<std::array<uint8_t, 6>>::NL80211Attr(int id, const std::array<uint8_t, 6>& value) {
    InitHeaderAndResize(id, static_cast<int>(value.size()));
    std::copy(value.begin(), value.end(), data_.begin() + kNlaHeaderLength);
}

NL80211Attr<std::array<uint8_t, 6>>::NL80211Attr(const std::vector<uint8_t>& data) {
    data_ = data;
}

std::array<uint8_t, 6> NL80211Attr<std::array<uint8_t, 6>>::GetValue() const {
    std::array<uint8_t, 6> value{};
    if (data_.size() >= kNlaHeaderLength + value.size()) {
        std::copy(data_.begin() + kNlaHeaderLength,
                  data_.begin() + kNlaHeaderLength + value.size(), value.begin());
    }
    return value;
}

// NL80211NestedAttr

NL80211NestedAttr::NL80211NestedAttr(int id) { InitHeaderAndResize(id, 0); }

NL80211NestedAttr::NL80211NestedAttr(const std::vector<uint8_t>& data) { data_ = data; }

bool NL80211NestedAttr::FindAttribute(int id, std::vector<uint8_t>* bytes) const {
    if (data_.size() < kNlaHeaderLength) return false;
    uint8_t* start = nullptr;
    uint8_t* end = nullptr;
    if (!GetAttributeImpl(data_.data() + kNlaHeaderLength, data_.size() - kNlaHeaderLength, id,
                          &start, &end) ||
        start == nullptr || end == nullptr) {
        return false;
    }
    bytes->assign(start, end);
    return true;
}

bool NL80211NestedAttr::GetAttribute(int id, NL80211NestedAttr* attribute) const {
    std::vector<uint8_t> bytes;
    if (!FindAttribute(id, &bytes)) return false;
    *attribute = NL80211NestedAttr(bytes);
    return attribute->IsValid();
}

bool NL80211NestedAttr::GetListOfNestedAttributes(std::vector<NL80211NestedAttr>* list) const {
    std::vector<NL80211NestedAttr> nested;
    size_t offset = kNlaHeaderLength;
    while (offset <= data_.size() && data_.size() - offset >= kNlaHeaderLength) {
        size_t padded = NlaAlign(ReadU16(data_.data() + offset));
        if (padded > data_.size() - offset) {
            LOG(ERROR) << "Failed to get list of nested attributes: invalid nla_len.";
            return false;
        }
        nested.emplace_back(std::vector<uint8_t>(data_.begin() + offset,
                                                 data_.begin() + offset + padded));
        // nla_len 0 gives an empty, invalid element: stop here rather than
        // spin on the same offset.
        if (!nested.back().IsValid()) return false;
        offset += padded;
    }
    *list = std::move(nested);
    return true;
}

}  // namespace wificond
}  // namespace android
