#include "config/LogText.h"

#include <stdio.h>

namespace vord {

std::string escapeForLog(const std::string& text, size_t max) {
    std::string out;
    const size_t n = text.size() < max ? text.size() : max;
    out.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\\') {
            out += "\\\\";
        } else if (c >= 0x20 && c < 0x7f) {
            out.push_back(static_cast<char>(c));
        } else {
            char hex[5];
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        }
    }
    if (n < text.size()) out += "...";
    return out;
}

}  // namespace vord
