// A NETLINK_ROUTE socket subscribed to the kernel's link and address
// notifications (RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR) that
// also asks, once, for every link and then every address, so that its reader
// starts from the current state. The kernel serves one dump at a time per
// socket: the address dump is requested when the link dump's end arrives.
#pragma once

#include <stddef.h>
#include <stdint.h>

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

  private:
    bool requestDump(uint16_t type, uint32_t seq);

    android::base::unique_fd m_fd;
};

}  // namespace wificond
}  // namespace android
