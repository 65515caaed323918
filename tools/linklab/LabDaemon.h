// The lab's background process: the relay of every link, the peer servers and
// the control socket, in one single-threaded epoll loop, until SIGTERM.
#pragma once

#include <string>
#include <vector>

#include "LabConfig.h"

namespace linklab {

// Sets everything up, writes one byte to `readyFd` (and closes it) once the
// TUN devices and servers exist, then serves until SIGTERM. Returns the exit
// status. On a set-up failure it prints the reason and returns 1 without
// writing to `readyFd`.
int runLabDaemon(const std::string& lab, const std::vector<LinkConfig>& links,
                 const std::string& defaultLink, int readyFd);

// Sends one control line ("cut wlan0", "restore wlan0", "delay wlan0 50",
// "status") to a lab's relay; its reply goes to `reply`. False when the relay
// cannot be reached or refuses the request.
bool controlRequest(const std::string& lab, const std::string& line, std::string& reply);

}  // namespace linklab
