#include "scene/Json5.h"

#include "scene/TextFormat.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

namespace qv {

Json5Error::Json5Error(std::string detail, size_t line, size_t column)
    : std::runtime_error(detail + " at line " + std::to_string(line) + ", column " + std::to_string(column)),
      detail_(std::move(detail)), line_(line), column_(column) {}

namespace {

constexpr char32_t kEnd = 0xFFFFFFFF; // past the last character
constexpr char32_t kReplacement = 0xFFFD;

bool isLineTerminator(char32_t c) { return c == '\n' || c == '\r' || c == 0x2028 || c == 0x2029; }

// JSON5 white space: the ECMAScript WhiteSpace set (TAB, VT, FF, SP, NBSP,
// BOM and the Unicode space separators) plus the line terminators.
bool isWhiteSpace(char32_t c) {
    switch (c) {
    case '\t': case '\v': case '\f': case ' ': case 0xA0: case 0xFEFF: case 0x1680:
    case 0x202F: case 0x205F: case 0x3000:
        return true;
    default:
        return (c >= 0x2000 && c <= 0x200A) || isLineTerminator(c);
    }
}

bool isDigit(char32_t c) { return c >= '0' && c <= '9'; }

bool isHexDigit(char32_t c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

int hexValue(char32_t c) {
    if (isDigit(c)) return static_cast<int>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<int>(c - 'a' + 10);
    return static_cast<int>(c - 'A' + 10);
}

// Non-ASCII code points that cannot be part of an identifier: white space,
// punctuation, symbols, private use, specials and emoji blocks.
bool isNonIdentifierBlock(char32_t c) {
    if (c < 0xC0) return !(c == 0xAA || c == 0xB5 || c == 0xBA);
    if (c == 0xD7 || c == 0xF7) return true;
    if (isWhiteSpace(c)) return true;
    if (c >= 0x2010 && c <= 0x2064) return true;  // general punctuation (ZWNJ/ZWJ are below it)
    if (c >= 0x20A0 && c <= 0x20CF) return true;  // currency
    if (c >= 0x2190 && c <= 0x2BFF) return true;  // arrows, operators, technical, boxes, shapes, dingbats
    if (c >= 0x2E00 && c <= 0x2E7F) return true;  // supplemental punctuation
    if (c >= 0x3000 && c <= 0x3004) return true;  // CJK punctuation
    if (c >= 0xE000 && c <= 0xF8FF) return true;  // private use
    if (c >= 0xFE10 && c <= 0xFE1F) return true;  // vertical forms
    if (c >= 0xFE30 && c <= 0xFE4F) return true;  // compatibility forms
    if (c >= 0xFFF0 && c <= 0xFFFF) return true;  // specials
    if (c >= 0x1F000 && c <= 0x1FAFF) return true; // emoji and pictographs
    if (c >= 0xF0000) return true;                 // supplementary private use
    return false;
}

bool isIdentifierStart(char32_t c) {
    if (c < 0x80) return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '$' || c == '_';
    if (c == 0x200C || c == 0x200D) return false;
    return !isNonIdentifierBlock(c);
}

bool isIdentifierPart(char32_t c) {
    return isIdentifierStart(c) || isDigit(c) || c == 0x200C || c == 0x200D;
}

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

std::string describeChar(char32_t c) {
    if (c == kEnd) return "end of input";
    if (c >= 0x21 && c < 0x7F) return std::string("character '") + static_cast<char>(c) + "'";
    return strprintf("character U+%04X", static_cast<unsigned>(c));
}

class Parser {
public:
    Parser(std::string_view text, const Json5Options& options) : text_(text), options_(options) {}

    nlohmann::json parseDocument() {
        skipSpace();
        nlohmann::json value = parseValue(0);
        skipSpace();
        if (peek() != kEnd) fail("unexpected " + describeChar(peek()) + " after the value");
        return value;
    }

private:
    std::string_view text_;
    const Json5Options& options_;
    size_t pos_ = 0;
    size_t line_ = 1;
    size_t column_ = 1;
    // The decoded character at pos_ and its byte length (cached).
    char32_t current_ = 0;
    size_t currentLength_ = 0;
    size_t cachedAt_ = std::numeric_limits<size_t>::max();

    [[noreturn]] void fail(const std::string& detail) const { throw Json5Error(detail, line_, column_); }
    [[noreturn]] void failAt(const std::string& detail, size_t line, size_t column) const {
        throw Json5Error(detail, line, column);
    }

    // Decodes the UTF-8 character at pos_, rejecting overlong forms, encoded
    // surrogates, values above U+10FFFF and truncated sequences.
    char32_t peek() {
        if (cachedAt_ == pos_) return current_;
        if (pos_ >= text_.size()) return kEnd;
        auto byte = [&](size_t i) { return static_cast<unsigned char>(text_[pos_ + i]); };
        unsigned char b0 = byte(0);
        size_t length = 0;
        char32_t c = 0;
        char32_t minimum = 0;
        if (b0 < 0x80) {
            length = 1;
            c = b0;
        } else if (b0 >= 0xC2 && b0 <= 0xDF) {
            length = 2;
            c = b0 & 0x1F;
            minimum = 0x80;
        } else if (b0 >= 0xE0 && b0 <= 0xEF) {
            length = 3;
            c = b0 & 0x0F;
            minimum = 0x800;
        } else if (b0 >= 0xF0 && b0 <= 0xF4) {
            length = 4;
            c = b0 & 0x07;
            minimum = 0x10000;
        } else {
            fail(strprintf("invalid UTF-8 byte 0x%02X", b0));
        }
        if (pos_ + length > text_.size()) fail(strprintf("truncated UTF-8 sequence starting with byte 0x%02X", b0));
        for (size_t i = 1; i < length; ++i) {
            unsigned char b = byte(i);
            if ((b & 0xC0) != 0x80) fail(strprintf("invalid UTF-8 sequence starting with byte 0x%02X", b0));
            c = (c << 6) | (b & 0x3F);
        }
        if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
            fail(strprintf("invalid UTF-8 sequence starting with byte 0x%02X", b0));
        current_ = c;
        currentLength_ = length;
        cachedAt_ = pos_;
        return c;
    }

    void advance() {
        char32_t c = peek();
        if (c == kEnd) return;
        pos_ += currentLength_;
        if (c == '\r' && pos_ < text_.size() && text_[pos_] == '\n') {
            ++pos_; // CR LF is one line break
            ++line_;
            column_ = 1;
        } else if (isLineTerminator(c)) {
            ++line_;
            column_ = 1;
        } else {
            ++column_;
        }
    }

    bool consume(char32_t c) {
        if (peek() != c) return false;
        advance();
        return true;
    }

    void skipSpace() {
        for (;;) {
            char32_t c = peek();
            if (isWhiteSpace(c)) {
                advance();
            } else if (c == '/') {
                size_t line = line_, column = column_;
                advance();
                if (consume('/')) {
                    while (peek() != kEnd && !isLineTerminator(peek())) advance();
                } else if (consume('*')) {
                    for (;;) {
                        char32_t d = peek();
                        if (d == kEnd) failAt("unterminated comment", line, column);
                        advance();
                        if (d == '*' && consume('/')) break;
                    }
                } else {
                    failAt("unexpected character '/'", line, column);
                }
            } else {
                return;
            }
        }
    }

    nlohmann::json parseValue(size_t depth) {
        char32_t c = peek();
        if (c == '{') return parseObject(depth + 1);
        if (c == '[') return parseArray(depth + 1);
        if (c == '"' || c == '\'') return parseString();
        if (isDigit(c) || c == '-' || c == '+' || c == '.' || c == 'I' || c == 'N') return parseNumber();
        if (isIdentifierStart(c) || c == '\\') {
            size_t line = line_, column = column_;
            std::string word = parseIdentifier();
            if (word == "null") return nullptr;
            if (word == "true") return true;
            if (word == "false") return false;
            failAt("unexpected identifier '" + word + "' where a value was expected", line, column);
        }
        if (c == kEnd) fail("unexpected end of input where a value was expected");
        fail("unexpected " + describeChar(c) + " where a value was expected");
    }

    void enter(size_t depth) const {
        if (depth > options_.maxDepth)
            fail("arrays and objects nested deeper than " + std::to_string(options_.maxDepth) + " levels");
    }

    nlohmann::json parseObject(size_t depth) {
        enter(depth);
        advance(); // {
        nlohmann::json object = nlohmann::json::object();
        skipSpace();
        while (!consume('}')) {
            std::string key;
            char32_t c = peek();
            if (c == '"' || c == '\'') {
                key = parseString().get<std::string>();
            } else if (isIdentifierStart(c) || c == '\\') {
                key = parseIdentifier();
            } else if (c == kEnd) {
                fail("unexpected end of input in an object");
            } else {
                fail("unexpected " + describeChar(c) + " where a key or '}' was expected");
            }
            skipSpace();
            if (!consume(':')) fail("expected ':' after the key, found " + describeChar(peek()));
            skipSpace();
            object[key] = parseValue(depth);
            skipSpace();
            if (consume(',')) {
                skipSpace();
                continue;
            }
            if (peek() != '}') {
                if (peek() == kEnd) fail("unexpected end of input in an object");
                fail("expected ',' or '}' after an object member, found " + describeChar(peek()));
            }
        }
        return object;
    }

    nlohmann::json parseArray(size_t depth) {
        enter(depth);
        advance(); // [
        nlohmann::json array = nlohmann::json::array();
        skipSpace();
        while (!consume(']')) {
            if (peek() == kEnd) fail("unexpected end of input in an array");
            array.push_back(parseValue(depth));
            skipSpace();
            if (consume(',')) {
                skipSpace();
                continue;
            }
            if (peek() != ']') {
                if (peek() == kEnd) fail("unexpected end of input in an array");
                fail("expected ',' or ']' after an array element, found " + describeChar(peek()));
            }
        }
        return array;
    }

    // Four hex digits of a \u escape; pos_ is just after the 'u'.
    char32_t readHex4() {
        char32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            char32_t c = peek();
            if (!isHexDigit(c)) fail("expected a hexadecimal digit in a \\u escape, found " + describeChar(c));
            value = value * 16 + static_cast<char32_t>(hexValue(c));
            advance();
        }
        return value;
    }

    // A \u escape (after "\u"), combining a surrogate pair written as two escapes.
    char32_t readUnicodeEscape() {
        char32_t unit = readHex4();
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            // Look ahead for "\uDC00".."\uDFFF" without consuming anything else.
            if (pos_ + 6 <= text_.size() && text_[pos_] == '\\' && text_[pos_ + 1] == 'u') {
                char32_t low = 0;
                bool ok = true;
                for (size_t i = 2; i < 6; ++i) {
                    char32_t h = static_cast<unsigned char>(text_[pos_ + i]);
                    if (!isHexDigit(h)) {
                        ok = false;
                        break;
                    }
                    low = low * 16 + static_cast<char32_t>(hexValue(h));
                }
                if (ok && low >= 0xDC00 && low <= 0xDFFF) {
                    for (int i = 0; i < 6; ++i) advance();
                    return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                }
            }
            return kReplacement;
        }
        if (unit >= 0xDC00 && unit <= 0xDFFF) return kReplacement;
        return unit;
    }

