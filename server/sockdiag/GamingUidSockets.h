// The shutdown step that destroys the sockets of each gaming UID.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vord {

// For each entry of the list `uids` returns, in list order, kill(entry). The list
// is fetched afresh for each step, so an entry removed meanwhile is not visited
// twice and an empty list does nothing.
void destroyGamingUidSockets(const std::function<std::vector<std::string>()>& uids,
                             const std::function<int(const char*)>& kill);

}  // namespace vord
