// Arbitrary datagrams through the rtnetlink link and address reader and the link
// state it keeps. A crash, an out-of-bounds read or an endless loop is a finding;
// so is an event for a link with an empty name, or two events in a row of the
// same kind for one link.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "monitors/LinkStateTracker.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vord::LinkStateTracker tracker;
    std::map<std::string, bool> down;
    // The input is a run of datagrams, each led by one byte giving its length.
    while (size > 0) {
        const size_t n = data[0] < size - 1 ? data[0] : size - 1;
        for (const vord::LinkStateTracker::Event& e : tracker.apply(data + 1, n)) {
            if (e.link.empty()) abort();
            auto it = down.find(e.link);
            if (it != down.end() && it->second == e.down) abort();
            if (it == down.end() && !e.down) abort();  // up only after down
            down[e.link] = e.down;
        }
        data += n + 1;
        size -= n + 1;
    }
    return 0;
}
