#include "image/Bitrate.h"

#include <charconv>
#include <cmath>
#include <string>

namespace qv {

std::optional<int64_t> parseBitrate(std::string_view text) {
    const char* space = " \t\r\n";
    size_t b = text.find_first_not_of(space);
    if (b == std::string_view::npos) return std::nullopt;
    std::string s(text.substr(b, text.find_last_not_of(space) - b + 1));
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');

    double multiplier = 1;
    if (s.back() == 'm') multiplier = 1e6;
    else if (s.back() == 'k') multiplier = 1e3;
    if (multiplier != 1) s.pop_back();
    if (!s.empty() && s[0] == '+') s.erase(0, 1);
    if (s.empty()) return std::nullopt;

    double value = 0;
    auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value, std::chars_format::general);
    if (ec != std::errc() || ptr != s.data() + s.size() || !std::isfinite(value) || value <= 0)
        return std::nullopt;
    double bits = std::trunc(value * multiplier);
    // 2^63 is the first double outside int64.
    if (!(bits >= 1) || bits >= 9223372036854775808.0) return std::nullopt;
    return static_cast<int64_t>(bits);
}

} // namespace qv
