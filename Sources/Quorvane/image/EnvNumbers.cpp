#include "image/EnvNumbers.h"

#include <cmath>
#include <cstdlib>
#include <string>

namespace qv {

namespace {

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

} // namespace

std::optional<std::vector<float>> parseNumberList(std::string_view text) {
    std::vector<float> values;
    for (;;) {
        size_t comma = text.find(',');
        std::string item(trimmed(text.substr(0, comma)));
        if (item.empty()) return std::nullopt;
        char* end = nullptr;
        float v = std::strtof(item.c_str(), &end);
        if (end != item.c_str() + item.size() || !std::isfinite(v)) return std::nullopt;
        values.push_back(v);
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    return values;
}

std::optional<std::vector<float>> environmentNumbers(const char* name) {
    const char* value = std::getenv(name);
    if (!value) return std::nullopt;
    return parseNumberList(value);
}

} // namespace qv
