#include "sockdiag/GamingUidSockets.h"

namespace vord {

void destroyGamingUidSockets(const std::function<std::vector<std::string>()>& uids,
                             const std::function<int(const char*)>& kill) {
    for (size_t i = 0;; ++i) {
        const std::vector<std::string> list = uids();
        if (i >= list.size()) break;
        kill(list[i].c_str());
    }
}

}  // namespace vord
