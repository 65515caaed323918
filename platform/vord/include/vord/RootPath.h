// Where the daemon's fixed paths live.
//
// Every fixed path the daemon touches ("/vendor/etc/sla/vord.conf",
// "/dev/socket/vord", "/proc/sla/...", "/system/bin/...") goes through
// resolvePath(). When the environment variable VORD_ROOT names a directory, the
// path is taken under it, so a whole daemon runs in a sandbox on a host; when it is
// unset (the device), the path is returned unchanged. Log lines keep showing the
// unresolved path.
#pragma once

#include <string>

namespace vord {

std::string resolvePath(const std::string& path);

// The sandbox root: $VORD_ROOT, or an empty string when unset.
std::string rootDir();

}  // namespace vord
