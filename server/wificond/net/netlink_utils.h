// Synchronous generic netlink client for nl80211.
//
// One NETLINK_GENERIC socket; the nl80211 family id is learnt from the generic
// netlink controller at Start(). Requests carry a sequence number and every
// reply is matched to its request by that number. The one query offered is
// the signal strength of the access point a Wi-Fi interface is associated
// with (GetStationInfo).
//
// Threads: the RSSI and dual Wi-Fi monitors call in from their own threads.
// A request and the wait for its replies run under one process-wide lock, so
// two requests never interleave on the socket, in the handler table or in the
// shared receive buffer. The sequence counter and the family table have their
// own leaf lock, never held while taking the request lock.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "wificond/net/nl80211_packet.h"

namespace android {
namespace wificond {

// A generic netlink family as the controller describes it.
struct MessageType {
    MessageType() = default;
    explicit MessageType(uint16_t id) : family_id(id) {}

    uint16_t family_id = 0;
    // Multicast group name to group id.
    std::map<std::string, uint32_t> groups;
};

// The handler used by SendMessageAndGetResponses: moves each reply to the end
// of `responses`.
void AppendPacket(std::vector<std::unique_ptr<const NL80211Packet>>* responses,
                  std::unique_ptr<const NL80211Packet> packet);

class NetlinkUtils {
  public:
    // Time allowed for the whole reply to a request.
    static constexpr int kReplyBudgetMs = 1000;
    static constexpr size_t kReceiveBufferSize = 8192;

    // The daemon's object, created on first use and never destroyed.
    static NetlinkUtils* instance();

    // The daemon goes through instance(); tests build objects of their own so
    // that sockets, families and counters don't leak from one test to another.
    NetlinkUtils();
    NetlinkUtils(const NetlinkUtils&) = delete;
    NetlinkUtils& operator=(const NetlinkUtils&) = delete;

    // Opens the socket and learns the nl80211 family id.
    bool Start();
    // Opens and binds a NETLINK_GENERIC socket into *fd.
    bool SetupSocket(android::base::unique_fd* fd);
    // Asks the controller for the "nl80211" family and records its reply.
    bool DiscoverFamilyId();
    // Records a CTRL_CMD_NEWFAMILY reply for "nl80211" and its multicast groups.
    void OnNewFamily(std::unique_ptr<const NL80211Packet> packet);
    // The nl80211 family id, 0 before discovery (an entry with id 0 is then
    // recorded).
    uint16_t GetFamilyId();
    // Multicast groups recorded for nl80211 (empty before discovery).
    std::map<std::string, uint32_t> GetMulticastGroups();

    // Sends `request` and collects its replies until the last one (a reply
    // without NLM_F_MULTI, or NLMSG_DONE) or until the budget runs out.
    bool SendMessageAndGetResponses(const NL80211Packet& request,
                                    std::vector<std::unique_ptr<const NL80211Packet>>* responses);
    // The same, keeping only the first reply; false when there is none.
    bool SendMessageAndGetSingleResponse(const NL80211Packet& request,
                                         std::unique_ptr<const NL80211Packet>* response);
    // Writes one message to `fd`.
    bool SendMessageInternal(const NL80211Packet& packet, int fd);
    // Reads once from `fd` and hands each message to the handler of its
    // sequence number.
    void ReceivePacketAndRunHandler(int fd);

    // Signal of the station `bssid` (12 hex digits) seen on `ifname`, in dBm;
    // 0 on any failure.
    int GetStationInfo(const char* bssid, const char* ifname);

    // Replaces the socket with `fd`, which must behave like a datagram socket
    // (one message or batch of messages per read). Lets tests stand in for the
    // kernel with one end of a socketpair.
    void AdoptSocket(android::base::unique_fd fd);
    // Test hooks: the sequence counter (last number used) and the number of
    // requests still waiting for replies.
    void SetSequenceNumberForTesting(uint32_t last_used);
    uint32_t GetSequenceNumberForTesting();
    size_t PendingRequestCountForTesting();

  private:
    using Handler = std::function<void(std::unique_ptr<const NL80211Packet>)>;

    // Takes the next sequence number; never 0.
    uint32_t GetNextSequenceNumber();
    void ReceivePacketAndRunHandlerLocked(int fd);

    // Serialises requests and their waits, and with them the handler table
    // and the receive buffer. Shared by all objects since the buffer is.
    static std::mutex request_mutex_;

    // Guarded by request_mutex_.
    android::base::unique_fd netlink_fd_;
    std::map<uint32_t, Handler> message_handlers_;

    // Guarded by state_mutex_.
    std::mutex state_mutex_;
    std::map<std::string, MessageType> message_types_;
    uint32_t sequence_number_ = 0;
};

}  // namespace wificond
}  // namespace android
