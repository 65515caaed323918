#include "DelayLine.h"

#include <algorithm>

namespace linklab {

void DelayLine::push(Nanos now, Nanos delay, const char* data, size_t size) {
    Nanos release = now + delay;
    if (!queue_.empty()) release = std::max(release, queue_.back().release);
    queue_.push_back(Held{release, std::string(data, size)});
}

bool DelayLine::popDue(Nanos now, std::string& packet) {
    if (queue_.empty() || queue_.front().release > now) return false;
    packet.swap(queue_.front().data);
    queue_.pop_front();
    return true;
}

}  // namespace linklab
