#include "scene/TextFormat.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

TEST(TextFormat, FloatsPrintShortestRoundTripWithFraction) {
    struct Case {
        float value;
        const char* text;
    };
    const Case cases[] = {
        {1.0f, "1.0"},        {0.1f, "0.1"},          {179.0f, "179.0"},
        {-2.5f, "-2.5"},      {0.0f, "0.0"},          {1e-5f, "1e-05"},
        {0.0001f, "0.0001"},  {16777216.0f, "1.6777216e+07"}, {1e20f, "1e+20"},
        {123456.0f, "123456.0"}, {0.3f, "0.3"},       {70.0f, "70.0"},
    };
    for (const auto& c : cases) EXPECT_EQ(formatFloat(c.value), c.text) << c.value;
}

TEST(TextFormat, FloatListIsBracketed) {
    EXPECT_EQ(formatFloatList({1.0f, 2.5f, -3.0f}), "[1.0, 2.5, -3.0]");
}

TEST(TextFormat, StrprintfFormats) {
    EXPECT_EQ(strprintf("%d spp at %.2fs", 4, 1.234), "4 spp at 1.23s");
}

} // namespace
} // namespace qv
