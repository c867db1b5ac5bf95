#include "scene/EnvironmentPreset.h"
#include "scene/SceneDescription.h"
#include "scene/SiteLocation.h"
#include "scene/WhiteBalance.h"

#include <gtest/gtest.h>

#include <cmath>

namespace qv {
namespace {

TEST(EnvironmentPreset, EachTimeOfDayHasItsFixedValues) {
    struct Case {
        TimeOfDay time;
        float elevation, azimuth, sunScale, toaKelvin;
        float3 tint, floor;
        float mieScale, ev100;
        WhiteBalance wb;
    };
    const Case cases[] = {
        {TimeOfDay::day, 45, 35, 1, 5900, {2.3f, 2.3f, 2.3f}, {0, 0, 0}, 1.6f, 11.4f, WhiteBalance::scene()},
        {TimeOfDay::dusk, 2, 290, 0.12f, 5900, {1.3f, 1.3f, 1.45f}, {0.4f, 0.6f, 1.4f}, 1.6f, 7.3f,
         WhiteBalance::kelvin(4200)},
        {TimeOfDay::night, 35, 60, 0.00004f, 4100, {0.95f, 0.9f, 0.95f}, {2.4f, 1.9f, 1.45f}, 1.0f, 6.6f,
         WhiteBalance::kelvin(3600)},
    };
    for (const auto& c : cases) {
        const EnvironmentPreset p = EnvironmentPreset::preset(c.time);
        EXPECT_EQ(p.time, c.time);
        EXPECT_EQ(p.sunElevationDeg, c.elevation);
        EXPECT_EQ(p.sunAzimuthDeg, c.azimuth);
        EXPECT_EQ(p.sunScale, c.sunScale);
        EXPECT_EQ(p.sunTOAKelvin, c.toaKelvin);
        EXPECT_EQ(p.skyTint, c.tint);
        EXPECT_EQ(p.skyFloor, c.floor);
        EXPECT_EQ(p.mieScale, c.mieScale);
        EXPECT_EQ(p.mieG, 0.8f);
        EXPECT_EQ(p.sunAngularRadiusDeg, 0.27f);
        EXPECT_EQ(p.ev100, c.ev100);
        EXPECT_EQ(p.whiteBalance, c.wb);
    }
}

TEST(WhiteBalanceText, DescribesEachKind) {
    EXPECT_EQ(WhiteBalance::kelvin(3500).description(), "3500 K");
    EXPECT_EQ(WhiteBalance::kelvin(4199.6f).description(), "4200 K");
    EXPECT_EQ(WhiteBalance::sky().description(float3{0.9123f, 1.0f, 1.2f}), "sky (gains 0.912 1.000 1.200)");
    EXPECT_EQ(WhiteBalance::scene().description(), "auto (measured after rendering)");
    EXPECT_EQ(WhiteBalance::scene().description(float3{1.25f, 0.98f, 0.8765f}), "auto (gains 1.250 0.980 0.877)");
}

TEST(WhiteBalanceInForce, OverrideThenCameraThenPreset) {
    const WhiteBalance preset = WhiteBalance::kelvin(4200);
    EXPECT_EQ(whiteBalanceInForce(std::nullopt, std::nullopt, preset), preset);
    EXPECT_EQ(whiteBalanceInForce(std::nullopt, WhiteBalance::kelvin(3500), preset), WhiteBalance::kelvin(3500));
    EXPECT_EQ(whiteBalanceInForce(WhiteBalance::sky(), WhiteBalance::kelvin(3500), preset), WhiteBalance::sky());
}

TEST(DefaultWhiteBalance, FirstMatchingRuleWins) {
    CameraDef plain;
    CameraDef duskCamera;
    duskCamera.time = TimeOfDay::dusk;
    duskCamera.wbKelvin = 3900;
    CameraDef dayCamera;
    dayCamera.time = TimeOfDay::day;
    dayCamera.wbKelvin = 5000;
    CameraDef anyTimeCamera;
    anyTimeCamera.wbKelvin = 4500;

    RenderDefaults none;
    RenderDefaults general;
    general.wbKelvinInterior = 3000;
    general.wbKelvinExterior = 5200;
    RenderDefaults specific = general;
    specific.wbKelvinInteriorDusk = 3400;
    specific.wbKelvinInteriorNight = 2900;
    specific.wbKelvinExteriorDusk = 4800;
    specific.wbKelvinExteriorNight = 4000;

    struct Case {
        const char* what;
        const CameraDef* camera;
        TimeOfDay time;
        bool interior;
        const RenderDefaults* defaults;
        std::optional<WhiteBalance> balance;
        const char* source;
    };
    const Case cases[] = {
        {"camera look at its time", &duskCamera, TimeOfDay::dusk, true, &specific, WhiteBalance::kelvin(3900),
         "camera wb_kelvin"},
        {"camera without a time", &anyTimeCamera, TimeOfDay::night, false, nullptr, WhiteBalance::kelvin(4500),
         "camera wb_kelvin"},
        {"day camera at dusk is ignored", &dayCamera, TimeOfDay::dusk, false, nullptr, std::nullopt, "exterior"},
        {"day is auto", &plain, TimeOfDay::day, true, &specific, std::nullopt, "day preset"},
        {"no camera by day", nullptr, TimeOfDay::day, false, nullptr, std::nullopt, "day preset"},
        {"dusk inside, specific", &plain, TimeOfDay::dusk, true, &specific, WhiteBalance::kelvin(3400),
         "render_defaults, interior"},
        {"night inside, general", &plain, TimeOfDay::night, true, &general, WhiteBalance::kelvin(3000),
         "render_defaults, interior"},
        {"dusk inside, none", &plain, TimeOfDay::dusk, true, &none, WhiteBalance::kelvin(3500), "interior default"},
        {"night inside, none", &plain, TimeOfDay::night, true, nullptr, WhiteBalance::kelvin(3300),
         "interior default"},
        {"dusk outside, specific", &plain, TimeOfDay::dusk, false, &specific, WhiteBalance::kelvin(4800),
         "render_defaults, exterior"},
        {"night outside, general", &plain, TimeOfDay::night, false, &general, WhiteBalance::kelvin(5200),
         "render_defaults, exterior"},
        {"dusk outside, none: the preset's 4200 K", &plain, TimeOfDay::dusk, false, nullptr, std::nullopt,
         "exterior"},
        {"night outside, none: the preset's 3600 K", &plain, TimeOfDay::night, false, &none, std::nullopt,
         "exterior"},
    };
    for (const auto& c : cases) {
        const DefaultWhiteBalance d = defaultWhiteBalance(c.camera, c.time, c.interior, c.defaults);
        EXPECT_EQ(d.balance, c.balance) << c.what;
        EXPECT_EQ(d.source, c.source) << c.what;
    }
}

TEST(TimeOfDayNames, ParseIgnoringCaseAndChooseFromElevation) {
    EXPECT_EQ(timeOfDayFromName("Dusk"), TimeOfDay::dusk);
    EXPECT_EQ(timeOfDayFromName("NIGHT"), TimeOfDay::night);
    EXPECT_EQ(timeOfDayFromName("day"), TimeOfDay::day);
    EXPECT_EQ(timeOfDayFromName("noon"), std::nullopt);
    EXPECT_EQ(timeOfDayFromName(""), std::nullopt);

    struct Case {
        double elevation;
        TimeOfDay time;
    };
    const Case cases[] = {{90, TimeOfDay::day},     {3.0, TimeOfDay::day},    {2.9999, TimeOfDay::dusk},
                          {0, TimeOfDay::dusk},     {-7.0, TimeOfDay::dusk},  {-7.01, TimeOfDay::night},
                          {-90, TimeOfDay::night}};
    for (const auto& c : cases) EXPECT_EQ(timeOfDayForSunElevation(c.elevation), c.time) << c.elevation;
}

TEST(SiteLocationRules, SceneSiteOrFallback) {
    const SiteLocation fallback = SiteLocation::fallback();
    EXPECT_TRUE(fallback.isFallback);
    EXPECT_EQ(fallback.utcOffsetHours, 10.0);
    EXPECT_STREQ(fallback.sourceSuffix(), " (fallback site)");

    EXPECT_TRUE(SiteLocation::fromScene(std::optional<SiteDef>{}).isFallback);
    SiteDef site;
    site.latitude = 45;
    site.longitude = 10;
    const SiteLocation noZone = SiteLocation::fromScene(site);
    EXPECT_FALSE(noZone.isFallback);
    EXPECT_EQ(noZone.latitudeDeg, 45.0);
    EXPECT_EQ(noZone.longitudeDeg, 10.0);
    EXPECT_EQ(noZone.utcOffsetHours, 10.0); // no time zone given: +10
    EXPECT_STREQ(noZone.sourceSuffix(), " (scene.json site)");
    site.utcOffsetHours = -3.5;
    EXPECT_EQ(SiteLocation::fromScene(site).utcOffsetHours, -3.5);

    // Out-of-range or missing coordinates fall back rather than fail.
    EXPECT_TRUE(SiteLocation::fromScene(95.0, 10.0, std::nullopt).isFallback);
    EXPECT_TRUE(SiteLocation::fromScene(45.0, 181.0, std::nullopt).isFallback);
    EXPECT_TRUE(SiteLocation::fromScene(45.0, std::nullopt, 1.0).isFallback);
    EXPECT_TRUE(SiteLocation::fromScene(45.0, 10.0, 15.0).isFallback);
    EXPECT_TRUE(SiteLocation::fromScene(std::nan(""), 10.0, 1.0).isFallback);
}

TEST(BearingToModelDirection, NorthIsMinusZAndEastIsPlusX) {
    auto near = [](float3 a, float3 b) {
        return std::fabs(a.x - b.x) < 1e-6f && std::fabs(a.y - b.y) < 1e-6f && std::fabs(a.z - b.z) < 1e-6f;
    };
    EXPECT_TRUE(near(bearingToModelDirection(0, 0, 0), {0, 0, -1}));
    EXPECT_TRUE(near(bearingToModelDirection(90, 0, 0), {1, 0, 0}));
    EXPECT_TRUE(near(bearingToModelDirection(180, 0, 0), {0, 0, 1}));
    EXPECT_TRUE(near(bearingToModelDirection(0, 90, 0), {0, 1, 0}));
    // North turned 90 degrees towards +X: a northern sun now lies along +X.
    EXPECT_TRUE(near(bearingToModelDirection(0, 0, 90), {1, 0, 0}));
    const float3 d = bearingToModelDirection(35, 45, 0);
    EXPECT_NEAR(d.x * d.x + d.y * d.y + d.z * d.z, 1.0f, 1e-6f);
    EXPECT_NEAR(d.y, std::sqrt(0.5f), 1e-6f);
}

} // namespace
} // namespace qv
