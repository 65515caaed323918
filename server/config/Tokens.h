// What may stand in a command line.
//
// Every piece of text that comes from the control socket or the configuration file
// and ends up as an argument of a rule tool passes one of these tests first.
#pragma once

#include <stddef.h>

#include <string>

namespace vord {

// Decimal digits only, 1 to 10 of them.
bool isDecimalUid(const std::string& s);

// A Linux interface name: 1 to 15 characters out of letters, digits and "_.-@",
// not "." or "..", and not starting with "-" (it would read as an option).
bool isValidInterfaceName(const std::string& s);

// A UID of 0 (root), in any number of zeros. Steering it would move root's
// traffic, the daemon's own probes included.
bool isRootUid(const std::string& s);

// A name the rule tools read as one of the kernel's own routing tables rather
// than a table of ours: "local", "main", "default", "unspec", or a number (the
// tools take decimal, octal and "0x" hexadecimal table ids).
bool isKernelRouteTableName(const std::string& s);

// Longest interface name the daemon manages: its wrapper chain
// "vexo_fw_<name>_wrapper" must fit the packet filter's 28-character chain names.
constexpr size_t kMaxManagedNameLength = 12;

// Why an interface cannot be managed, or null when it can: a valid interface
// name of at most kMaxManagedNameLength characters that is no kernel table name
// (the name is also its routing table).
const char* unmanageableInterfaceReason(const std::string& name);

// An IPv4 or IPv6 address literal.
bool isIpAddressLiteral(const std::string& s);

// A packet mark as the registry writes it: "0x" and 1 to 8 hex digits.
bool isHexMark(const std::string& s);

}  // namespace vord
