#pragma once
#include <cstdint>
#include <optional>
#include <string_view>

namespace qv {

// Reads a video bit rate such as "16M", "8000k", "1.5m" or "12000000":
// case and surrounding white space ignored, a trailing m means 10^6 and a
// trailing k 1000, the rest a positive number. The truncated product in bits
// per second, or nothing for zero, negative, unreadable or oversized values.
std::optional<int64_t> parseBitrate(std::string_view text);

} // namespace qv
