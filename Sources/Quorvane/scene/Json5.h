#pragma once
// A strict JSON5 reader producing nlohmann::json values. JSON5 is JSON plus
// the ECMAScript 5.1 relaxations: // and /* */ comments, trailing commas,
// identifier keys, single-quoted strings, every ECMAScript escape (\x, \0,
// \v, line continuations, \u surrogate pairs), hexadecimal numbers, leading
// or trailing decimal points, an explicit +, and Infinity / NaN.
//
// Choices where JSON5 leaves room:
// - Input must be valid UTF-8; any other byte sequence is an error.
// - A lone \u surrogate escape reads as U+FFFD so every string stays UTF-8.
// - Integers that fit int64 (or uint64 when positive) stay integers; -0,
//   fractions, exponents and out-of-range integers become doubles; a
//   magnitude beyond double range reads as +/-Infinity, as in ECMAScript.
// - Unquoted keys accept ASCII letters, digits (not first), '$', '_', ZWNJ
//   and ZWJ (not first), \u escapes of those, and non-ASCII code points outside
//   the whitespace, punctuation, symbol and emoji blocks. That block test
//   stands in for the Unicode letter categories, which would need full tables.
// - Nesting deeper than maxDepth arrays/objects is an error, so hostile input
//   cannot exhaust the stack.
// - A repeated key keeps its last value.
#include <nlohmann/json.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace qv {

// A syntax error. what() is "<detail> at line <L>, column <C>"; lines and
// columns count from 1, columns in Unicode code points.
class Json5Error : public std::runtime_error {
public:
    Json5Error(std::string detail, size_t line, size_t column);
    const std::string& detail() const { return detail_; }
    size_t line() const { return line_; }
    size_t column() const { return column_; }

private:
    std::string detail_;
    size_t line_;
    size_t column_;
};

struct Json5Options {
    size_t maxDepth = 512; // nested arrays and objects
};

// Parses one JSON5 text (a single value with optional whitespace and comments
// around it). Throws Json5Error.
nlohmann::json parseJson5(std::string_view text, const Json5Options& options = {});

} // namespace qv
