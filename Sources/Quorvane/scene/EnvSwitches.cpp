#include "scene/EnvSwitches.h"

#include <charconv>
#include <cmath>
#include <cstdlib>

namespace qv {

namespace {

std::string_view trimmed(std::string_view s) {
    const char* space = " \t\r\n";
    size_t b = s.find_first_not_of(space);
    if (b == std::string_view::npos) return {};
    size_t e = s.find_last_not_of(space);
    return s.substr(b, e - b + 1);
}

// from_chars does not take a leading plus sign; a second sign is still refused.
std::string_view withoutPlus(std::string_view s) {
    if (s.size() > 1 && s[0] == '+' && s[1] != '-' && s[1] != '+') s.remove_prefix(1);
    return s;
}

std::optional<double> finiteNumber(std::string_view text) {
    std::string_view s = withoutPlus(trimmed(text));
    if (s.empty()) return std::nullopt;
    double v = 0;
    auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), v, std::chars_format::general);
    if (ec != std::errc() || ptr != s.data() + s.size() || !std::isfinite(v)) return std::nullopt;
    return v;
}

std::optional<int64_t> wholeInteger(std::string_view text) {
    std::string_view s = withoutPlus(trimmed(text));
    if (s.empty()) return std::nullopt;
    int64_t v = 0;
    auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), v, 10);
    if (ec != std::errc() || ptr != s.data() + s.size()) return std::nullopt;
    return v;
}

} // namespace

EnvSwitches::EnvSwitches(Lookup lookup) : lookup_(std::move(lookup)), cache_(std::make_shared<Cache>()) {}

EnvSwitches EnvSwitches::fromMap(std::map<std::string, std::string> values) {
    return EnvSwitches([values = std::move(values)](const std::string& name) -> std::optional<std::string> {
        auto it = values.find(name);
        if (it == values.end()) return std::nullopt;
        return it->second;
    });
}

const EnvSwitches& EnvSwitches::process() {
    static const EnvSwitches switches([](const std::string& name) -> std::optional<std::string> {
        const char* value = std::getenv(name.c_str());
        if (!value) return std::nullopt;
        return std::string(value);
    });
    return switches;
}

std::optional<std::string> EnvSwitches::text(std::string_view name) const {
    std::lock_guard<std::mutex> lock(cache_->mutex);
    auto it = cache_->values.find(name);
    if (it == cache_->values.end()) {
        std::string key(name);
        it = cache_->values.emplace(key, lookup_ ? lookup_(key) : std::nullopt).first;
    }
    return it->second;
}

bool EnvSwitches::isOn(std::string_view name) const {
    auto value = text(name);
    return value && *value == "1";
}

std::optional<double> EnvSwitches::number(std::string_view name) const {
    auto value = text(name);
    if (!value) return std::nullopt;
    return finiteNumber(*value);
}

double EnvSwitches::number(std::string_view name, double fallback) const {
    return number(name).value_or(fallback);
}

std::optional<int64_t> EnvSwitches::integer(std::string_view name) const {
    auto value = text(name);
    if (!value) return std::nullopt;
    return wholeInteger(*value);
}

int64_t EnvSwitches::integer(std::string_view name, int64_t fallback) const {
    return integer(name).value_or(fallback);
}

std::optional<std::vector<double>> EnvSwitches::parseNumberList(std::string_view rest) {
    std::vector<double> out;
    while (true) {
        size_t comma = rest.find(',');
        auto v = finiteNumber(rest.substr(0, comma));
        if (!v) return std::nullopt;
        out.push_back(*v);
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
    }
    return out;
}

std::optional<std::vector<double>> EnvSwitches::numbers(std::string_view name, std::size_t count) const {
    auto value = text(name);
    if (!value) return std::nullopt;
    auto out = parseNumberList(*value);
    if (!out || out->size() != count) return std::nullopt;
    return out;
}

std::optional<std::pair<double, double>> EnvSwitches::pair(std::string_view name) const {
    auto values = numbers(name, 2);
    if (!values) return std::nullopt;
    return std::pair<double, double>{(*values)[0], (*values)[1]};
}

std::pair<double, double> EnvSwitches::pair(std::string_view name, std::pair<double, double> fallback) const {
    return pair(name).value_or(fallback);
}

} // namespace qv
