#include "cli/EnvironmentChoice.h"
#include "scene/SceneDescription.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

// The numbers in these lines were checked field by field against an
// independent ephemeris (ERFA solar position, geometric elevation plus the
// standard refraction): e.g. Sydney 2023-12-22 09:30 has the sun at bearing
// 81.08 and 57.06 degrees up, rising at 04:41.0 and setting at 19:05.8.
const SiteLocation kSydney{-33.8688, 151.2093, 10, false};
const SiteLocation kHonolulu{21.3069, -157.8583, -10, false};
const SiteLocation kKathmandu{27.7172, 85.3240, 5.75, false};

CLIOptions withDate(int64_t year, int64_t month, int64_t day, std::optional<double> clock) {
    CLIOptions o;
    o.date = CalendarDate{year, month, day};
    o.clockMinutes = clock;
    return o;
}

TEST(SunByDateLine, ExactReportLines) {
    struct Case {
        const char* what;
        CLIOptions options;
        SiteLocation site;
        const char* line;
    };
    CLIOptions duskByOption = withDate(2024, 6, 15, std::nullopt);
    duskByOption.time = TimeOfDay::dusk;
    duskByOption.timeExplicit = true;
    const Case cases[] = {
        {"scene site by day", withDate(2023, 12, 22, 570), kSydney,
         "sun by date: 2023-12-22 09:30 (UTC+10) at -33.869, 151.209 (scene.json site): azimuth 81.1 (E), "
         "elevation 57.1; sunrise 04:41, sunset 19:06; day from the sun's elevation"},
        {"fallback site at dusk", withDate(2024, 6, 15, 1050), SiteLocation::fallback(),
         "sun by date: 2024-06-15 17:30 (UTC+10) at -27.470, 153.025 (fallback site): azimuth 292.8 (WNW), "
         "elevation -6.7; sunrise 06:36, sunset 17:01; dusk from the sun's elevation"},
        {"night keeps the moon", withDate(2024, 12, 31, 1200), kHonolulu,
         "sun by date: 2024-12-31 20:00 (UTC-10) at 21.307, -157.858 (scene.json site): azimuth 254.2 (WSW), "
         "elevation -26.9; sunrise 07:09, sunset 18:01; night from the sun's elevation (the moon keeps its place)"},
        {"--time without a clock means noon", duskByOption, SiteLocation::fallback(),
         "sun by date: 2024-06-15 12:00 (UTC+10) at -27.470, 153.025 (fallback site): azimuth 356.6 (N), "
         "elevation 39.1; sunrise 06:36, sunset 17:01; dusk (--time)"},
        {"a quarter-hour zone prints its offset rounded", withDate(2024, 1, 15, 425), kKathmandu,
         "sun by date: 2024-01-15 07:05 (UTC+6) at 27.717, 85.324 (scene.json site): azimuth 114.8 (ESE), "
         "elevation 1.4; sunrise 06:56, sunset 17:30; dusk from the sun's elevation"},
    };
    for (const auto& c : cases) {
        const EnvironmentChoice choice = chooseEnvironment(c.options, c.site, nullptr);
        ASSERT_TRUE(choice.sunByDateLine) << c.what;
        EXPECT_EQ(*choice.sunByDateLine, c.line) << c.what;
    }
}

TEST(SunByDateLine, PolarDayAndNightHaveNoSunriseOrSunset) {
    const SiteLocation north{80.0, 0.0, 0, false};
    const auto summer = chooseEnvironment(withDate(2024, 6, 21, 720), north, nullptr);
    ASSERT_TRUE(summer.sunByDateLine);
    EXPECT_NE(summer.sunByDateLine->find("; sunrise none, sunset none; day from the sun's elevation"),
              std::string::npos)
        << *summer.sunByDateLine;
    const auto winter = chooseEnvironment(withDate(2024, 12, 21, 0), north, nullptr);
    ASSERT_TRUE(winter.sunByDateLine);
    EXPECT_NE(winter.sunByDateLine->find("; sunrise none, sunset none; night from the sun's elevation"),
              std::string::npos)
        << *winter.sunByDateLine;
}

