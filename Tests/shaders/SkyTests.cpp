// The sky: the fast map generator against the direct single-scattering march,
// the sun after the atmosphere against the closed-form vertical optical depth,
// the preset figures, horizontal illuminance and zenith luminance, and the
// sampling tables against the map's luminance.
#include "ChiSquareHarness.h"

#include "scene/EnvironmentPreset.h"
#include "scene/SkyModel.h"
#include "scene/SkyTables.h"
#include "shaders/KernelHelpers.h"
#include "shaders/Random.h"
#include "shaders/Sky.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace qv {
namespace {

float3 sunAt(float azDeg, float elDeg) {
    double a = azDeg * M_PI / 180, e = elDeg * M_PI / 180;
    return normalize(float3{float(std::sin(a) * std::cos(e)), float(std::sin(e)), float(-std::cos(a) * std::cos(e))});
}

SkyParams dayParams(float3 sunDir, int W, int H) {
    return makeSkyParams(sunDir, {128000, 128000, 128000}, 0.8f, {2.3f, 2.3f, 2.3f}, 1.6f, {0, 0, 0}, W, H);
}

TEST(SkyMap, GeneratorMatchesTheDirectMarchEverywhere) {
    // The row-shared terms and the transmittance table must reproduce the
    // per-direction march (64 view steps, 16 light steps each).
    struct Case {
        float elevation;
        float3 floor;
    };
    for (Case c : {Case{45, {0, 0, 0}}, Case{2, {0.4f, 0.6f, 1.4f}}, Case{-5, {0, 0, 0}}, Case{85, {0, 0, 0}}}) {
        SkyParams P = makeSkyParams(sunAt(290, c.elevation), {15000, 15000, 15000}, 0.8f, {1.3f, 1.3f, 1.45f}, 1.6f,
                                    c.floor, 48, 24);
        SkyMap sky = generateSkyMap(P);
        double worst = 0;
        for (uint32_t y = 0; y < sky.height; ++y)
            for (uint32_t x = 0; x < sky.width; ++x) {
                float3 ref = skyRadianceDirect(P, skyTexelDirection(x, y, sky.width, sky.height));
                float3 got = xyz(sky.env[size_t(y) * sky.width + x]);
                EXPECT_EQ(sky.env[size_t(y) * sky.width + x].w, 1.0f);
                for (int k = 0; k < 3; ++k) {
                    double rel = std::fabs(got[k] - ref[k]) / std::fmax(ref[k], 1e-3f);
                    worst = std::fmax(worst, rel);
                }
            }
        // The table's bilinear interpolation costs under 0.1% (grazing light rays).
        EXPECT_LT(worst, 0.005) << "sun elevation " << c.elevation;
    }
}

TEST(SkyMap, SunAtTheZenithIsDimmedByTheVerticalOpticalDepth) {
    // Straight up the optical depth has a closed form: each exponential layer
    // contributes beta H (e^(-h0/H) - e^(-top/H)); the ozone tent adds beta x 15 km.
    for (float mieScale : {1.0f, 1.6f}) {
        SkyParams P = makeSkyParams({0, 1, 0}, {100000, 100000, 100000}, 0.8f, {1, 1, 1}, mieScale, {0, 0, 0}, 8, 4);
        float4 out = skySunOut(P);
        ASSERT_EQ(out.w, 1.0f);
        const double h0 = SKY_OBSERVER_HEIGHT, top = SKY_RA - SKY_RE;
        const double layerR = SKY_HR * (std::exp(-h0 / SKY_HR) - std::exp(-top / SKY_HR));
        const double layerM = SKY_HM * (std::exp(-h0 / SKY_HM) - std::exp(-top / SKY_HM));
        // Midpoint-rule error of 256 steps on an exponential: (step / H)^2 / 24 relative.
        const double step = (top - h0) / SKY_SUN_STEPS;
        const float3 betaR = skyBetaR(), betaO = skyBetaO();
        for (int k = 0; k < 3; ++k) {
            double tauR = betaR[k] * layerR, tauM = SKY_BETA_ME * mieScale * layerM, tauO = betaO[k] * 15000.0;
            double tau = tauR + tauM + tauO;
            double tol = tauR * std::pow(step / SKY_HR, 2) / 24 + tauM * std::pow(step / SKY_HM, 2) / 24 + 1e-5 * tau;
            double got = -std::log(xyz(out)[k] / 100000.0);
            EXPECT_NEAR(got, tau, 1.5 * tol) << "channel " << k << " mie scale " << mieScale;
        }
    }
}

TEST(SkyMap, SunBelowTheHorizonIsShadowedWhileTheUpperSkyGlows) {
    SkyParams P = dayParams(sunAt(100, -5), 32, 16);
    SkyMap sky = generateSkyMap(P);
    EXPECT_EQ(sky.sunOut.x, 0.0f);
    EXPECT_EQ(sky.sunOut.w, 0.0f);
    EXPECT_FALSE(sunVisible(sky, sunAt(100, -5)));
    // Sunlight still reaches the upper atmosphere, so the zenith is not black.
    EXPECT_GT(zenithLuminance(sky), 0.0f);
    SkyMap day = generateSkyMap(dayParams(sunAt(100, 45), 32, 16));
    EXPECT_TRUE(sunVisible(day, sunAt(100, 45)));
    EXPECT_LT(zenithLuminance(sky), 0.05f * zenithLuminance(day));
}

TEST(SkyMap, NightFloorBoundsEveryTexelAndTheHorizonFadesBelow) {
    EnvironmentPreset night = EnvironmentPreset::preset(TimeOfDay::night);
    SkyParams P = makeSkyParams(night, sunAt(night.sunAzimuthDeg, night.sunElevationDeg), 32, 32);
    SkyMap sky = generateSkyMap(P);
    const float3 floor = night.skyFloor;
    for (uint32_t y = 0; y < sky.height; ++y) {
        float vy = skyTexelDirection(0, y, sky.width, sky.height).y;
        float k = vy < 0 ? std::fmax(0.35f, 1.0f + 6.0f * vy * 0.65f) : 1.0f; // 1 -> 0.35 by 1/6 rad below
        for (uint32_t x = 0; x < sky.width; ++x) {
            float3 L = xyz(sky.env[size_t(y) * sky.width + x]);
            EXPECT_GE(L.x, floor.x * k * 0.9999f);
            EXPECT_GE(L.z, floor.z * k * 0.9999f);
            if (vy < 0) {
                // Below the horizon: the horizon texel of the column, darkened.
                float3 horizon = skyRadianceDirect(P, skyViewAboveHorizon(skyTexelDirection(x, y, 32, 32)));
                EXPECT_NEAR(L.y, horizon.y * skyBelowHorizonFactor(vy), 0.01f * horizon.y);
            }
        }
    }
    // The darkening reaches 35% at 1/6 rad below and stays there.
    EXPECT_FLOAT_EQ(skyBelowHorizonFactor(-1.0f / 6.0f), 0.35f);
    EXPECT_FLOAT_EQ(skyBelowHorizonFactor(-0.9f), 0.35f);
    EXPECT_FLOAT_EQ(skyBelowHorizonFactor(0.0f), 1.0f);
}

TEST(SkyPreset, TopOfAtmosphereSunIlluminance) {
    // 128000 lux for the day sun, 0.00004 of it (5.12 lux) for the moon.
    struct Case {
        TimeOfDay time;
        float lux;
    };
    for (Case c : {Case{TimeOfDay::day, 128000.0f}, Case{TimeOfDay::dusk, 15360.0f}, Case{TimeOfDay::night, 5.12f}}) {
        EnvironmentPreset p = EnvironmentPreset::preset(c.time);
        SkyParams P = makeSkyParams(p, {0, 1, 0}, 16, 8);
        EXPECT_NEAR(luminance(xyz(P.sunE)), c.lux, 1e-4f * c.lux) << std::string(toString(c.time));
        EXPECT_EQ(P.sunE.w, p.mieG);
        EXPECT_EQ(P.tint.w, p.mieScale);
        EXPECT_EQ(P.dims.z, 64u);
        EXPECT_EQ(P.dims.w, 16u);
    }
}

TEST(SkyPreset, BadMapSizeIsAClearError) {
    try {
        makeSkyParams({0, 1, 0}, {1, 1, 1}, 0.8f, {1, 1, 1}, 1, {0, 0, 0}, 0, 512);
        FAIL() << "no error";
    } catch (const SkyError& e) {
        EXPECT_STREQ(e.what(), "sky map size 0x512 is out of range (1 to 16384 by 2 to 8192)");
    }
}

SkyMap uniformMap(uint32_t W, uint32_t H, float3 L) {
    SkyMap m;
    m.width = W;
    m.height = H;
    m.env.assign(size_t(W) * H, make_float4(L, 1));
    return m;
}

TEST(SkyIrradiance, UniformSkyGivesPiTimesRadianceOnAHorizontalSurface) {
    // E = integral of L cos(theta) over the upper hemisphere = pi L. The map's
    // rows sample cos sin = sin(2 theta) / 2 at their centres; the midpoint
    // rule with step h on sin(2 theta) gives exactly h / sin(h) times the integral.
    for (uint32_t H : {16u, 64u, 512u}) {
        SkyMap m = uniformMap(2 * H, H, {1000, 2000, 500});
        float3 E = computeSkyIrradiance(m);
        double h = M_PI / H, midpoint = h / std::sin(h);
        EXPECT_NEAR(E.y / (M_PI * 2000 * midpoint), 1.0, 1e-6) << H;
        EXPECT_NEAR(E.z / (M_PI * 500 * midpoint), 1.0, 1e-6) << H;
    }
    EXPECT_EQ(computeSkyIrradiance(SkyMap{}), float3{});
}

TEST(SkyIrradiance, ZenithLuminanceIsTheFirstRowMean) {
    SkyMap m = uniformMap(4, 4, {0, 0, 0});
    m.env[0] = {1, 1, 1, 1};
    m.env[1] = {2, 2, 2, 1};
    m.env[2] = {0, 1, 0, 1};
    m.env[5] = {100, 100, 100, 1}; // second row does not count
    EXPECT_NEAR(zenithLuminance(m), (1 + 2 + 0.7152f) / 4, 1e-6f);
    EXPECT_EQ(zenithLuminance(SkyMap{}), 0.0f);
}

TEST(SkyIrradiance, DayPresetFiguresArePlausibleDaylight) {
    // A clear day with the sun 45 degrees up: direct normal illuminance near
    // 100 klux after the atmosphere and a blue sky brightest near the horizon.
    EnvironmentPreset day = EnvironmentPreset::preset(TimeOfDay::day);
    float3 sun = sunAt(day.sunAzimuthDeg, day.sunElevationDeg);
    SkyMap sky = generateSkyMap(makeSkyParams(day, sun, 64, 32));
    float sunLux = luminance(xyz(sky.sunOut));
    EXPECT_GT(sunLux, 80000.0f);
    EXPECT_LT(sunLux, 128000.0f);
    float3 zenith = xyz(sky.env[0]);
    EXPECT_GT(zenith.z, zenith.x); // blue
    float E = luminance(computeSkyIrradiance(sky));
    EXPECT_GT(E, 5000.0f);
    EXPECT_LT(E, 40000.0f);
}

// ---- Sampling tables ---------------------------------------------------------

TEST(SkyTables, CumulativeTablesAreMonotoneAndEndAtOne) {
    SkyMap sky = generateSkyMap(dayParams(sunAt(35, 20), 64, 32));
    SkyTables t = SkyTables::build(sky.env.data(), sky.width, sky.height);
    ASSERT_EQ(t.rowCdf.size(), 32u);
    for (size_t y = 1; y < t.rowCdf.size(); ++y) EXPECT_GE(t.rowCdf[y], t.rowCdf[y - 1]);
    EXPECT_EQ(t.rowCdf.back(), 1.0f);
    for (uint32_t y = 0; y < 32; ++y) {
        for (uint32_t x = 1; x < 64; ++x) EXPECT_GE(t.colCdf[y * 64 + x], t.colCdf[y * 64 + x - 1]);
        EXPECT_FLOAT_EQ(t.colCdf[y * 64 + 63], 1.0f);
    }
    // The lower half is never sampled.
    EXPECT_EQ(t.rowCdf[15], 1.0f);
}

TEST(SkyTables, DensityIsProportionalToLuminanceTimesSinTheta) {
    SkyMap sky = generateSkyMap(dayParams(sunAt(200, 30), 64, 32));
    SkyTables t = SkyTables::build(sky.env.data(), 64, 32);
    // pdf / (luminance sin theta) is one constant over the upper half, with
    // the constant that makes the (theta, phi) density integrate to 1.
    double S = 0;
    for (uint32_t y = 0; y < 16; ++y)
        for (uint32_t x = 0; x < 64; ++x)
            S += std::sin((y + 0.5) / 32 * M_PI) * luminance(xyz(sky.env[y * 64 + x]));
    double k = 64.0 * 32 / (2 * M_PI * M_PI) / S;
    for (uint32_t y = 0; y < 32; ++y)
        for (uint32_t x = 0; x < 64; ++x) {
            double w = y < 16 ? std::sin((y + 0.5) / 32 * M_PI) * luminance(xyz(sky.env[y * 64 + x])) : 0.0;
            EXPECT_NEAR(t.pdf[y * 64 + x], w * k, 1e-5 * w * k + 1e-12);
        }
}

TEST(SkyTables, BlackSkyGivesUniformTablesOverTheUpperHalf) {
    SkyMap black = uniformMap(16, 8, {0, 0, 0});
    SkyTables t = SkyTables::build(black.env.data(), 16, 8);
    const std::vector<float> rows = {0.25f, 0.5f, 0.75f, 1, 1, 1, 1, 1};
    EXPECT_EQ(t.rowCdf, rows);
    for (uint32_t y = 0; y < 8; ++y)
        for (uint32_t x = 0; x < 16; ++x) EXPECT_FLOAT_EQ(t.colCdf[y * 16 + x], (x + 1) / 16.0f);
    for (size_t i = 0; i < 128; ++i)
        EXPECT_FLOAT_EQ(t.pdf[i], i < 64 ? float(16.0 * 8 / (2 * M_PI * M_PI) / 64) : 0.0f);
    // Sampling still works and stays above the horizon.
    uint32_t seed = 3;
    for (int i = 0; i < 100; ++i) {
        SkySample s = sampleSky(t.rowCdf.data(), t.colCdf.data(), t.pdf.data(), 16, 8,
                                {rnd(seed), rnd(seed), rnd(seed), rnd(seed)});
        EXPECT_GE(s.dir.y, 0.0f);
    }
}

// The harness bins around +z; the sky's up is +y, so directions are permuted.
class SkyTableSampler : public test::DirectionSampler {
public:
    SkyTableSampler(const SkyTables& t, uint32_t W, uint32_t H) : t_(t), W_(W), H_(H) {}
    test::DirSample sample(uint32_t& seed) const override {
        float4 u{rnd(seed), rnd(seed), rnd(seed), rnd(seed)};
        SkySample s = sampleSky(t_.rowCdf.data(), t_.colCdf.data(), t_.pdf.data(), W_, H_, u);
        return {float3{s.dir.x, s.dir.z, s.dir.y}, s.pdf};
    }
    double pdf(float3 d) const override { return skyPdfDir(t_.pdf.data(), W_, H_, float3{d.x, d.z, d.y}); }
    std::string name() const override { return "sky tables"; }

private:
    const SkyTables& t_;
    uint32_t W_, H_;
};

TEST(SkyTables, SamplesFollowTheTableDensity) {
    for (float elevation : {60.0f, 10.0f}) {
        SkyMap sky = generateSkyMap(dayParams(sunAt(35, elevation), 64, 32));
        SkyTables t = SkyTables::build(sky.env.data(), 64, 32);
        // Polar bins in theta align with the texel rows (two rows per bin).
        test::ChiSquareResult r =
            test::chiSquareTest(SkyTableSampler(t, 64, 32), 77, 40000, 16, 32, 8, test::PolarBins::theta);
        EXPECT_GT(r.pValue, 0.01 / 2) << "chi2 " << r.statistic << " dof " << r.dof;
        // The density is looked up from the direction again; only a sample
        // that rounds across a texel edge may read the neighbour's value.
        EXPECT_LT(r.mismatchFraction, 1e-3);
        EXPECT_NEAR(r.pdfMass, 1.0, 0.01);
        EXPECT_EQ(r.failedFraction, 0.0);
    }
}

TEST(SkyTables, ImportanceSampledIrradianceMatchesTheQuadrature) {
    // E = mean of L cos(theta) / pdf over table samples, unbiased for the map's
    // own (texel-constant) radiance; compared within 4 standard errors.
    SkyMap sky = generateSkyMap(dayParams(sunAt(35, 30), 128, 64));
    SkyTables t = SkyTables::build(sky.env.data(), 128, 64);
    uint32_t seed = 21;
    const int n = 20000;
    double sum = 0, sum2 = 0;
    for (int i = 0; i < n; ++i) {
        SkySample s = sampleSky(t.rowCdf.data(), t.colCdf.data(), t.pdf.data(), 128, 64,
                                {rnd(seed), rnd(seed), rnd(seed), rnd(seed)});
        double v = 0;
        if (s.pdf > 0) {
            SkyAngles a = skyAngles(s.dir);
            uint32_t x = std::min(uint32_t(a.phi / (2 * M_PI) * 128), 127u);
            uint32_t y = std::min(uint32_t(a.theta / M_PI * 64), 63u);
            v = luminance(xyz(sky.env[y * 128 + x])) * s.dir.y / s.pdf;
        }
        sum += v;
        sum2 += v * v;
    }
    double mean = sum / n, se = std::sqrt((sum2 / n - mean * mean) / n);
    double E = luminance(computeSkyIrradiance(sky));
    // The quadrature takes cos sin at row centres: at most h / sin(h) - 1 relative.
    const double h = M_PI / 64;
    EXPECT_NEAR(mean, E, 4 * se + E * (h / std::sin(h) - 1));
}

TEST(SkyTables, StraightUpHasNoDensityAndAFiniteLookup) {
    SkyMap sky = uniformMap(16, 8, {1, 2, 3});
    SkyTables t = SkyTables::build(sky.env.data(), 16, 8);
    EXPECT_EQ(skyPdfDir(t.pdf.data(), 16, 8, {0, 1, 0}), 0.0f);
    float3 L = skyLookup(sky.env.data(), 16, 8, {0, 1, 0});
    EXPECT_TRUE(isFinite(L));
    EXPECT_FLOAT_EQ(L.y, 2.0f);
}

} // namespace
} // namespace qv
