#include "scene/TextFormat.h"

#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace qv {

std::string strprintf(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string out;
    if (n > 0) {
        out.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(out.data(), out.size(), fmt, args);
        out.resize(static_cast<size_t>(n));
    }
    va_end(args);
    return out;
}

namespace {

// Shortest round-trip digits and decimal exponent of a finite non-zero value,
// from the scientific form that std::to_chars gives.
template <class T>
void shortestDigits(T value, std::string& digits, int& exponent10) {
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::scientific);
    std::string s(buf, res.ptr);
    size_t e = s.find('e');
    std::string mant = s.substr(0, e);
    exponent10 = std::stoi(s.substr(e + 1));
    digits.clear();
    for (char c : mant)
        if (c >= '0' && c <= '9') digits += c;
}

// Plain notation for magnitudes in [1e-4, 2^mantissaBits), exponent notation
// outside, like the usual description of a float in the viewer's log.
template <class T>
std::string formatShortest(T value, double plainLimit) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    if (value == 0) return std::signbit(value) ? "-0.0" : "0.0";
    std::string sign = value < 0 ? "-" : "";
    T mag = std::fabs(value);
    std::string digits;
    int e10 = 0;
    shortestDigits(mag, digits, e10);
    if (mag < T(1e-4) || static_cast<double>(mag) >= plainLimit) {
        std::string out = sign + digits.substr(0, 1);
        if (digits.size() > 1) out += "." + digits.substr(1);
        char expo[16];
        std::snprintf(expo, sizeof expo, "e%c%02d", e10 < 0 ? '-' : '+', std::abs(e10));
        return out + expo;
    }
    std::string intPart, fracPart;
    int pointPos = e10 + 1; // digits before the decimal point
    if (pointPos <= 0) {
        intPart = "0";
        fracPart = std::string(static_cast<size_t>(-pointPos), '0') + digits;
    } else if (static_cast<size_t>(pointPos) >= digits.size()) {
        intPart = digits + std::string(static_cast<size_t>(pointPos) - digits.size(), '0');
        fracPart = "0";
    } else {
        intPart = digits.substr(0, static_cast<size_t>(pointPos));
        fracPart = digits.substr(static_cast<size_t>(pointPos));
    }
    return sign + intPart + "." + fracPart;
}

} // namespace

std::string formatFloat(float value) { return formatShortest(value, 16777216.0); }

std::string formatDouble(double value) { return formatShortest(value, 9007199254740992.0); }

std::string formatFloatList(float3 v) {
    return "[" + formatFloat(v.x) + ", " + formatFloat(v.y) + ", " + formatFloat(v.z) + "]";
}

} // namespace qv
