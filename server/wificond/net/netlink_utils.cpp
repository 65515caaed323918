#define LOG_TAG "mux-netlink"

#include "wificond/net/netlink_utils.h"

#include <errno.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include <android-base/logging.h>
#include <log/log.h>
#include <utils/Timers.h>

namespace android {
namespace wificond {

namespace {

// Generic netlink controller.
constexpr uint16_t kGenlIdCtrl = 16;
constexpr uint8_t kCtrlCmdNewFamily = 1;
constexpr uint8_t kCtrlCmdGetFamily = 3;
constexpr int kCtrlAttrFamilyId = 1;
constexpr int kCtrlAttrFamilyName = 2;
constexpr int kCtrlAttrMcastGroups = 7;
constexpr int kCtrlAttrMcastGrpName = 1;
constexpr int kCtrlAttrMcastGrpId = 2;

// nl80211.
constexpr char kNl80211FamilyName[] = "nl80211";
constexpr uint8_t kNl80211CmdGetStation = 17;
constexpr uint8_t kNl80211CmdNewStation = 19;
constexpr int kNl80211AttrIfindex = 3;
constexpr int kNl80211AttrMac = 6;
constexpr int kNl80211AttrStaInfo = 21;
constexpr int kNl80211StaInfoSignal = 7;

constexpr int kReceiveBufferRequest = 8192;
constexpr size_t kNetlinkHeaderLength = sizeof(nlmsghdr);
constexpr nsecs_t kNanosPerMilli = 1000000;

// Shared by every read; only touched under NetlinkUtils::request_mutex_.
uint8_t g_receive_buffer[NetlinkUtils::kReceiveBufferSize];

// "a1b2c3d4e5f6" to six bytes: each pair of characters (a lone last one for
// an odd length) read as hexadecimal; missing bytes are zero.
std::array<uint8_t, 6> ParseMacAddress(const char* text) {
    std::array<uint8_t, 6> mac{};
    if (text == nullptr) return mac;
    size_t length = strlen(text);
    for (size_t i = 0, n = 0; i < length && n < mac.size(); i += 2, ++n) {
        char pair[3] = {text[i], i + 1 < length ? text[i + 1] : '\0', '\0'};
        mac[n] = static_cast<uint8_t>(strtol(pair, nullptr, 16));
    }
    return mac;
}

}  // namespace

std::mutex NetlinkUtils::request_mutex_;

void AppendPacket(std::vector<std::unique_ptr<const NL80211Packet>>* responses,
                  std::unique_ptr<const NL80211Packet> packet) {
    responses->push_back(std::move(packet));
}

NetlinkUtils* NetlinkUtils::instance() {
    static NetlinkUtils* const utils = new NetlinkUtils();
    return utils;
}

NetlinkUtils::NetlinkUtils() = default;

bool NetlinkUtils::Start() {
    android::base::unique_fd fd;
    if (!SetupSocket(&fd)) {
        LOG(ERROR) << "Failed to setup synchronous netlink socket";
        return false;
    }
    AdoptSocket(std::move(fd));
    return DiscoverFamilyId();
}

bool NetlinkUtils::SetupSocket(android::base::unique_fd* fd) {
    fd->reset(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC));
    if (fd->get() < 0) {
        ALOGE("Failed to create netlink socket");
        return false;
    }
    int buffer_size = kReceiveBufferRequest;
    if (setsockopt(fd->get(), SOL_SOCKET, SO_RCVBUFFORCE, &buffer_size, sizeof(buffer_size)) <
        0) {
        ALOGE("Failed to set uevent socket SO_RCVBUFFORCE option");
        return false;
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = 0;
    address.nl_groups = 0;
    if (bind(fd->get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        ALOGE("Failed to bind netlink socket");
        return false;
    }
    return true;
}

bool NetlinkUtils::DiscoverFamilyId() {
    NL80211Packet get_family(kGenlIdCtrl, kCtrlCmdGetFamily, GetNextSequenceNumber(),
                             static_cast<uint32_t>(getpid()));
    get_family.AddAttribute(NL80211Attr<std::string>(kCtrlAttrFamilyName, kNl80211FamilyName));
    std::unique_ptr<const NL80211Packet> response;
    if (!SendMessageAndGetSingleResponse(get_family, &response)) {
        LOG(ERROR) << "Failed to get NL80211 family info";
        return false;
    }
    OnNewFamily(std::move(response));
    std::lock_guard<std::mutex> lock(state_mutex_);
    if (message_types_.find(kNl80211FamilyName) == message_types_.end()) {
        LOG(ERROR) << "Failed to get NL80211 family id";
        return false;
    }
    return true;
}

void NetlinkUtils::OnNewFamily(std::unique_ptr<const NL80211Packet> packet) {
    if (packet == nullptr) return;
    if (packet->GetMessageType() != kGenlIdCtrl) {
        LOG(ERROR) << "Wrong message type for new family message";
        return;
    }
    if (packet->GetCommand() != kCtrlCmdNewFamily) {
        LOG(ERROR) << "Wrong command for new family message";
        return;
    }
    NL80211Attr<uint16_t> family_id{std::vector<uint8_t>()};
    if (!packet->GetAttribute(kCtrlAttrFamilyId, &family_id)) {
        LOG(ERROR) << "Failed to get family id";
        return;
    }
    std::string family_name;
    if (!packet->GetAttributeValue(kCtrlAttrFamilyName, &family_name)) {
        LOG(ERROR) << "Failed to get family name";
        return;
    }
    if (family_name != kNl80211FamilyName) {
        LOG(ERROR) << "Ignoring none nl80211 netlink families";
        return;
    }

    MessageType message_type(family_id.GetValue());
    NL80211NestedAttr groups_attribute(0);
    std::vector<NL80211NestedAttr> groups;
    if (packet->GetAttribute(kCtrlAttrMcastGroups, &groups_attribute) &&
        groups_attribute.GetListOfNestedAttributes(&groups)) {
        for (const NL80211NestedAttr& group : groups) {
            std::string group_name;
            if (!group.GetAttributeValue(kCtrlAttrMcastGrpName, &group_name)) {
                LOG(ERROR) << "Failed to get group name";
                break;
            }
            NL80211Attr<uint32_t> group_id{std::vector<uint8_t>()};
            if (!group.GetAttribute(kCtrlAttrMcastGrpId, &group_id)) {
                LOG(ERROR) << "Failed to get group id";
                break;
            }
            message_type.groups[group_name] = group_id.GetValue();
        }
    }
    std::lock_guard<std::mutex> lock(state_mutex_);
    message_types_[kNl80211FamilyName] = std::move(message_type);
}

uint16_t NetlinkUtils::GetFamilyId() {
    std::lock_guard<std::mutex> lock(state_mutex_);
    return message_types_[kNl80211FamilyName].family_id;
}

std::map<std::string, uint32_t> NetlinkUtils::GetMulticastGroups() {
    std::lock_guard<std::mutex> lock(state_mutex_);
    auto it = message_types_.find(kNl80211FamilyName);
    return it == message_types_.end() ? std::map<std::string, uint32_t>() : it->second.groups;
}

bool NetlinkUtils::SendMessageAndGetResponses(
        const NL80211Packet& request,
        std::vector<std::unique_ptr<const NL80211Packet>>* responses) {
    // Held from the send to the end of the wait: a second caller's request
    // can neither steal this one's replies nor share the receive buffer.
    std::lock_guard<std::mutex> lock(request_mutex_);
    const int fd = netlink_fd_.get();
    if (!SendMessageInternal(request, fd)) return false;

    const uint32_t sequence = request.GetMessageSequence();
    message_handlers_[sequence] = [responses](std::unique_ptr<const NL80211Packet> packet) {
        AppendPacket(responses, std::move(packet));
    };

    // The budget runs from an absolute deadline, so that a stream of messages
    // each shorter than a millisecond still uses it up.
    const nsecs_t deadline = systemTime(SYSTEM_TIME_MONOTONIC) + kReplyBudgetMs * kNanosPerMilli;
    int remaining_ms = kReplyBudgetMs;
    while (message_handlers_.count(sequence) != 0) {
        pollfd poll_fd = {fd, POLLIN, 0};
        int ready = poll(&poll_fd, 1, remaining_ms);
        if (ready == -1 && errno != EINTR) {
            LOG(ERROR) << "Failed to poll netlink fd";
            break;
        }
        if (ready == 0) {
            LOG(ERROR) << "Failed to poll netlink fd: time out ";
            break;
        }
        if (ready > 0) {
            if ((poll_fd.revents & POLLIN) == 0) {
                // Error or hang-up without data: reading would not block and
                // the loop would spin until the deadline.
                LOG(ERROR) << "Failed to poll netlink fd";
                break;
            }
            ReceivePacketAndRunHandlerLocked(fd);
            if (message_handlers_.count(sequence) == 0) break;
        }
        nsecs_t left = deadline - systemTime(SYSTEM_TIME_MONOTONIC);
        if (left < kNanosPerMilli) {
            LOG(ERROR) << "Timeout waiting for netlink reply messages";
            break;
        }
        remaining_ms = static_cast<int>(left / kNanosPerMilli);
    }

    auto it = message_handlers_.find(sequence);
    if (it != message_handlers_.end()) {
        message_handlers_.erase(it);
        return false;
    }
    return true;
}

bool NetlinkUtils::SendMessageAndGetSingleResponse(
        const NL80211Packet& request, std::unique_ptr<const NL80211Packet>* response) {
    std::vector<std::unique_ptr<const NL80211Packet>> responses;
    if (!SendMessageAndGetResponses(request, &responses) || responses.empty()) return false;
    *response = std::move(responses.front());
    return true;
}

bool NetlinkUtils::SendMessageInternal(const NL80211Packet& packet, int fd) {
    const std::vector<uint8_t>& bytes = packet.GetConstData();
    ssize_t sent;
    do {
        sent = sendto(fd, bytes.data(), bytes.size(), 0, nullptr, 0);
    } while (sent == -1 && errno == EINTR);
    if (sent == -1) {
        LOG(ERROR) << "Failed to send netlink message";
        return false;
    }
    return true;
}

void NetlinkUtils::ReceivePacketAndRunHandler(int fd) {
    std::lock_guard<std::mutex> lock(request_mutex_);
    ReceivePacketAndRunHandlerLocked(fd);
}

void NetlinkUtils::ReceivePacketAndRunHandlerLocked(int fd) {
    ssize_t length = read(fd, g_receive_buffer, sizeof(g_receive_buffer));
    if (length == -1) {
        LOG(ERROR) << "Failed to read packet from buffer";
        return;
    }
    if (length == 0) return;
    const size_t total = static_cast<size_t>(length);
    if (total < kNetlinkHeaderLength) {
        LOG(ERROR) << "payload is broken.";
        return;
    }

    size_t offset = 0;
    for (;;) {
        uint32_t message_length;
        memcpy(&message_length, g_receive_buffer + offset, sizeof(message_length));
        // Copy no more than was read: an nlmsg_len past the end then fails
        // IsValid() as incomplete, and one below the header size as short,
        // so a valid packet always moves the walk forward.
        size_t copied = std::min<size_t>(message_length, total - offset);
        auto packet = std::make_unique<const NL80211Packet>(std::vector<uint8_t>(
                g_receive_buffer + offset, g_receive_buffer + offset + copied));
        if (!packet->IsValid()) {
            LOG(ERROR) << "Receive invalid packet";
            return;
        }
        offset += copied;

        const uint32_t sequence = packet->GetMessageSequence();
        if (sequence != 0) {
            auto it = message_handlers_.find(sequence);
            if (it == message_handlers_.end()) {
                LOG(WARNING) << "No handler for message: " << sequence;
                return;
            }
            const uint16_t type = packet->GetMessageType();
            if (type == NLMSG_DONE || type == NLMSG_NOOP) {
                message_handlers_.erase(it);
                return;
            }
            if (type == NLMSG_OVERRUN) {
                LOG(ERROR) << "Get message overrun notification";
                message_handlers_.erase(it);
                return;
            }
            const bool multi = packet->IsMulti();
            it->second(std::move(packet));
            if (!multi) message_handlers_.erase(it);
        }
        // Messages with sequence number 0 were caused by no request: skipped.

        if (offset == total) return;
        if (total - offset < kNetlinkHeaderLength) {
            LOG(ERROR) << "payload is broken.";
            return;
        }
    }
}

int NetlinkUtils::GetStationInfo(const char* bssid, const char* ifname) {
    NL80211Packet get_station(GetFamilyId(), kNl80211CmdGetStation, GetNextSequenceNumber(),
                              static_cast<uint32_t>(getpid()));
    const uint32_t ifindex = ifname != nullptr ? if_nametoindex(ifname) : 0;
    get_station.AddAttribute(NL80211Attr<uint32_t>(kNl80211AttrIfindex, ifindex));
    get_station.AddAttribute(
            NL80211Attr<std::array<uint8_t, 6>>(kNl80211AttrMac, ParseMacAddress(bssid)));

    std::unique_ptr<const NL80211Packet> response;
    if (!SendMessageAndGetSingleResponse(get_station, &response)) {
        LOG(ERROR) << "NL80211_CMD_GET_STATION failed";
        return 0;
    }
    if (response->GetCommand() != kNl80211CmdNewStation) {
        LOG(ERROR) << "Wrong command in response to a get station request: "
                   << static_cast<int>(response->GetCommand());
        return 0;
    }
    NL80211NestedAttr station_info(0);
    if (!response->GetAttribute(kNl80211AttrStaInfo, &station_info)) {
        LOG(ERROR) << "Failed to get NL80211_ATTR_STA_INFO";
        return 0;
    }
    NL80211Attr<int8_t> signal{std::vector<uint8_t>()};
    if (!station_info.GetAttribute(kNl80211StaInfoSignal, &signal)) {
        LOG(ERROR) << "Failed to get NL80211_STA_INFO_SIGNAL";
        return 0;
    }
    return static_cast<int>(signal.GetValue());
}

void NetlinkUtils::AdoptSocket(android::base::unique_fd fd) {
    std::lock_guard<std::mutex> lock(request_mutex_);
    netlink_fd_ = std::move(fd);
}

void NetlinkUtils::SetSequenceNumberForTesting(uint32_t last_used) {
    std::lock_guard<std::mutex> lock(state_mutex_);
    sequence_number_ = last_used;
}

uint32_t NetlinkUtils::GetSequenceNumberForTesting() {
    std::lock_guard<std::mutex> lock(state_mutex_);
    return sequence_number_;
}

size_t NetlinkUtils::PendingRequestCountForTesting() {
    std::lock_guard<std::mutex> lock(request_mutex_);
    return message_handlers_.size();
}

uint32_t NetlinkUtils::GetNextSequenceNumber() {
    std::lock_guard<std::mutex> lock(state_mutex_);
    sequence_number_ = sequence_number_ == UINT32_MAX ? 1 : sequence_number_ + 1;
    return sequence_number_;
}

}  // namespace wificond
}  // namespace android
