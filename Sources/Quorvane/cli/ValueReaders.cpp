#include "cli/ValueReaders.h"

#include "cli/CLIOptions.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace qv::cli {

namespace {

// from_chars takes no leading plus sign; strip exactly one so "+-1" stays invalid.
std::string_view withoutPlus(std::string_view s) {
    if (s.size() > 1 && s[0] == '+' && s[1] != '-' && s[1] != '+') s.remove_prefix(1);
    return s;
}

// A syntactically valid number whose magnitude lies outside the type: huge
// when the decimal exponent is positive or there is none, tiny otherwise.
bool underflows(std::string_view s) {
    size_t e = s.find_first_of("eE");
    if (e != std::string_view::npos) return e + 1 < s.size() && s[e + 1] == '-';
    size_t firstDigit = s.find_first_of("123456789");
    size_t point = s.find('.');
    return point != std::string_view::npos && firstDigit > point;
}

template <class T>
std::optional<T> readReal(std::string_view text) {
    std::string_view s = withoutPlus(text);
    if (s.empty()) return std::nullopt;
    T value = 0;
    auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value, std::chars_format::general);
    if (ptr != s.data() + s.size()) return std::nullopt;
    if (ec == std::errc::result_out_of_range) {
        bool negative = s[0] == '-';
        T magnitude = underflows(s) ? T(0) : std::numeric_limits<T>::infinity();
        return negative ? -magnitude : magnitude;
    }
    if (ec != std::errc()) return std::nullopt;
    return value;
}

} // namespace

std::optional<float> readFloat(std::string_view text) { return readReal<float>(text); }
std::optional<double> readDouble(std::string_view text) { return readReal<double>(text); }

std::optional<int64_t> readInteger(std::string_view text) {
    std::string_view s = withoutPlus(text);
    if (s.empty()) return std::nullopt;
    int64_t value = 0;
    auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value, 10);
    if (ec != std::errc() || ptr != s.data() + s.size()) return std::nullopt;
    return value;
}

std::string lowerCased(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

std::string_view trimmedSpace(std::string_view text) {
    const char* space = " \t\r\n\v\f";
    size_t b = text.find_first_not_of(space);
    if (b == std::string_view::npos) return {};
    return text.substr(b, text.find_last_not_of(space) - b + 1);
}

std::vector<std::string_view> splitAt(std::string_view text, char separator, bool keepEmpty) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while (true) {
        size_t end = text.find(separator, start);
        std::string_view piece = text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
        if (keepEmpty || !piece.empty()) pieces.push_back(piece);
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    return pieces;
}

const std::string& ArgCursor::value(const std::string& option) {
    if (done()) throw CLIError(option + " needs a value");
    return take();
}

float ArgCursor::floatValue(const std::string& option) {
    const std::string& v = value(option);
    if (auto f = readFloat(v)) return *f;
    throw CLIError(option + ": not a number: " + v);
}

double ArgCursor::doubleValue(const std::string& option) {
    const std::string& v = value(option);
    if (auto d = readDouble(v)) return *d;
    throw CLIError(option + ": not a number: " + v);
}

int64_t ArgCursor::integerValue(const std::string& option) {
    const std::string& v = value(option);
    if (auto i = readInteger(v)) return *i;
    throw CLIError(option + ": not an integer: " + v);
}

float3 ArgCursor::vectorValue(const std::string& option) {
    const std::string& v = value(option);
    std::vector<float> parts;
    for (std::string_view piece : splitAt(v, ','))
        if (auto f = readFloat(trimmedSpace(piece))) parts.push_back(*f);
    if (parts.size() != 3) throw CLIError(option + " expects x,y,z");
    return {parts[0], parts[1], parts[2]};
}

} // namespace qv::cli
