// Small system helpers shared by the lab's commands: namespaces, child
// programs, clocks, address text.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace linklab {

// Moves the calling thread into the named network namespace (/run/netns/NAME).
bool enterNetns(const std::string& ns, std::string& error);
// Opens /run/netns/NAME; -1 when it does not exist.
int openNetns(const std::string& ns);
bool netnsExists(const std::string& ns);

// Runs argv[0] (looked up in PATH) with the arguments, no shell; stdout and
// stderr joined into `output` when given. Returns the exit status, -1 when it
// could not run or died of a signal.
int runProgram(const std::vector<std::string>& argv, std::string* output = nullptr);

// Drops to `uid` (gid = uid, no supplementary groups). False with errno set.
bool dropToUid(uid_t uid);

int64_t monotonicNanos();
std::string errnoName(int err);
// "A.B.C.D:PORT" or "[IPV6]:PORT".
std::string addrText(const sockaddr_storage& a);
// The socket address of `addr` (either family) and `port`; its length, 0 when
// `addr` is no address.
socklen_t socketAddress(const std::string& addr, int port, sockaddr_storage& out);
std::string selfExe();

// Writes `value` to /proc/sys/<key> of the calling thread's network namespace.
bool writeSysctl(const std::string& key, const std::string& value);

}  // namespace linklab