    nlohmann::json parseString() {
        size_t startLine = line_, startColumn = column_;
        char32_t quote = peek();
        advance();
        std::string out;
        for (;;) {
            char32_t c = peek();
            if (c == kEnd) failAt("unterminated string", startLine, startColumn);
            if (c == quote) {
                advance();
                return out;
            }
            if (c == '\n' || c == '\r') fail("line break inside a string (escape it with a backslash)");
            if (c != '\\') {
                appendUtf8(out, c);
                advance();
                continue;
            }
            size_t escLine = line_, escColumn = column_;
            advance(); // backslash
            char32_t e = peek();
            switch (e) {
            case kEnd: failAt("unterminated string", startLine, startColumn);
            case 'b': out += '\b'; advance(); break;
            case 'f': out += '\f'; advance(); break;
            case 'n': out += '\n'; advance(); break;
            case 'r': out += '\r'; advance(); break;
            case 't': out += '\t'; advance(); break;
            case 'v': out += '\v'; advance(); break;
            case '0':
                advance();
                if (isDigit(peek())) failAt("invalid escape '\\0' followed by a digit", escLine, escColumn);
                out += '\0';
                break;
            case 'x': {
                advance();
                char32_t value = 0;
                for (int i = 0; i < 2; ++i) {
                    char32_t h = peek();
                    if (!isHexDigit(h)) fail("expected a hexadecimal digit in a \\x escape, found " + describeChar(h));
                    value = value * 16 + static_cast<char32_t>(hexValue(h));
                    advance();
                }
                appendUtf8(out, value);
                break;
            }
            case 'u':
                advance();
                appendUtf8(out, readUnicodeEscape());
                break;
            default:
                if (isLineTerminator(e)) {
                    advance(); // a line continuation contributes nothing
                } else if (isDigit(e)) {
                    failAt(strprintf("invalid escape '\\%c'", static_cast<char>(e)), escLine, escColumn);
                } else {
                    appendUtf8(out, e); // any other escaped character stands for itself
                    advance();
                }
            }
        }
    }

