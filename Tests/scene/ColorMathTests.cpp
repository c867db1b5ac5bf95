#include "scene/ColorMath.h"

#include <gtest/gtest.h>

#include <limits>

namespace qv {
namespace {

using ColorMath::kelvinToLinearSRGB;
using ColorMath::luminance;
using ColorMath::planckianXY;
using ColorMath::whiteBalanceGains;

TEST(PlanckianLocus, MatchesPublishedChromaticities) {
    // Black-body chromaticities from the CIE tables (CIE 015): illuminant A is a
    // black body at 2856 K; the others are points on the Planckian locus.
    struct Case {
        double kelvin, x, y;
    };
    const Case cases[] = {{2856, 0.44757, 0.40745}, {3000, 0.43695, 0.40410}, {5000, 0.34510, 0.35162},
                          {6500, 0.31352, 0.32363}, {10000, 0.28063, 0.28825}};
    for (const auto& c : cases) {
        const auto xy = planckianXY(c.kelvin);
        EXPECT_NEAR(xy.x, c.x, 5e-4) << c.kelvin;
        EXPECT_NEAR(xy.y, c.y, 5e-4) << c.kelvin;
    }
}

TEST(KelvinToLinearSRGB, HasUnitLuminanceAtEveryTemperature) {
    for (double k = 1000; k <= 30000; k += 250)
        EXPECT_NEAR(luminance(kelvinToLinearSRGB(k)), 1.0f, 1e-5f) << k;
}

TEST(KelvinToLinearSRGB, NearWhiteAt6500WarmBelowCoolAbove) {
    const float3 white = kelvinToLinearSRGB(6500);
    // The black body at 6500 K sits just below D65 on the chromaticity chart.
    EXPECT_NEAR(white.x, 1.0f, 0.06f);
    EXPECT_NEAR(white.y, 1.0f, 0.06f);
    EXPECT_NEAR(white.z, 1.0f, 0.06f);

    const float3 tungsten = kelvinToLinearSRGB(2700); // orange: red > green > blue
    EXPECT_GT(tungsten.x, tungsten.y);
    EXPECT_GT(tungsten.y, tungsten.z);
    EXPECT_GT(tungsten.x, 1.3f);
    EXPECT_LT(tungsten.z, 0.5f);

    const float3 shade = kelvinToLinearSRGB(12000); // blue sky light: blue > green > red
    EXPECT_GT(shade.z, shade.y);
    EXPECT_GT(shade.y, shade.x);
}

TEST(KelvinToLinearSRGB, RedFallsAndBlueRisesWithTemperature) {
    // A hotter black body shifts its emission to shorter wavelengths: at equal
    // luminance red only ever falls and blue only ever rises.
    float3 previous = kelvinToLinearSRGB(1667);
    for (double k = 1687; k <= 25000; k += 20) {
        const float3 c = kelvinToLinearSRGB(k);
        EXPECT_LE(c.x, previous.x + 1e-6f) << k;
        EXPECT_GE(c.z, previous.z - 1e-6f) << k;
        previous = c;
    }
}

TEST(KelvinToLinearSRGB, ClampsToTheFittedRange) {
    const float3 low = kelvinToLinearSRGB(1667), high = kelvinToLinearSRGB(25000);
    for (double k : {0.0, 500.0, 1000.0, 1666.0}) {
        const float3 c = kelvinToLinearSRGB(k);
        EXPECT_EQ(c.x, low.x) << k;
        EXPECT_EQ(c.y, low.y) << k;
        EXPECT_EQ(c.z, low.z) << k;
    }
    for (double k : {25001.0, 40000.0, 1e9}) {
        const float3 c = kelvinToLinearSRGB(k);
        EXPECT_EQ(c.x, high.x) << k;
        EXPECT_EQ(c.z, high.z) << k;
    }
}

TEST(WhiteBalanceGains, NeutraliseTheIlluminantAndKeepLuminance) {
    const float3 one = whiteBalanceGains({1, 1, 1});
    EXPECT_FLOAT_EQ(one.x, 1.0f);
    EXPECT_FLOAT_EQ(one.y, 1.0f);
    EXPECT_FLOAT_EQ(one.z, 1.0f);

    const float3 g = whiteBalanceGains({2, 1, 1}); // L = 1.2126
    EXPECT_NEAR(g.x, 0.6063f, 1e-4f);
    EXPECT_NEAR(g.y, 1.2126f, 1e-4f);
    EXPECT_NEAR(g.z, 1.2126f, 1e-4f);

    // A grey lit by a black body (one inside the sRGB gamut: no channel clipped
    // to zero) comes out neutral with the light's luminance.
    for (double k : {2700.0, 4200.0, 6500.0, 15000.0}) {
        const float3 light = kelvinToLinearSRGB(k);
        const float3 gains = whiteBalanceGains(light);
        const float3 out = light * gains;
        EXPECT_NEAR(out.x, out.y, 1e-4f) << k;
        EXPECT_NEAR(out.y, out.z, 1e-4f) << k;
        EXPECT_NEAR(out.x, luminance(light), 1e-4f) << k;
    }
}

TEST(WhiteBalanceGains, DegenerateIlluminantsLeaveTheImageAlone) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    for (const float3 c : {float3{nan, 1, 1}, float3{inf, 1, 1}, float3{0, 0, 0}, float3{-1, -1, -1}}) {
        const float3 g = whiteBalanceGains(c);
        EXPECT_NEAR(g.x, 1.0f, 1e-5f);
        EXPECT_NEAR(g.y, 1.0f, 1e-5f);
        EXPECT_NEAR(g.z, 1.0f, 1e-5f);
    }
}

} // namespace
} // namespace qv
