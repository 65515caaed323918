#include "monitors/LinkStateTracker.h"

#include <net/if.h>
#include <sys/socket.h>

#include "wificond/net/rtnetlink_messages.h"

namespace vord {

namespace {

// The kernel's IFF_LOWER_UP (linux/if.h, which does not mix with net/if.h): the
// link has its carrier.
constexpr uint32_t kLowerUp = 1u << 16;

}  // namespace

using android::wificond::RtnlAddress;
using android::wificond::RtnlLink;

void LinkStateTracker::report(const std::string& name, bool down, LinkFailCause cause,
                              std::vector<Event>& events) {
    if (name.empty()) return;
    const bool wasDown = m_downNames.count(name) != 0;
    if (down == wasDown) return;
    if (down) {
        m_downNames[name] = cause;
    } else {
        m_downNames.erase(name);
    }
    events.push_back({name, down, down ? cause : LinkFailCause::None});
}

void LinkStateTracker::evaluate(const Link& link, std::vector<Event>& events) {
    if (!link.known) return;
    LinkFailCause cause = LinkFailCause::None;
    // The carrier is lost at once (IFF_LOWER_UP), but a link reported down is
    // back only once the kernel runs it again (IFF_RUNNING, set by its
    // link-watch work, which also gives the link its queue back): a probe sent
    // before that would be dropped.
    const bool waitingToRun = !(link.flags & IFF_RUNNING) && m_downNames.count(link.name) != 0;
    if (!(link.flags & IFF_UP)) {
        cause = LinkFailCause::AdminDown;
    } else if (!(link.flags & kLowerUp) || waitingToRun) {
        cause = LinkFailCause::Carrier;
    } else if (link.hadIpv4 && link.ipv4.empty()) {
        cause = LinkFailCause::AddressLost;
    }
    report(link.name, cause != LinkFailCause::None, cause, events);
}

std::vector<LinkStateTracker::Event> LinkStateTracker::apply(const uint8_t* data, size_t size) {
    std::vector<Event> events;
    auto onLink = [&](const RtnlLink& m) {
        if (m.deleted) {
            auto it = m_links.find(m.index);
            const std::string name = !m.name.empty() ? m.name : it != m_links.end() ? it->second.name : "";
            report(name, true, LinkFailCause::Removed, events);
            if (it != m_links.end()) m_links.erase(it);
            return;
        }
        Link& link = m_links[m.index];
        if (!m.name.empty() && m.name != link.name) {
            // Renamed: the old name is gone.
            if (link.known) report(link.name, true, LinkFailCause::Removed, events);
            link.name = m.name;
        }
        link.flags = m.flags;
        link.known = true;
        evaluate(link, events);
    };
    auto onAddress = [&](const RtnlAddress& m) {
        if (m.family != AF_INET) return;
        Link& link = m_links[m.index];
        if (m.deleted) {
            link.ipv4.erase(m.address);
        } else {
            link.ipv4.insert(m.address);
            link.hadIpv4 = true;
        }
        evaluate(link, events);
    };
    android::wificond::parseRtnetlink(data, size, onLink, onAddress);
    return events;
}

}  // namespace vord
