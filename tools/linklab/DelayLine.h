// One direction of one link: packets wait here until their release time, in
// arrival order. A packet's release time is its arrival plus the link's delay,
// but never earlier than the packet before it, so a shortened delay does not
// reorder the link.
#pragma once

#include <stdint.h>

#include <deque>
#include <string>

namespace linklab {

class DelayLine {
  public:
    using Nanos = int64_t;  // CLOCK_MONOTONIC

    void push(Nanos now, Nanos delay, const char* data, size_t size);
    bool empty() const { return queue_.empty(); }
    size_t size() const { return queue_.size(); }
    // Release time of the oldest packet; only when not empty.
    Nanos nextRelease() const { return queue_.front().release; }
    // True and the oldest packet when its release time is <= now.
    bool popDue(Nanos now, std::string& packet);
    void clear() { queue_.clear(); }

  private:
    struct Held {
        Nanos release;
        std::string data;
    };
    std::deque<Held> queue_;
};

}  // namespace linklab
