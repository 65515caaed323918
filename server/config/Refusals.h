// Why the daemon refuses a piece of outside text.
//
// Each function returns the reason the daemon logs when it refuses the text (the
// name of the refusing function comes before it in the log line), or an empty
// string when the text is taken. The daemon decides with these functions at each
// refusal's own site, and vordctl checks a payload with the same functions before
// it sends it, so the two always agree. Quoted text is escaped for the log.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace vord {

// Longest entry of the three UID whitelists: UIDs up to 99999.
constexpr size_t kWhitelistEntryLimit = 5;
// Longest entry of the gateway list, and the longest gateway command text.
constexpr size_t kGatewayEntryLimit = 16;
constexpr size_t kGatewayTextLimit = 63;
// Most interfaces one interface list may name. Each add re-maps every statistics
// block (with retries) while the registry is locked, and only four mark slots exist.
constexpr size_t kMaxListedInterfaces = 8;

// One entry of a UID list: at most `limit` characters (0: no limit), decimal,
// and not root's UID.
std::string uidEntryRefusal(const std::string& entry, size_t limit);
// One entry of the gateway list: at most 16 characters, an IP address literal.
std::string gatewayEntryRefusal(const std::string& entry);
// The whole text of a gateway command: at most 63 characters.
std::string gatewayTextRefusal(const std::string& text);
// An interface list of `count` names.
std::string interfaceListRefusal(size_t count);
// One interface name (see unmanageableInterfaceReason).
std::string interfaceRefusal(const std::string& name);
// The cellular interface mode: a decimal number of at most 9 digits.
std::string modeRefusal(const std::string& mode);
// The BSSID list: each entry, its colons dropped, at most 12 characters.
std::string bssidRefusal(const std::string& text);
// An on/off switch (dual Wi-Fi monitor, game-mode RTT check): a number read as
// atoi reads it, 1 or 0.
std::string switchRefusal(const std::string& text);
// Game mode: a number read as atoi reads it (0 disables).
std::string gameModeRefusal(const std::string& text);
// A voice call: the decimal UID of the call's application, or 0 when it ended.
// The text is written into the kernel module's configuration as it is.
std::string voipRefusal(const std::string& text);
// An RTT report: a decimal number (leading blanks and a sign allowed, reading
// stops at the first other character) within 32 bits; stored in `value`.
std::string rttReportRefusal(const std::string& text, int32_t* value);

}  // namespace vord