TEST(EnvironmentChoosing, PresetFollowsTheApparentElevationAtTheBoundaries) {
    // Brisbane (the fallback site), 15 June 2024. Independent apparent
    // elevations: 16:41 +3.30, 16:44 +2.74, 17:30 -6.68, 17:32 -7.09 degrees.
    struct Case {
        double clock;
        TimeOfDay time;
    };
    const Case cases[] = {{16 * 60 + 41, TimeOfDay::day},
                          {16 * 60 + 44, TimeOfDay::dusk},
                          {17 * 60 + 30, TimeOfDay::dusk},
                          {17 * 60 + 32, TimeOfDay::night}};
    for (const auto& c : cases) {
        const auto choice = chooseEnvironment(withDate(2024, 6, 15, c.clock), SiteLocation::fallback(), nullptr);
        EXPECT_EQ(choice.time, c.time) << c.clock;
        EXPECT_EQ(choice.preset.time, c.time) << c.clock;
    }
}

TEST(EnvironmentChoosing, TheSunMovesExceptAtNight) {
    const auto day = chooseEnvironment(withDate(2023, 12, 22, 570), kSydney, nullptr);
    ASSERT_TRUE(day.sun);
    EXPECT_EQ(day.preset.sunAzimuthDeg, static_cast<float>(day.sun->azimuthDeg));
    EXPECT_EQ(day.preset.sunElevationDeg, static_cast<float>(day.sun->elevationDeg));
    EXPECT_EQ(day.preset.ev100, EnvironmentPreset::preset(TimeOfDay::day).ev100);

    // At night the moon keeps the night preset's place; the report still gives the sun.
    const auto night = chooseEnvironment(withDate(2024, 12, 31, 1200), kHonolulu, nullptr);
    EXPECT_EQ(night.preset, EnvironmentPreset::preset(TimeOfDay::night));
    EXPECT_NEAR(night.sun->elevationDeg, -26.9, 0.1);

    // --time fixes the preset even against the sun: night at midday keeps the moon.
    CLIOptions nightByOption = withDate(2023, 12, 22, 720);
    nightByOption.time = TimeOfDay::night;
    nightByOption.timeExplicit = true;
    EXPECT_EQ(chooseEnvironment(nightByOption, kSydney, nullptr).preset, EnvironmentPreset::preset(TimeOfDay::night));
}

TEST(EnvironmentChoosing, SunOptionsApplyLastWithOrWithoutADate) {
    CLIOptions o = withDate(2024, 12, 31, 1200); // night at Honolulu
    o.sunAzimuth = 123.5f;
    o.sunElevation = 10.0f;
    const auto withDateChoice = chooseEnvironment(o, kHonolulu, nullptr);
    EXPECT_EQ(withDateChoice.time, TimeOfDay::night);
    EXPECT_EQ(withDateChoice.preset.sunAzimuthDeg, 123.5f);
    EXPECT_EQ(withDateChoice.preset.sunElevationDeg, 10.0f);

    CLIOptions plain;
    plain.sunElevation = 5.0f;
    const auto noDate = chooseEnvironment(plain, kHonolulu, nullptr);
    EXPECT_FALSE(noDate.sunByDateLine);
    EXPECT_EQ(noDate.preset.sunElevationDeg, 5.0f);
    EXPECT_EQ(noDate.preset.sunAzimuthDeg, EnvironmentPreset::preset(TimeOfDay::day).sunAzimuthDeg);
    EXPECT_EQ(noDate.note, "day preset, --sun-elevation");
}

