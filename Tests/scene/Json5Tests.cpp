// JSON5 conformance, one group per feature: every valid form must read to the
// expected value, every invalid form must fail with the line and column of the
// offending character.
#include "scene/Json5.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace qv {
namespace {

using nlohmann::json;

struct Valid {
    const char* text;
    json expected;
};

struct Invalid {
    const char* text;
    size_t line;
    size_t column;
};

void expectValid(const std::vector<Valid>& cases) {
    for (const Valid& c : cases) {
        SCOPED_TRACE(c.text);
        json value;
        ASSERT_NO_THROW(value = parseJson5(c.text));
        EXPECT_EQ(value, c.expected);
        EXPECT_EQ(value.type(), c.expected.type());
    }
}

void expectInvalid(const std::vector<Invalid>& cases) {
    for (const Invalid& c : cases) {
        SCOPED_TRACE(c.text);
        try {
            parseJson5(c.text);
            ADD_FAILURE() << "accepted";
        } catch (const Json5Error& e) {
            EXPECT_EQ(e.line(), c.line) << e.what();
            EXPECT_EQ(e.column(), c.column) << e.what();
        }
    }
}

TEST(Json5Comments, AreWhiteSpace) {
    expectValid({
        {"// a\n1", 1},
        {"1 // trailing", 1},
        {"/* block */ [1, /* inner */ 2]", json::array({1, 2})}, {"/* multi\nline\n*/ {a: 1}", json{{"a", 1}}},
        {"/**/1", 1}, {"/* ** / */ 1", 1},
        {"[1 // end of line\n, 2]", json::array({1, 2})},
    });
    expectInvalid({{"/* never closed", 1, 1}, {"1 / 2", 1, 3}, {"[1,\n  /* open", 2, 3}});
}

TEST(Json5TrailingCommas, OneIsAllowed) {
    expectValid({
        {"[1, 2,]", json::array({1, 2})}, {"{a: 1,}", json{{"a", 1}}}, {"[[],]", json::array({json::array()})},
        {"[]", json::array()}, {"{}", json::object()},
    });
    expectInvalid({{"[,]", 1, 2}, {"[1,,]", 1, 4}, {"{,}", 1, 2}, {"{a: 1,,}", 1, 7}, {"[1 2]", 1, 4}});
}

TEST(Json5Keys, IdentifiersAndStrings) {
    expectValid({
        {"{a: 1}", json{{"a", 1}}}, {"{$_a9: 1}", json{{"$_a9", 1}}}, {"{_: 1, $: 2}", json{{"_", 1}, {"$", 2}}},
        {"{'single': 1}", json{{"single", 1}}}, {"{\"double\": 1}", json{{"double", 1}}},
        {"{null: 1, true: 2, if: 3}", json{{"null", 1}, {"true", 2}, {"if", 3}}},
        {"{\\u0061b: 1}", json{{"ab", 1}}}, {"{a\\u0062: 1}", json{{"ab", 1}}},
        {"{\xC3\xA9t\xC3\xA9: 1}", json{{"\xC3\xA9t\xC3\xA9", 1}}},     // été
        {"{\xE4\xB8\xAD\xE6\x96\x87: 1}", json{{"\xE4\xB8\xAD\xE6\x96\x87", 1}}}, // 中文
        {"{a: 1, a: 2}", json{{"a", 2}}},
    });
    expectInvalid({
        {"{1a: 1}", 1, 2}, {"{a-b: 1}", 1, 3}, {"{a b: 1}", 1, 4}, {"{a 1}", 1, 4}, {"{\\u0031: 1}", 1, 2},
        {"{\\x61: 1}", 1, 2},
        {"{\xE2\x82\xAC: 1}", 1, 2}, // the euro sign is a symbol, not a letter
        {"{a: 1", 1, 6},
    });
}

TEST(Json5Strings, QuotesAndEscapes) {
    expectValid({
        {"'single'", "single"}, {"\"double\"", "double"}, {"'It\"s'", "It\"s"}, {"\"It's\"", "It's"},
        {"'\\''", "'"}, {"'\\b\\f\\n\\r\\t\\v\\\\\\/'", "\b\f\n\r\t\v\\/"}, {"'\\0'", std::string(1, '\0')},
        {"'\\x41\\x7e'", "A~"}, {"'\\xe9'", "\xC3\xA9"}, {"'\\u00e9'", "\xC3\xA9"},
        {"'\\uD83D\\uDE00'", "\xF0\x9F\x98\x80"},
        {"'\\uD83D'", "\xEF\xBF\xBD"},        // lone high surrogate
        {"'\\uDE00x'", "\xEF\xBF\xBDx"},      // lone low surrogate
        {"'\\a\\c\\q'", "acq"},               // any other escaped character is itself
        {"'line\\\ncontinued'", "linecontinued"}, {"'line\\\r\ncontinued'", "linecontinued"},
        {"'line\\\rcontinued'", "linecontinued"}, {"'line\\\xE2\x80\xA8" "continued'", "linecontinued"},
        {"'tab\there'", "tab\there"},
        {"'\xE2\x80\xA8'", "\xE2\x80\xA8"},   // U+2028 may appear unescaped
        {"'caf\xC3\xA9'", "caf\xC3\xA9"},
    });
    expectInvalid({
        {"'unterminated", 1, 1}, {"'line\nbreak'", 1, 6}, {"\"a\rb\"", 1, 3}, {"'\\1'", 1, 2}, {"'\\01'", 1, 2},
        {"'\\x4'", 1, 5}, {"'\\u12g4'", 1, 6}, {"'mismatched\"", 1, 1},
    });
}

TEST(Json5Numbers, DecimalForms) {
    expectValid({
        {"0", 0}, {"42", 42}, {"-7", -7}, {"+7", 7}, {".5", 0.5}, {"5.", 5.0}, {"+.5", 0.5}, {"-5.", -5.0},
        {"1e3", 1000.0}, {"1E-2", 0.01}, {"5.e1", 50.0}, {".5e+1", 5.0}, {"0.25", 0.25},
        {"9223372036854775807", int64_t(9223372036854775807)},
        {"18446744073709551615", uint64_t(18446744073709551615ull)},
        {"-9223372036854775808", std::numeric_limits<int64_t>::min()},
    });
    expectInvalid({
        {"01", 1, 2}, {"00", 1, 2}, {".", 1, 2}, {"-", 1, 2}, {"1e", 1, 3}, {"1e+", 1, 4}, {"1a", 1, 2},
        {"1.5.3", 1, 4}, {"--1", 1, 2}, {"+-1", 1, 2}, {"1_000", 1, 2},
    });
}

TEST(Json5Numbers, HexadecimalForms) {
    expectValid({
        {"0x0", 0}, {"0xFF", 255}, {"0Xff", 255}, {"-0x10", -16}, {"+0xa", 10},
        {"0xFFFFFFFFFFFFFFFF", uint64_t(0xFFFFFFFFFFFFFFFFull)}, {"0x10000000000000000", 18446744073709551616.0},
    });
    expectInvalid({{"0x", 1, 3}, {"0xG", 1, 3}, {"0x1g", 1, 4}, {"0x1.5", 1, 4}});
}

TEST(Json5Numbers, InfinityNaNAndExtremesFollowDoubleArithmetic) {
    // Beyond double range a literal reads as Infinity, below it as zero, as in ECMAScript.
    const double inf = std::numeric_limits<double>::infinity();
    const std::pair<const char*, double> cases[] = {
        {"Infinity", inf}, {"-Infinity", -inf}, {"+Infinity", inf}, {"1e400", inf}, {"-1e400", -inf},
        {"1e-400", 0.0}, {"0.000000000000000000000000000001e-400", 0.0}, {"1e99999999999999999999", inf},
        {"123456789012345678901234567890", 123456789012345678901234567890.0},
    };
    for (const auto& [text, value] : cases) EXPECT_EQ(parseJson5(text).get<double>(), value) << text;
    for (const char* text : {"NaN", "-NaN"}) EXPECT_TRUE(std::isnan(parseJson5(text).get<double>())) << text;
    json negativeZero = parseJson5("-0");
    ASSERT_TRUE(negativeZero.is_number_float());
    EXPECT_TRUE(std::signbit(negativeZero.get<double>()));
    expectInvalid({{"Inf", 1, 4}, {"infinity", 1, 1}, {"nan", 1, 1}, {"NaNa", 1, 4}, {"Infinityx", 1, 9}});
}

TEST(Json5Literals, NullTrueFalse) {
    expectValid({
        {"null", nullptr}, {"true", true}, {"false", false},
        {"[true,false,null]", json::array({true, false, nullptr})},
    });
    expectInvalid({{"True", 1, 1}, {"nul", 1, 1}, {"undefined", 1, 1}, {"truex", 1, 1}});
}

TEST(Json5WhiteSpace, EcmaScriptSet) {
    expectValid({
        {"\t\v\f 1", 1},
        {"\xC2\xA0" "1", 1},                // no-break space
        {"\xEF\xBB\xBF" "1", 1},            // byte order mark
        {"\xE2\x80\x83" "1", 1},            // em space
        {"\xE3\x80\x80" "1", 1},            // ideographic space
        {"\xE2\x80\xA8" "1\xE2\x80\xA9", 1}, // line and paragraph separators
        {"\r\n1\r\n", 1},
    });
}

TEST(Json5Structure, TopLevelAndNesting) {
    expectValid({
        {"{a: [1, {b: 'c'}], d: {}}", json{{"a", json::array({1, json{{"b", "c"}}})}, {"d", json::object()}}},
        {"  'just a string'  ", "just a string"},
    });
    expectInvalid({
        {"", 1, 1}, {"   ", 1, 4}, {"1 2", 1, 3}, {"{} {}", 1, 4}, {"[1]]", 1, 4}, {"{a: 1}}", 1, 7}, {"[", 1, 2},
        {"{a:}", 1, 4},
    });
}

TEST(Json5Positions, LinesAndColumnsCountCodePointsAndBreaks) {
    expectInvalid({
        {"{\n  a: 1,\n  b: ?\n}", 3, 6},
        {"{\r\n  a: ?}", 2, 6},                 // CR LF is one line break
        {"{\r  a: ?}", 2, 6},                   // a lone CR breaks the line too
        {"['\xC3\xA9\xC3\xA9', ?]", 1, 8},      // columns count characters, not bytes
        {"/* \n\n */ ?", 3, 5},
        {"\xE2\x80\xA8?", 2, 1},                // U+2028 breaks the line
    });
}

TEST(Json5BadInput, InvalidUtf8IsRejectedWhereItStands) {
    expectInvalid({
        {"'\xFF'", 1, 2},
        {"'a\xC3'", 1, 3},             // truncated two-byte sequence (quote follows)
        {"'\xC0\xAF'", 1, 2},          // overlong
        {"'\xED\xA0\x80'", 1, 2},      // an encoded surrogate
        {"'\xF4\x90\x80\x80'", 1, 2},  // above U+10FFFF
        {"[1, \x80]", 1, 5},
        {"// \xFE\n1", 1, 4},
    });
}

TEST(Json5BadInput, DeepNestingFailsInsteadOfOverflowingTheStack) {
    std::string deep(100000, '[');
    try {
        parseJson5(deep);
        ADD_FAILURE() << "accepted";
    } catch (const Json5Error& e) {
        EXPECT_EQ(e.detail(), "arrays and objects nested deeper than 512 levels");
        EXPECT_EQ(e.column(), 513u);
    }
    std::string ok = std::string(512, '[') + std::string(512, ']');
    EXPECT_NO_THROW(parseJson5(ok));
    Json5Options shallow;
    shallow.maxDepth = 2;
    EXPECT_NO_THROW(parseJson5("[[1]]", shallow));
    EXPECT_THROW(parseJson5("[{a: [1]}]", shallow), Json5Error);
}

TEST(Json5BadInput, BinaryGarbageFailsCleanly) {
    // A fixed pseudo-random byte soup: every prefix must either parse or throw Json5Error.
    std::string bytes;
    uint32_t state = 12345;
    for (int i = 0; i < 4096; ++i) {
        state = state * 1664525u + 1013904223u;
        bytes += static_cast<char>(state >> 24);
    }
    for (size_t n = 0; n < bytes.size(); n += 97) {
        try {
            parseJson5(std::string_view(bytes).substr(0, n));
        } catch (const Json5Error&) {
        }
    }
    EXPECT_THROW(parseJson5(bytes), Json5Error);
    EXPECT_THROW(parseJson5(std::string("\0\0\0", 3)), Json5Error);
}

TEST(Json5Errors, MessagesNameTheProblem) {
    struct Case {
        const char* text;
        const char* message;
    };
    const Case cases[] = {
        {"{a: 1 b: 2}", "expected ',' or '}' after an object member, found character 'b' at line 1, column 7"},
        {"[1 2]", "expected ',' or ']' after an array element, found character '2' at line 1, column 4"},
        {"'abc", "unterminated string at line 1, column 1"},
        {"01", "invalid number: leading zeros are not allowed at line 1, column 2"},
        {"", "unexpected end of input where a value was expected at line 1, column 1"},
        {"{a 1}", "expected ':' after the key, found character '1' at line 1, column 4"},
        {"'\xFF'", "invalid UTF-8 byte 0xFF at line 1, column 2"},
    };
    for (const Case& c : cases) {
        try {
            parseJson5(c.text);
            ADD_FAILURE() << c.text;
        } catch (const Json5Error& e) {
            EXPECT_STREQ(e.what(), c.message);
        }
    }
}

TEST(Json5RoundTrip, NlohmannOutputReadsBack) {
    json original = {{"name", "Kitchen \"north\"\n"}, {"eye", {1.5, -2.25, 3e-7}}, {"n", 12}, {"ok", true},
                     {"nothing", nullptr}, {"unicode", "\xE6\x97\xA5\xF0\x9F\x98\x80"}};
    EXPECT_EQ(parseJson5(original.dump()), original);
    EXPECT_EQ(parseJson5(original.dump(4)), original);
}

} // namespace
} // namespace qv
