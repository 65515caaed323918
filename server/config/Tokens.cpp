#include "config/Tokens.h"

#include <arpa/inet.h>

namespace vord {

bool isDecimalUid(const std::string& s) {
    if (s.empty() || s.size() > 10) return false;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

bool isValidInterfaceName(const std::string& s) {
    if (s.empty() || s.size() > 15 || s == "." || s == "..") return false;
    // A leading "-" would read as an option to the rule tools.
    if (s[0] == '-') return false;
    // Stricter than the kernel: letters, digits and "_.-@" only, which covers every
    // name a handset uses (wlan0, rmnet_data0, ccmni1, p2p-wlan0-0, ...) and
    // nothing a tool or shell could read as syntax.
    for (char c : s) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '.' || c == '-' || c == '@';
        if (!ok) return false;
    }
    return true;
}

bool isRootUid(const std::string& s) {
    return isDecimalUid(s) && s.find_first_not_of('0') == std::string::npos;
}

bool isKernelRouteTableName(const std::string& s) {
    if (s == "local" || s == "main" || s == "default" || s == "unspec") return true;
    if (s.empty()) return false;
    // What strtoul(s, 0) would read whole: decimal and octal digits, or "0x" hex.
    size_t start = 0;
    bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    if (hex) start = 2;
    for (size_t i = start; i < s.size(); ++i) {
        char c = s[i];
        bool digit = (c >= '0' && c <= '9') ||
                     (hex && ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')));
        if (!digit) return false;
    }
    return true;
}

const char* unmanageableInterfaceReason(const std::string& name) {
    if (!isValidInterfaceName(name)) return "not a valid interface name";
    if (name.size() > kMaxManagedNameLength) {
        return "longer than 12 characters, too long for its chain vexo_fw_<name>_wrapper "
               "(28 characters at most)";
    }
    if (isKernelRouteTableName(name)) return "the name of one of the kernel's own routing tables";
    return nullptr;
}

bool isIpAddressLiteral(const std::string& s) {
    if (s.empty() || s.size() > 45) return false;
    unsigned char buf[16];
    return inet_pton(AF_INET, s.c_str(), buf) == 1 || inet_pton(AF_INET6, s.c_str(), buf) == 1;
}

bool isHexMark(const std::string& s) {
    if (s.size() < 3 || s.size() > 10 || s[0] != '0' || (s[1] != 'x' && s[1] != 'X')) return false;
    for (size_t i = 2; i < s.size(); ++i) {
        char c = s[i];
        bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
        if (!hex) return false;
    }
    return true;
}

}  // namespace vord