TEST(EnvironmentChoosing, WithoutADateTheTimeComesFromTheOptionThenTheCamera) {
    CameraDef duskCamera;
    duskCamera.name = "Terrace";
    duskCamera.time = TimeOfDay::dusk;

    const auto fromCamera = chooseEnvironment(CLIOptions{}, kSydney, &duskCamera);
    EXPECT_EQ(fromCamera.time, TimeOfDay::dusk);
    EXPECT_EQ(fromCamera.preset, EnvironmentPreset::preset(TimeOfDay::dusk));
    EXPECT_EQ(fromCamera.note, "dusk preset (camera time)");

    CLIOptions night;
    night.time = TimeOfDay::night;
    night.timeExplicit = true;
    const auto fromOption = chooseEnvironment(night, kSydney, &duskCamera);
    EXPECT_EQ(fromOption.time, TimeOfDay::night);
    EXPECT_EQ(fromOption.note, "night preset (--time)");

    EXPECT_EQ(chooseEnvironment(CLIOptions{}, kSydney, nullptr).note, "day preset");
    EXPECT_EQ(chooseEnvironment(CLIOptions{}, kSydney, nullptr).preset, EnvironmentPreset::preset(TimeOfDay::day));

    // With a date a camera's time does not fix the preset; the sun's elevation does.
    const auto byDate = chooseEnvironment(withDate(2023, 12, 22, 570), kSydney, &duskCamera);
    EXPECT_EQ(byDate.time, TimeOfDay::day);
}

TEST(EnvironmentChoosing, CameraLookNotes) {
    CameraDef dusk;
    dusk.name = "Terrace";
    dusk.time = TimeOfDay::dusk;
    dusk.exposureEV = 1.5f;
    dusk.wbKelvin = 3900;

    CLIOptions atDusk;
    atDusk.time = TimeOfDay::dusk;
    atDusk.timeExplicit = true;
    const auto applies = chooseEnvironment(atDusk, kSydney, &dusk);
    EXPECT_EQ(applies.cameraNotes, ", camera exposure_ev +1.50");
    EXPECT_EQ(applies.cameraExposureEV, 1.5f);
    EXPECT_EQ(applies.note, "dusk preset (--time), camera exposure_ev +1.50");

    CLIOptions atDay;
    atDay.time = TimeOfDay::day;
    atDay.timeExplicit = true;
    const auto otherTime = chooseEnvironment(atDay, kSydney, &dusk);
    EXPECT_EQ(otherTime.cameraNotes,
              ", camera exposure_ev +1.50 (ignored: not the camera's time), camera wb_kelvin ignored (set for dusk)");
    EXPECT_EQ(otherTime.cameraExposureEV, 0.0f);

    CLIOptions withEV = atDusk;
    withEV.settings.ev100Override = 9.0f;
    CameraDef darker = dusk;
    darker.exposureEV = -0.25f;
    const auto overridden = chooseEnvironment(withEV, kSydney, &darker);
    EXPECT_EQ(overridden.cameraNotes, ", camera exposure_ev -0.25 (ignored: --ev100)");
    EXPECT_EQ(overridden.cameraExposureEV, 0.0f);

    // A camera without a time has its look at every time of day.
    CameraDef anyTime;
    anyTime.name = "Hall";
    anyTime.exposureEV = 0.5f;
    anyTime.wbKelvin = 3000;
    const auto always = chooseEnvironment(atDay, kSydney, &anyTime);
    EXPECT_EQ(always.cameraNotes, ", camera exposure_ev +0.50");
    EXPECT_EQ(always.cameraExposureEV, 0.5f);
}

TEST(EnvironmentChoosing, SceneSiteOrFallbackFromTheContract) {
    const CLIOptions o = withDate(2023, 12, 22, 570);
    const auto fallback = chooseEnvironment(o, std::optional<SiteDef>{}, nullptr);
    EXPECT_TRUE(fallback.site.isFallback);
    EXPECT_NE(fallback.sunByDateLine->find(" (fallback site): "), std::string::npos);

    SiteDef sydney;
    sydney.latitude = -33.8688;
    sydney.longitude = 151.2093;
    const auto scene = chooseEnvironment(o, std::optional<SiteDef>{sydney}, nullptr);
    EXPECT_FALSE(scene.site.isFallback);
    EXPECT_EQ(scene.site.utcOffsetHours, 10.0); // no time zone given: +10
    EXPECT_EQ(*scene.sunByDateLine, *chooseEnvironment(o, kSydney, nullptr).sunByDateLine);
}

} // namespace
} // namespace qv
