// What the kernel's link and address messages mean for the daemon: each link is
// usable, or down for a cause (in this order of precedence): removed,
// administratively down, without carrier, or without the IPv4 address it had.
// A link's first message (the start-up dump included) reports it when it is
// down; after that only changes between usable and down are reported, one event
// each, so that repeated notifications and a change of cause while down say
// nothing new. A link that never had an IPv4 address is not down for lack of one.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "sls/InterfaceRtt.h"

namespace vord {

class LinkStateTracker {
  public:
    struct Event {
        std::string link;
        bool down = false;
        LinkFailCause cause = LinkFailCause::None;  // when down
    };

    // Applies one received datagram; the events it causes, in order.
    std::vector<Event> apply(const uint8_t* data, size_t size);

  private:
    struct Link {
        std::string name;
        uint32_t flags = 0;
        bool known = false;  // a link message has been seen
        bool hadIpv4 = false;
        std::set<std::string> ipv4;
    };
    void evaluate(const Link& link, std::vector<Event>& events);
    void report(const std::string& name, bool down, LinkFailCause cause, std::vector<Event>& events);

    std::map<int, Link> m_links;                      // by interface index
    std::map<std::string, LinkFailCause> m_downNames;  // links reported down
};

}  // namespace vord
