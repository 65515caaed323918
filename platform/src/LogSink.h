// Internal: the in-process destination of log lines while a LogCapture exists.
#pragma once

namespace vord {
namespace detail {

// Hands a finished line to the active capture. Returns false (and touches no
// lock) when no capture is active, so the caller writes the line to stderr.
bool deliverToSink(const char* line);

}  // namespace detail
}  // namespace vord
