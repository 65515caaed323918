// A NETLINK_ROUTE socket subscribed to the kernel's link and address
// notifications (RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR) that
// also asks, once, for every link and then every address, so that its reader
// starts from the current state. The kernel serves one dump at a time per
// socket: the address dump is requested when the link dump's end arrives.
//
// The kernel sends carrier changes through its link-watch work, which runs at
// most once a second for the whole system, so a lost carrier can be reported up
// to a second late; an explicit request (requestLink) reads the carrier as it
// is now, which lets a reader poll the links that matter, as a bonding driver
// polls its slaves.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include <android-base/unique_fd.h>

namespace android {
namespace wificond {

class RtnetlinkSocket {
  public:
    // Opens, binds to the groups and requests the link dump. False (with errno)
    // when the socket cannot be opened, bound or written to.
    bool open();
    // One datagram of messages into `buffer`, waiting up to `timeoutMs`: its
    // length, 0 when nothing came, or a negative errno. ENOBUFS (the kernel
    // dropped notifications) is answered with a fresh dump and reported as 0.
    int receive(uint8_t* buffer, size_t size, int timeoutMs);
    // Asks for one link's state (RTM_GETLINK by name); the answer, an RTM_NEWLINK
    // whose flags the kernel computes at that moment, comes through receive().
    bool requestLink(const std::string& name);

  private:
    bool requestDump(uint16_t type, uint32_t seq);

    android::base::unique_fd m_fd;
};

}  // namespace wificond
}  // namespace android
