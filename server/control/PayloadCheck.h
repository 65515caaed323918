// The daemon's verdict on a command's payload, for a client that wants it before
// it sends the command (the channel has no reply).
#pragma once

#include <stdint.h>

#include <string>

namespace vord {

// The first reason the daemon would log for refusing the payload `text` of
// command `id`, in whole or in part (an entry of a list); empty when it takes the
// payload whole. The daemon's handlers decide with the same functions.
std::string payloadRefusal(int32_t id, const std::string& text);

}  // namespace vord
