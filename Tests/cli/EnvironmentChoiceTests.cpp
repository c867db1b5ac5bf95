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

CLIOptions withTime(CLIOptions o, TimeOfDay time) {
    o.time = time;
    o.timeExplicit = true;
    return o;
}

TEST(SunByDateLine, ExactReportLines) {
    const SiteLocation north{80.0, 0.0, 0, false};
    const struct {
        const char* what;
        CLIOptions options;
        SiteLocation site;
        std::string line; // the whole line, or after "..." a part of it
    } cases[] = {
        {"scene site by day", withDate(2023, 12, 22, 570), kSydney,
         "sun by date: 2023-12-22 09:30 (UTC+10) at -33.869, 151.209 (scene.json site): azimuth 81.1 (E), "
         "elevation 57.1; sunrise 04:41, sunset 19:06; day from the sun's elevation"},
        {"fallback site at dusk", withDate(2024, 6, 15, 1050), SiteLocation::fallback(),
         "sun by date: 2024-06-15 17:30 (UTC+10) at -27.470, 153.025 (fallback site): azimuth 292.8 (WNW), "
         "elevation -6.7; sunrise 06:36, sunset 17:01; dusk from the sun's elevation"},
        {"night keeps the moon", withDate(2024, 12, 31, 1200), kHonolulu,
         "sun by date: 2024-12-31 20:00 (UTC-10) at 21.307, -157.858 (scene.json site): azimuth 254.2 (WSW), "
         "elevation -26.9; sunrise 07:09, sunset 18:01; night from the sun's elevation (the moon keeps its place)"},
        {"--time without a clock means noon", withTime(withDate(2024, 6, 15, std::nullopt), TimeOfDay::dusk),
         SiteLocation::fallback(),
         "sun by date: 2024-06-15 12:00 (UTC+10) at -27.470, 153.025 (fallback site): azimuth 356.6 (N), "
         "elevation 39.1; sunrise 06:36, sunset 17:01; dusk (--time)"},
        {"a quarter-hour zone prints its offset rounded", withDate(2024, 1, 15, 425), kKathmandu,
         "sun by date: 2024-01-15 07:05 (UTC+6) at 27.717, 85.324 (scene.json site): azimuth 114.8 (ESE), "
         "elevation 1.4; sunrise 06:56, sunset 17:30; dusk from the sun's elevation"},
        {"polar day", withDate(2024, 6, 21, 720), north, "...; sunrise none, sunset none; day from the sun's elevation"},
        {"polar night", withDate(2024, 12, 21, 0), north,
         "...; sunrise none, sunset none; night from the sun's elevation"},
    };
    for (const auto& c : cases) {
        const EnvironmentChoice choice = chooseEnvironment(c.options, c.site, nullptr);
        ASSERT_TRUE(choice.sunByDateLine) << c.what;
        if (c.line.starts_with("...")) {
            EXPECT_NE(choice.sunByDateLine->find(c.line.substr(3)), std::string::npos) << c.what << ": " << *choice.sunByDateLine;
        } else {
            EXPECT_EQ(*choice.sunByDateLine, c.line) << c.what;
        }
    }
}

TEST(EnvironmentChoosing, PresetFollowsTheApparentElevationAtTheBoundaries) {
    // Brisbane (the fallback site), 15 June 2024. Independent apparent
    // elevations: 16:41 +3.30, 16:44 +2.74, 17:30 -6.68, 17:32 -7.09 degrees.
    const std::pair<double, TimeOfDay> cases[] = {{16 * 60 + 41, TimeOfDay::day},
                                                  {16 * 60 + 44, TimeOfDay::dusk},
                                                  {17 * 60 + 30, TimeOfDay::dusk},
                                                  {17 * 60 + 32, TimeOfDay::night}};
    for (const auto& [clock, time] : cases) {
        const auto choice = chooseEnvironment(withDate(2024, 6, 15, clock), SiteLocation::fallback(), nullptr);
        EXPECT_EQ(choice.time, time) << clock;
        EXPECT_EQ(choice.preset.time, time) << clock;
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
    EXPECT_EQ(chooseEnvironment(withTime(withDate(2023, 12, 22, 720), TimeOfDay::night), kSydney, nullptr).preset,
              EnvironmentPreset::preset(TimeOfDay::night));
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

// Without a date the time comes from --time, then the camera; a camera's
// exposure and white balance apply only at its own time (or at any time when
// it names none), and --ev100 overrides its exposure.
TEST(EnvironmentChoosing, TimeAndCameraLookNotes) {
    CameraDef dusk;
    dusk.name = "Terrace";
    dusk.time = TimeOfDay::dusk;
    CameraDef duskLook = dusk;
    duskLook.exposureEV = 1.5f;
    duskLook.wbKelvin = 3900;
    CameraDef darker = duskLook;
    darker.exposureEV = -0.25f;
    CameraDef anyTime;
    anyTime.name = "Hall";
    anyTime.exposureEV = 0.5f;
    anyTime.wbKelvin = 3000;
    CLIOptions withEV = withTime({}, TimeOfDay::dusk);
    withEV.settings.ev100Override = 9.0f;

    const struct {
        const char* what;
        CLIOptions options;
        const CameraDef* camera;
        TimeOfDay time;
        std::string note;
        float exposureEV;
    } cases[] = {
        {"no camera", {}, nullptr, TimeOfDay::day, "day preset", 0},
        {"camera time", {}, &dusk, TimeOfDay::dusk, "dusk preset (camera time)", 0},
        {"--time beats the camera", withTime({}, TimeOfDay::night), &dusk, TimeOfDay::night, "night preset (--time)", 0},
        {"a date beats the camera", withDate(2023, 12, 22, 570), &dusk, TimeOfDay::day, "", 0},
        {"look at its time", withTime({}, TimeOfDay::dusk), &duskLook, TimeOfDay::dusk,
         "dusk preset (--time), camera exposure_ev +1.50", 1.5f},
        {"look at another time", withTime({}, TimeOfDay::day), &duskLook, TimeOfDay::day,
         "day preset (--time), camera exposure_ev +1.50 (ignored: not the camera's time), camera wb_kelvin ignored "
         "(set for dusk)",
         0},
        {"--ev100", withEV, &darker, TimeOfDay::dusk, "dusk preset (--time), camera exposure_ev -0.25 (ignored: --ev100)",
         0},
        {"camera without a time", withTime({}, TimeOfDay::day), &anyTime, TimeOfDay::day,
         "day preset (--time), camera exposure_ev +0.50", 0.5f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto choice = chooseEnvironment(c.options, kSydney, c.camera);
        EXPECT_EQ(choice.time, c.time);
        if (!c.options.date) {
            EXPECT_EQ(choice.preset, EnvironmentPreset::preset(c.time));
            EXPECT_EQ(choice.note, c.note);
            const size_t comma = c.note.find(", camera");
            EXPECT_EQ(choice.cameraNotes, comma == std::string::npos ? "" : c.note.substr(comma));
        }
        EXPECT_EQ(choice.cameraExposureEV, c.exposureEV);
    }
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
