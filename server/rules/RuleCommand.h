// Shared helpers of the rule manager: composing and running one command, the
// checks every outside token passes before it may stand in a command, and the
// interface classes that decide which chains an interface gets.
#pragma once

#include <stdarg.h>
#include <stddef.h>

#include <string>
#include <vector>

#include "registry/InterfaceInfo.h"
#include "rules/execnetd.h"

namespace rules {

constexpr const char* kIptables = "/system/bin/iptables-wrapper-1.0";
constexpr const char* kIp = "/system/bin/ip-wrapper-1.0";
constexpr const char* kIp6tables = "/system/bin/ip6tables-wrapper-1.0";

// Mask the mark chains set and save marks under, and the wider one the routing
// rule compares under.
constexpr const char* kMarkMask = "0x00E00000";
constexpr const char* kRouteMask = "0x0CE00000";

constexpr size_t kCommandSize = 512;
constexpr size_t kChainSize = 128;

// Formats one command line into a 512-byte buffer and runs it through execnetd.
// A line that would not fit is refused (error line, -1) and never run cut short.
int run(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// The same with a va_list; `outcome`, when given, receives how the command ended
// (a line refused for its length never starts).
int runv(const char* fmt, va_list ap, CommandOutcome* outcome) __attribute__((format(printf, 1, 0)));

// Composes a chain name into a 128-byte buffer; false (with an error line) when it
// would not fit.
bool chainName(char (&buf)[kChainSize], const char* func, const char* fmt, const char* name)
    __attribute__((format(printf, 3, 0)));

// Token checks. Each logs an error line naming `func` and the refused text, and
// returns false, when the token may not stand in a command.
bool checkInterfaceName(const char* func, const char* name);
bool checkRouteTable(const char* func, const char* table);
bool checkMark(const char* func, const char* mark);
bool checkUid(const char* func, const char* uid);
bool checkGateway(const char* func, const char* address);
// The UIDs of `uids` that pass checkUid, in order; the number refused is added
// to *refused.
std::vector<std::string> validUids(const char* func, const std::vector<std::string>& uids,
                                   int* refused);

// A cellular interface: name beginning "rmnet_data", "ccmni" or "wwan".
bool isCellular(const char* name);
// Metered, secondary or cellular interfaces get a wrapper chain in front of their
// mark chain.
bool needsWrapper(const InterfaceInfo_t& info);

}  // namespace rules
