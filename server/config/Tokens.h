// What may stand in a command line.
//
// Every piece of text that comes from the control socket or the configuration file
// and ends up as an argument of a rule tool passes one of these tests first.
#pragma once

#include <string>

namespace vord {

// Decimal digits only, 1 to 10 of them.
bool isDecimalUid(const std::string& s);

// A Linux interface name: 1 to 15 characters out of letters, digits and "_.-@",
// not "." or "..", and not starting with "-" (it would read as an option).
bool isValidInterfaceName(const std::string& s);

// An IPv4 or IPv6 address literal.
bool isIpAddressLiteral(const std::string& s);

// A packet mark as the registry writes it: "0x" and 1 to 8 hex digits.
bool isHexMark(const std::string& s);

}  // namespace vord
