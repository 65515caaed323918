#define LOG_TAG "mux-netlink"

#include "wificond/net/nl80211_packet.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <string.h>

#include <android-base/logging.h>

namespace android {
namespace wificond {

namespace {

constexpr size_t kNetlinkHeaderLength = sizeof(nlmsghdr);                         // 16
constexpr size_t kGenericHeaderLength = kNetlinkHeaderLength + GENL_HDRLEN;        // 20
constexpr size_t kErrorMessageLength = kNetlinkHeaderLength + sizeof(int32_t);     // 20
constexpr uint8_t kGenericNetlinkVersion = 1;

static_assert(kNetlinkHeaderLength == 16 && kGenericHeaderLength == 20,
              "unexpected netlink header sizes");

// Reads a field at `offset` when the vector holds it, else 0.
template <typename T>
T ReadField(const std::vector<uint8_t>& data, size_t offset) {
    T value = 0;
    if (data.size() >= offset + sizeof(T)) memcpy(&value, data.data() + offset, sizeof(T));
    return value;
}

template <typename T>
void WriteField(std::vector<uint8_t>* data, size_t offset, T value) {
    memcpy(data->data() + offset, &value, sizeof(T));
}

}  // namespace

NL80211Packet::NL80211Packet(const std::vector<uint8_t>& data) : data_(data) {}

NL80211Packet::NL80211Packet(uint16_t type, uint8_t command, uint32_t sequence, uint32_t pid)
    : data_(kGenericHeaderLength, 0) {
    WriteField<uint32_t>(&data_, offsetof(nlmsghdr, nlmsg_len), kGenericHeaderLength);
    WriteField<uint16_t>(&data_, offsetof(nlmsghdr, nlmsg_type), type);
    WriteField<uint16_t>(&data_, offsetof(nlmsghdr, nlmsg_flags), NLM_F_REQUEST);
    WriteField<uint32_t>(&data_, offsetof(nlmsghdr, nlmsg_seq), sequence);
    WriteField<uint32_t>(&data_, offsetof(nlmsghdr, nlmsg_pid), pid);
    data_[kNetlinkHeaderLength] = command;
    data_[kNetlinkHeaderLength + 1] = kGenericNetlinkVersion;
}

bool NL80211Packet::IsValid() const {
    if (data_.size() < kNetlinkHeaderLength) {
        LOG(ERROR) << "Cannot retrieve netlink header.";
        return false;
    }
    uint32_t length = ReadField<uint32_t>(data_, offsetof(nlmsghdr, nlmsg_len));
    uint16_t type = GetMessageType();
    if (type >= NLMSG_MIN_TYPE) {
        if (data_.size() < kGenericHeaderLength || length < kGenericHeaderLength) {
            LOG(ERROR) << "Cannot retrieve generic netlink header.";
            return false;
        }
    }
    if (type == NLMSG_ERROR) {
        if (data_.size() < kErrorMessageLength || length < kErrorMessageLength) {
            LOG(ERROR) << "Broken error message.";
            return false;
        }
    }
    if (data_.size() < length || length < kNetlinkHeaderLength) {
        LOG(ERROR) << "Discarding incomplete / invalid message.";
        return false;
    }
    return true;
}

uint16_t NL80211Packet::GetMessageType() const {
    return ReadField<uint16_t>(data_, offsetof(nlmsghdr, nlmsg_type));
}

uint16_t NL80211Packet::GetFlags() const {
    return ReadField<uint16_t>(data_, offsetof(nlmsghdr, nlmsg_flags));
}

bool NL80211Packet::IsMulti() const { return (GetFlags() & NLM_F_MULTI) != 0; }

uint8_t NL80211Packet::GetCommand() const {
    return ReadField<uint8_t>(data_, kNetlinkHeaderLength + offsetof(genlmsghdr, cmd));
}

uint32_t NL80211Packet::GetMessageSequence() const {
    return ReadField<uint32_t>(data_, offsetof(nlmsghdr, nlmsg_seq));
}

uint32_t NL80211Packet::GetPortId() const {
    return ReadField<uint32_t>(data_, offsetof(nlmsghdr, nlmsg_pid));
}

void NL80211Packet::AddAttribute(const BaseNL80211Attr& attribute) {
    const std::vector<uint8_t>& bytes = attribute.GetConstData();
    bool has_length = data_.size() >= sizeof(uint32_t);
    data_.insert(data_.end(), bytes.begin(), bytes.end());
    if (has_length) {
        uint32_t length = ReadField<uint32_t>(data_, offsetof(nlmsghdr, nlmsg_len));
        WriteField<uint32_t>(&data_, offsetof(nlmsghdr, nlmsg_len),
                             length + static_cast<uint32_t>(bytes.size()));
    }
}

bool NL80211Packet::FindAttribute(int id, std::vector<uint8_t>* bytes) const {
    if (data_.size() < kGenericHeaderLength) return false;
    uint8_t* start = nullptr;
    uint8_t* end = nullptr;
    if (!BaseNL80211Attr::GetAttributeImpl(data_.data() + kGenericHeaderLength,
                                           data_.size() - kGenericHeaderLength, id, &start,
                                           &end) ||
        start == nullptr || end == nullptr) {
        return false;
    }
    bytes->assign(start, end);
    return true;
}

bool NL80211Packet::GetAttribute(int id, NL80211NestedAttr* attribute) const {
    std::vector<uint8_t> bytes;
    if (!FindAttribute(id, &bytes)) return false;
    *attribute = NL80211NestedAttr(bytes);
    return attribute->IsValid();
}

}  // namespace wificond
}  // namespace android
