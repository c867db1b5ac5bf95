// The date and clock readers, the bit-rate reader and the QV_ switches.
#include "cli/CLIOptions.h"
#include "image/Bitrate.h"
#include "scene/EnvSwitches.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

TEST(DateClock, DatesAreThreePositiveFieldsInRange) {
    struct Case {
        const char* text;
        std::optional<CalendarDate> date;
    };
    const Case cases[] = {
        {"2024-06-21", CalendarDate{2024, 6, 21}},
        {"2024-6-1", CalendarDate{2024, 6, 1}},
        {"2024--06-21", CalendarDate{2024, 6, 21}}, // empty pieces are dropped
        {"2023-02-31", CalendarDate{2023, 2, 31}},  // the day is not checked against the month
        {"1-12-31", CalendarDate{1, 12, 31}},
        {"0-01-01", std::nullopt},
        {"2024-00-10", std::nullopt},
        {"2024-13-10", std::nullopt},
        {"2024-12-32", std::nullopt},
        {"2024-12-0", std::nullopt},
        {"2024-06", std::nullopt},
        {"2024-06-21-1", std::nullopt},
        {"2024-06-2x", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(DateClock::parseDate(c.text), c.date) << c.text;
}

TEST(DateClock, ClockIsMinutesAfterMidnight) {
    struct Case {
        const char* text;
        std::optional<double> minutes;
    };
    const Case cases[] = {
        {"07:30:30", 450.5}, {"18:30", 1110.0}, {"0:0", 0.0},       {"23:59", 1439.0},
        {"7:5", 425.0},      {"12:00:90", 721.5}, {"24:00", std::nullopt}, {"12:60", std::nullopt},
        {"-1:00", std::nullopt}, {"12", std::nullopt}, {"1:2:3:4", std::nullopt}, {"ab:cd", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(DateClock::parseClockMinutes(c.text), c.minutes) << c.text;
    EXPECT_EQ(DateClock::kNoonMinutes, 720.0);
}

TEST(Bitrate, SuffixesScaleAndBadTextReadsAsNothing) {
    struct Case {
        const char* text;
        std::optional<int64_t> bits;
    };
    const Case cases[] = {
        {"16M", 16000000}, {"16m", 16000000}, {"8000k", 8000000}, {"12000000", 12000000}, {"1.5M", 1500000},
        {" 2.5k\t", 2500}, {"0.0015k", 1},    {"0", std::nullopt}, {"-5m", std::nullopt}, {"abc", std::nullopt},
        {"m", std::nullopt}, {"", std::nullopt}, {"1e30", std::nullopt}, {"nan", std::nullopt}, {"0.4", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(parseBitrate(c.text), c.bits) << c.text;
}

TEST(EnvSwitches, BadlyFormedValuesReadAsAbsent) {
    EnvSwitches env = EnvSwitches::fromMap({{"QV_ON", "1"},
                                           {"QV_TRUE", "true"},
                                           {"QV_ONE_SPACE", "1 "},
                                           {"QV_NUM", " 2.5 "},
                                           {"QV_BADNUM", "2.5x"},
                                           {"QV_NAN", "nan"},
                                           {"QV_INT", "-12"},
                                           {"QV_PAIR", "0.02, 0.08"},
                                           {"QV_PAIR_SHORT", "0.02,"},
                                           {"QV_TRIPLE", "1,2,3"}});
    EXPECT_TRUE(env.isOn("QV_ON"));
    EXPECT_FALSE(env.isOn("QV_TRUE"));
    EXPECT_FALSE(env.isOn("QV_ONE_SPACE"));
    EXPECT_FALSE(env.isOn("QV_UNSET"));
    EXPECT_EQ(env.number("QV_NUM"), 2.5);
    EXPECT_EQ(env.number("QV_BADNUM", 7.0), 7.0);
    EXPECT_EQ(env.number("QV_NAN", 7.0), 7.0);
    EXPECT_EQ(env.number("QV_UNSET", 7.0), 7.0);
    EXPECT_EQ(env.integer("QV_INT"), -12);
    EXPECT_EQ(env.integer("QV_NUM", 3), 3);
    EXPECT_EQ(env.pair("QV_PAIR"), (std::pair<double, double>{0.02, 0.08}));
    EXPECT_EQ(env.pair("QV_PAIR_SHORT", {1.0, 2.0}), (std::pair<double, double>{1.0, 2.0}));
    EXPECT_EQ(env.pair("QV_TRIPLE", {1.0, 2.0}), (std::pair<double, double>{1.0, 2.0}));
    EXPECT_EQ(env.numbers("QV_TRIPLE", 3), (std::vector<double>{1, 2, 3}));
}

TEST(EnvSwitches, EachVariableIsReadOnce) {
    std::map<std::string, int> reads;
    std::string value = "1";
    EnvSwitches env([&](const std::string& name) -> std::optional<std::string> {
        ++reads[name];
        return value;
    });
    EXPECT_TRUE(env.isOn("QV_A"));
    value = "0"; // a later change of the environment is not seen
    EXPECT_TRUE(env.isOn("QV_A"));
    EXPECT_EQ(env.text("QV_A"), "1");
    EXPECT_EQ(env.text("QV_B"), "0");
    EXPECT_EQ(reads["QV_A"], 1);
    EXPECT_EQ(reads["QV_B"], 1);
}

} // namespace
} // namespace qv
