// The comma-separated lists of the control commands and the configuration.
#pragma once

#include <string>
#include <vector>

namespace vord {

// Splits at ",": entries are untrimmed, two adjacent commas give an empty entry,
// a comma at the very end adds none, and an empty text gives no entry.
std::vector<std::string> splitCommaList(const std::string& text);

}  // namespace vord