    // An ECMAScript IdentifierName, \u escapes included.
    std::string parseIdentifier() {
        std::string out;
        bool first = true;
        for (;;) {
            char32_t c = peek();
            size_t line = line_, column = column_;
            if (c == '\\') {
                advance();
                if (!consume('u')) failAt("invalid escape in an identifier (only \\u is allowed)", line, column);
                c = readUnicodeEscape();
                if (first ? !isIdentifierStart(c) : !isIdentifierPart(c))
                    failAt(strprintf("\\u escape U+%04X is not allowed in an identifier", static_cast<unsigned>(c)),
                           line, column);
                appendUtf8(out, c);
            } else if (first ? isIdentifierStart(c) : isIdentifierPart(c)) {
                appendUtf8(out, c);
                advance();
            } else {
                return out;
            }
            first = false;
        }
    }

    // The character after a number may not continue it.
    void checkNumberEnd() {
        char32_t c = peek();
        if (isDigit(c) || isIdentifierStart(c) || c == '\\') fail("unexpected " + describeChar(c) + " after a number");
    }

    void expectWord(std::string_view word) {
        for (char w : word) {
            if (peek() != static_cast<char32_t>(w)) fail("invalid number: expected '" + std::string(word) + "'");
            advance();
        }
    }

    nlohmann::json parseNumber() {
        bool negative = false;
        if (peek() == '+' || peek() == '-') {
            negative = peek() == '-';
            advance();
        }
        char32_t c = peek();
        if (c == 'I') {
            expectWord("Infinity");
            checkNumberEnd();
            return negative ? -std::numeric_limits<double>::infinity() : std::numeric_limits<double>::infinity();
        }
        if (c == 'N') {
            expectWord("NaN");
            checkNumberEnd();
            return std::numeric_limits<double>::quiet_NaN();
        }
        if (c == '0' && pos_ + 1 < text_.size() && (text_[pos_ + 1] == 'x' || text_[pos_ + 1] == 'X')) {
            advance();
            advance();
            if (!isHexDigit(peek())) fail("invalid number: expected a hexadecimal digit after 0x");
            uint64_t value = 0;
            double big = 0;
            bool overflow = false;
            while (isHexDigit(peek())) {
                int h = hexValue(peek());
                if (!overflow && value > (std::numeric_limits<uint64_t>::max() >> 4)) {
                    overflow = true;
                    big = static_cast<double>(value);
                }
                if (overflow) big = big * 16 + h;
                else value = value * 16 + static_cast<uint64_t>(h);
                advance();
            }
            checkNumberEnd();
            if (overflow) return negative ? -big : big;
            return integerValue(value, negative);
        }

        // Decimal: (0 | [1-9][0-9]*) ('.' [0-9]*)? | '.' [0-9]+, then an optional exponent.
        std::string literal;
        bool integral = true;
        size_t intDigits = 0;
        if (c == '0') {
            literal += '0';
            advance();
            intDigits = 1;
            if (isDigit(peek())) fail("invalid number: leading zeros are not allowed");
        } else {
            while (isDigit(peek())) {
                literal += static_cast<char>(peek());
                advance();
                ++intDigits;
            }
        }
        size_t fracDigits = 0;
        if (peek() == '.') {
            integral = false;
            literal += '.';
            advance();
            while (isDigit(peek())) {
                literal += static_cast<char>(peek());
                advance();
                ++fracDigits;
            }
        }
        if (intDigits == 0 && fracDigits == 0) fail("invalid number: expected a digit, found " + describeChar(peek()));
        if (peek() == 'e' || peek() == 'E') {
            integral = false;
            literal += 'e';
            advance();
            if (peek() == '+' || peek() == '-') {
                literal += static_cast<char>(peek());
                advance();
            }
            if (!isDigit(peek())) fail("invalid number: expected a digit in the exponent");
            while (isDigit(peek())) {
                literal += static_cast<char>(peek());
                advance();
            }
        }
        checkNumberEnd();

        if (integral) {
            uint64_t value = 0;
            auto [ptr, ec] = std::from_chars(literal.data(), literal.data() + literal.size(), value);
            (void)ptr;
            if (ec == std::errc()) {
                if (negative && value == 0) return -0.0;
                if (!negative || value <= uint64_t(1) << 63) return integerValue(value, negative);
            }
        }
        return decimalValue(literal, negative);
    }

