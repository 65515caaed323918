// Refusals of control commands, for the "refused" counter.
//
// Whatever refuses a command, or a part of one, logs why at its own site with
// VORD_REFUSED (an error line) and so notes the refusal on its thread. The control
// thread counts each record that noted a refusal once as refused, and every
// other record it dispatched as served.
#pragma once

#include <string>

namespace vord {

inline bool& refusalNoted() {
    static thread_local bool noted = false;
    return noted;
}

inline void noteRefusal() { refusalNoted() = true; }

// True when a refusal was noted on this thread since the last call; clears it.
inline bool takeRefusal() {
    const bool noted = refusalNoted();
    refusalNoted() = false;
    return noted;
}

}  // namespace vord

// When `why` (a std::string) is not empty: logs "<fn> <why>" as an error line
// through the caller's LOG_TAG, notes the refusal and yields true; else false.
#define VORD_REFUSED(fn, why)                                \
    ([&]() -> bool {                                         \
        const std::string vordWhy_ = (why);                  \
        if (vordWhy_.empty()) return false;                  \
        ALOGE("%s %s", (fn), vordWhy_.c_str());              \
        ::vord::noteRefusal();                               \
        return true;                                         \
    }())
