#pragma once
// The readers behind the command-line options: strict whole-text number
// reading in C-locale notation, list splitting and the argument cursor with
// the option's "needs a value" / "not a number" errors.
#include "shaders/VecMath.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::cli {

// A decimal or exponent number filling the whole text, with an optional sign;
// "inf" and "nan" read as themselves and values out of range as infinity or zero.
std::optional<float> readFloat(std::string_view text);
std::optional<double> readDouble(std::string_view text);
// A base-10 signed 64-bit integer filling the whole text, with an optional sign.
std::optional<int64_t> readInteger(std::string_view text);

std::string lowerCased(std::string_view text);
std::string_view trimmedSpace(std::string_view text);
// Pieces between separators; empty pieces are dropped unless keepEmpty.
std::vector<std::string_view> splitAt(std::string_view text, char separator, bool keepEmpty = false);

// Walks the argument list once, left to right.
class ArgCursor {
public:
    explicit ArgCursor(const std::vector<std::string>& args) : args_(args) {}

    bool done() const { return index_ >= args_.size(); }
    const std::string& take() { return args_[index_++]; }
    void skip() {
        if (!done()) ++index_;
    }
    const std::string* peek() const { return done() ? nullptr : &args_[index_]; }

    // The next argument whatever it looks like; "<option> needs a value" when none.
    const std::string& value(const std::string& option);
    // "<option>: not a number: <value>" / "<option>: not an integer: <value>".
    float floatValue(const std::string& option);
    double doubleValue(const std::string& option);
    int64_t integerValue(const std::string& option);
    // Comma-separated pieces that read as floats; "<option> expects x,y,z" unless exactly three.
    float3 vectorValue(const std::string& option);

private:
    const std::vector<std::string>& args_;
    std::size_t index_ = 0;
};

} // namespace qv::cli