    static nlohmann::json integerValue(uint64_t magnitude, bool negative) {
        if (!negative) {
            if (magnitude <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
                return static_cast<int64_t>(magnitude);
            return magnitude;
        }
        if (magnitude == 0) return -0.0;
        if (magnitude <= uint64_t(1) << 63) return static_cast<int64_t>(0 - magnitude);
        return -static_cast<double>(magnitude);
    }

    // A decimal literal as a double; beyond double range it is +/-Infinity
    // (or a signed zero when it is too small), as ECMAScript reads it.
    static double decimalValue(const std::string& literal, bool negative) {
        const char* begin = literal.data();
        const char* end = begin + literal.size();
        const char* start = begin;
        if (*start == '.') {
            // from_chars does not take a leading point; the value is unchanged by a leading zero.
            std::string withZero = "0" + literal;
            return decimalValue(withZero, negative);
        }
        double value = 0;
        auto [ptr, ec] = std::from_chars(start, end, value);
        (void)ptr;
        if (ec == std::errc::result_out_of_range) {
            // Decide overflow or underflow from the decimal exponent of the first significant digit.
            long exponent = 0;
            size_t e = literal.find('e');
            if (e != std::string::npos)
                exponent = std::clamp(std::strtol(literal.c_str() + e + 1, nullptr, 10), -1000000000L, 1000000000L);
            std::string mantissa = literal.substr(0, e);
            size_t point = mantissa.find('.');
            if (point == std::string::npos) point = mantissa.size();
            size_t firstSignificant = mantissa.find_first_of("123456789");
            long magnitude = firstSignificant < point ? static_cast<long>(point - firstSignificant)
                                                      : -static_cast<long>(firstSignificant - point) + 1;
            value = magnitude + exponent > 0 ? std::numeric_limits<double>::infinity() : 0.0;
        }
        return negative ? -value : value;
    }
};

} // namespace

nlohmann::json parseJson5(std::string_view text, const Json5Options& options) {
    return Parser(text, options).parseDocument();
}

} // namespace qv
