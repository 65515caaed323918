#include "config/Refusals.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>

#include "config/LogText.h"
#include "config/TextList.h"
#include "config/Tokens.h"

namespace vord {

namespace {

std::string quoted(const std::string& text) { return "\"" + escapeForLog(text, 64) + "\""; }

std::string tokenLength(size_t n) { return "token length error is " + std::to_string(n); }

// atoi's reading: blanks, a sign, then at least one digit.
bool startsWithNumber(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    return i < text.size() && isdigit(static_cast<unsigned char>(text[i]));
}

}  // namespace

std::string uidEntryRefusal(const std::string& entry, size_t limit) {
    if (limit != 0 && entry.size() > limit) return tokenLength(entry.size());
    if (!isDecimalUid(entry)) return "refused entry " + quoted(entry) + ": not a decimal UID";
    // Root's traffic, the daemon's own probes included, is never steered.
    if (isRootUid(entry)) return "refused entry " + quoted(entry) + ": UID 0 (root) is never steered";
    return "";
}

std::string gatewayEntryRefusal(const std::string& entry) {
    if (entry.size() > kGatewayEntryLimit) return tokenLength(entry.size());
    if (!isIpAddressLiteral(entry)) return "refused entry " + quoted(entry) + ": not an IP address";
    return "";
}

std::string gatewayTextRefusal(const std::string& text) {
    if (text.size() <= kGatewayTextLimit) return "";
    return "refused a gateway list of " + std::to_string(text.size()) + " characters (at most " +
           std::to_string(kGatewayTextLimit) + ")";
}

std::string interfaceListRefusal(size_t count) {
    if (count <= kMaxListedInterfaces) return "";
    return "refused a list of " + std::to_string(count) + " interfaces (at most " +
           std::to_string(kMaxListedInterfaces) + ")";
}

std::string interfaceRefusal(const std::string& name) {
    const char* why = unmanageableInterfaceReason(name);
    return why == nullptr ? "" : "refused interface " + quoted(name) + ": " + why;
}

std::string modeRefusal(const std::string& mode) {
    // The mode becomes a field of the parameter strings of later cellular
    // interfaces: anything but a decimal number would make them fail to parse.
    bool ok = !mode.empty() && mode.size() <= 9;
    for (char c : mode) ok = ok && c >= '0' && c <= '9';
    return ok ? "" : "refused mode " + quoted(mode) + ": not a decimal number";
}

std::string bssidRefusal(const std::string& text) {
    std::string bare;
    for (char c : text) {
        if (c != ':') bare.push_back(c);
    }
    for (const std::string& part : splitCommaList(bare)) {
        if (part.size() > 12) return tokenLength(part.size());
    }
    return "";
}

std::string switchRefusal(const std::string& text) {
    if (!startsWithNumber(text)) return "refused " + quoted(text) + ": not a number";
    const int n = atoi(text.c_str());
    return n == 0 || n == 1 ? "" : "refused " + quoted(text) + ": neither 1 (on) nor 0 (off)";
}

std::string gameModeRefusal(const std::string& text) {
    return startsWithNumber(text) ? "" : "refused " + quoted(text) + ": not a number";
}

std::string voipRefusal(const std::string& text) {
    return isDecimalUid(text) ? "" : "refused " + quoted(text) + ": not a decimal UID";
}

std::string rttReportRefusal(const std::string& text, int32_t* value) {
    const std::string why = "RTT report " + quoted(text) + " is not a 32-bit decimal number, ignored";
    if (!startsWithNumber(text)) return why;
    errno = 0;
    long long v = strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE || v < INT32_MIN || v > INT32_MAX) return why;
    if (value != nullptr) *value = static_cast<int32_t>(v);
    return "";
}

}  // namespace vord
