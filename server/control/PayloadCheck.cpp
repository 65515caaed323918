#include "control/PayloadCheck.h"

#include <stdlib.h>

#include <functional>

#include "config/Refusals.h"
#include "config/TextList.h"

namespace vord {

namespace {

using Check = std::function<std::string(const std::string&)>;

// The first entry of the comma-separated `text` that `check` refuses.
std::string firstRefusedEntry(const std::string& text, const Check& check) {
    for (const std::string& entry : splitCommaList(text)) {
        std::string why = check(entry);
        if (!why.empty()) return why;
    }
    return "";
}

std::string uidList(const std::string& text, size_t limit) {
    return firstRefusedEntry(text, [limit](const std::string& e) { return uidEntryRefusal(e, limit); });
}

}  // namespace

std::string payloadRefusal(int32_t id, const std::string& text) {
    std::string why;
    switch (id) {
        case 1:
            why = interfaceListRefusal(splitCommaList(text).size());
            return why.empty() ? firstRefusedEntry(text, interfaceRefusal) : why;
        case 2:
        case 5:
        case 7:
            return text == "NULL" ? "" : uidList(text, kWhitelistEntryLimit);
        case 3:
            return modeRefusal(text);
        case 4:
            why = gatewayTextRefusal(text);
            return why.empty() ? firstRefusedEntry(text, gatewayEntryRefusal) : why;
        case 6:
        case 14:
            return switchRefusal(text);
        case 8:
            return bssidRefusal(text);
        case 9:
            return uidList(text, 0);
        case 10:
            return "";
        case 11:
            return voipRefusal(text);
        case 12:
            return rttReportRefusal(text, nullptr);
        case 13:
            why = gameModeRefusal(text);
            return why.empty() && atoi(text.c_str()) != 0 ? uidList(text, 0) : why;
        default:
            return "unknown command id " + std::to_string(id);
    }
}

}  // namespace vord
