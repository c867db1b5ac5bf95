// The shared kernel helpers: random stream, basis, ray offset, MIS weight,
// accumulation guard and the CDF search.
#include "shaders/FastTrig.h"
#include "shaders/KernelHelpers.h"
#include "shaders/Random.h"
#include "shaders/Records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <random>
#include <cmath>
#include <limits>
#include <vector>

namespace qv {
namespace {

TEST(SinCosTurns, MatchesTheLibraryOnEveryQuadrantAndSign) {
    // Sweeps whole turns either side of zero, with the quarter-turn seams
    // (where the reduction switches quadrant) hit exactly.
    double worst = 0;
    for (int i = -40000; i <= 40000; ++i) {
        const float t = float(i) / 16384.0f;
        const SinCos r = sinCosTurns(t);
        const double a = 2.0 * 3.14159265358979323846 * double(t);
        worst = std::max({worst, std::fabs(r.s - std::sin(a)), std::fabs(r.c - std::cos(a))});
        ASSERT_NEAR(double(r.s) * r.s + double(r.c) * r.c, 1.0, 1e-6) << t;
    }
    EXPECT_LT(worst, 2e-7);
    EXPECT_EQ(sinCosTurns(0.0f).s, 0.0f);
    EXPECT_EQ(sinCosTurns(0.0f).c, 1.0f);
    EXPECT_NEAR(sinCosTurns(0.25f).s, 1.0f, 1e-7f);
    EXPECT_NEAR(sinCosTurns(0.5f).c, -1.0f, 1e-7f);
    EXPECT_NEAR(sinCosTurns(0.75f).s, -1.0f, 1e-7f);
    EXPECT_NEAR(sinCosTurns(0.99999994f).s, 0.0f, 1e-6f);
}

TEST(RandomStream, UniformInTheHalfOpenUnitInterval) {
    // The largest value is (2^24 - 1) 2^-24, never 1.
    EXPECT_LT(float((0xFFFFFFFFu >> 8) ) * 5.9604645e-8f, 1.0f);
    uint32_t seed = pcgHash(12345u);
    const int n = 200000, bins = 20;
    std::vector<int> hist(bins, 0);
    double sum = 0;
    for (int i = 0; i < n; ++i) {
        float u = rnd(seed);
        ASSERT_GE(u, 0.0f);
        ASSERT_LT(u, 1.0f);
        sum += u;
        ++hist[int(u * bins)];
    }
    EXPECT_NEAR(sum / n, 0.5, 4 * std::sqrt(1.0 / 12 / n));
    // Chi-square with 19 degrees of freedom; 43.8 is its 0.1% critical value.
    double chi2 = 0, e = double(n) / bins;
    for (int h : hist) chi2 += (h - e) * (h - e) / e;
    EXPECT_LT(chi2, 43.8);
}

TEST(RandomStream, HashSpreadsNeighbouringInputs) {
    // Adjacent seeds (pixels) must give unrelated streams: about half the bits differ.
    double flips = 0;
    for (uint32_t i = 0; i < 1000; ++i) flips += __builtin_popcount(pcgHash(i) ^ pcgHash(i + 1));
    EXPECT_NEAR(flips / 1000, 16.0, 1.0);
}

TEST(Basis, OrthonormalAroundEveryNormal) {
    std::vector<float3> normals = {{0, 0, 1}, {0, 0, -1}, {1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {1, 0, 0}};
    uint32_t seed = 4;
    for (int i = 0; i < 500; ++i)
        normals.push_back(normalize(float3{rnd(seed) * 2 - 1, rnd(seed) * 2 - 1, rnd(seed) * 2 - 1}));
    normals.push_back(normalize(float3{0.6f, 0.8f, 0.0f})); // n.z exactly 0
    for (float3 n : normals) {
        Basis b = makeBasis(n);
        EXPECT_NEAR(length(b.t), 1.0f, 1e-5f);
        EXPECT_NEAR(length(b.b), 1.0f, 1e-5f);
        EXPECT_NEAR(dot(b.t, n), 0.0f, 1e-5f);
        EXPECT_NEAR(dot(b.b, n), 0.0f, 1e-5f);
        EXPECT_NEAR(dot(b.t, b.b), 0.0f, 1e-5f);
        // Right-handed: t x b = n, so local z is the normal.
        float3 c = cross(b.t, b.b);
        EXPECT_NEAR(dot(c, n), 1.0f, 1e-5f);
        float3 w{0.3f, -0.5f, 0.81f};
        float3 back = toLocal(b, toWorld(b, w));
        EXPECT_NEAR(back.x, w.x, 1e-5f);
        EXPECT_NEAR(back.z, w.z, 1e-5f);
    }
}

TEST(OffsetRay, MovesOffTheSurfaceAlongTheNormal) {
    uint32_t seed = 9;
    for (int i = 0; i < 1000; ++i) {
        float scale = std::pow(10.0f, rnd(seed) * 8 - 3); // 1e-3 .. 1e5 m
        float3 p{(rnd(seed) * 2 - 1) * scale, (rnd(seed) * 2 - 1) * scale, (rnd(seed) * 2 - 1) * scale};
        float3 n = normalize(float3{rnd(seed) * 2 - 1, rnd(seed) * 2 - 1, rnd(seed) * 2 - 1});
        float3 q = offsetRay(p, n);
        EXPECT_GT(dot(q - p, n), 0.0f) << p.x << " " << p.y << " " << p.z;
        // Never more than a few hundred ulps (or 1/65536 near the origin).
        for (int k = 0; k < 3; ++k)
            EXPECT_LE(std::fabs(q[k] - p[k]), std::fmax(std::fabs(p[k]) * 257 * FLT_EPSILON, 1.6e-5f));
    }
}

TEST(OffsetRay, ZeroAndSmallCoordinatesUseTheFloatingPointStep) {
    float3 q = offsetRay({0, 0.01f, -0.02f}, {0, 1, -1});
    EXPECT_EQ(q.x, 0.0f);
    EXPECT_FLOAT_EQ(q.y, 0.01f + 1.0f / 65536);
    EXPECT_FLOAT_EQ(q.z, -0.02f - 1.0f / 65536);
    // Far from the origin the step is int(256 n) units in the last place.
    float3 r = offsetRay({100, -100, 100}, {0.5f, 0.5f, 0});
    EXPECT_EQ(asUintBits(r.x) - asUintBits(100.0f), 128u);
    EXPECT_EQ(asUintBits(-100.0f) - asUintBits(r.y), 128u); // smaller magnitude: moved toward +y
    EXPECT_EQ(r.z, 100.0f);
}

TEST(MISWeight, PowerHeuristic) {
    EXPECT_EQ(misW(0, 1), 0.0f);
    EXPECT_EQ(misW(-1, 1), 0.0f);
    EXPECT_EQ(misW(1, 0), 1.0f);
    EXPECT_FLOAT_EQ(misW(1, 1), 0.5f);
    EXPECT_FLOAT_EQ(misW(2, 1), 0.8f);
    // The weights of two strategies sum to 1.
    for (float a : {0.1f, 1.0f, 7.0f, 1e4f})
        for (float b : {0.2f, 3.0f, 1e-3f}) EXPECT_NEAR(misW(a, b) + misW(b, a), 1.0f, 1e-6f);
}

TEST(Accumulation, NonFiniteDroppedAndClampKeepsHue) {
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_TRUE(badFloat(inf));
    EXPECT_TRUE(badFloat(-inf));
    EXPECT_TRUE(badFloat(nan));
    EXPECT_FALSE(badFloat(FLT_MAX));
    EXPECT_FALSE(badFloat(FLT_TRUE_MIN));
    float3 L{1, 1, 1};
    bool bad = false;
    addC(L, {nan, 0, 0}, false, 0, bad);
    EXPECT_TRUE(bad);
    EXPECT_EQ(L, (float3{1, 1, 1}));
    bad = false;
    addC(L, {0, inf, 0}, true, 5, bad);
    EXPECT_TRUE(bad);
    bad = false;
    float3 c{40, 20, 10};
    addC(L, c, true, 5, bad);
    EXPECT_FALSE(bad);
    float3 added = L - float3{1, 1, 1};
    EXPECT_NEAR(luminance(added), 5.0f, 1e-4f);
    EXPECT_NEAR(added.x / added.y, 2.0f, 1e-5f);
    EXPECT_NEAR(added.y / added.z, 2.0f, 1e-5f);
    // Without the clamp, or below the limit, contributions pass unchanged.
    float3 M{};
    addC(M, c, false, 5, bad);
    addC(M, {1, 1, 1}, true, 5, bad);
    EXPECT_EQ(M, (float3{41, 21, 11}));
}

TEST(CdfSearch, InvertsTheDistribution) {
    const std::vector<float> pmf = {0.1f, 0.0f, 0.4f, 0.2f, 0.3f};
    std::vector<float> cdf;
    float run = 0;
    for (float p : pmf) cdf.push_back(run += p);
    EXPECT_EQ(searchCdf(cdf.data(), 5, 0.0f), 0u);
    EXPECT_EQ(searchCdf(cdf.data(), 5, 0.1f), 2u); // first value exceeding u; zero-probability entry skipped
    EXPECT_EQ(searchCdf(cdf.data(), 5, 0.99f), 4u);
    EXPECT_EQ(searchCdf(cdf.data(), 5, 1.5f), 4u); // above the last value: the last index
    EXPECT_EQ(searchCdf(cdf.data(), 1, 0.5f), 0u);
    // Round trip: uniform numbers land in each entry with its probability.
    uint32_t seed = 31;
    const int n = 50000;
    std::vector<int> hits(5, 0);
    for (int i = 0; i < n; ++i) ++hits[searchCdf(cdf.data(), 5, rnd(seed))];
    for (size_t k = 0; k < pmf.size(); ++k)
        EXPECT_NEAR(double(hits[k]) / n, pmf[k], 4 * std::sqrt(pmf[k] * (1 - pmf[k]) / n) + 1e-9) << k;
}

TEST(Records, UintBitsSurviveFloatSlots) {
    // A light 20 levels deep keeps bit 19 of its tree path and its depth exactly.
    GPULight light{};
    light.extra.z = asFloatBits(1u << 19 | 0x5u);
    light.extra.w = asFloatBits(20u);
    EXPECT_EQ(asUintBits(light.extra.z), (1u << 19) | 0x5u);
    EXPECT_EQ(asUintBits(light.extra.w), 20u);
    // Every bit pattern, even one that reads as NaN, comes back unchanged.
    EXPECT_EQ(asUintBits(asFloatBits(0xFFFFFFFFu)), 0xFFFFFFFFu);
}

} // namespace
} // namespace qv

namespace qv {
namespace {

// The guided search must return exactly what the plain search returns, for
// any table (flat runs, zero-probability entries, a last value below 1) and
// any u, including the ends of the guide's intervals.
TEST(CdfGuide, GuidedSearchEqualsThePlainSearch) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> uni(0.0f, 1.0f);
    const std::vector<uint32_t> sizes = {1, 2, 3, 17, 64, 65, 1000, 1024};
    for (uint32_t n : sizes) {
        for (int variant = 0; variant < 3; ++variant) {
            std::vector<float> w(n);
            for (uint32_t i = 0; i < n; ++i) w[i] = (variant == 1 && i % 3 == 0) ? 0.0f : uni(rng);
            if (variant == 2 && n > 4) std::fill(w.begin(), w.begin() + n / 2, 0.0f);
            double total = 0;
            for (float x : w) total += x;
            std::vector<float> cdf(n);
            double run = 0;
            for (uint32_t i = 0; i < n; ++i) {
                run += w[i];
                cdf[i] = total > 0 ? float(run / total) : float(i + 1) / float(n);
            }
            if (variant == 1) cdf[n - 1] = std::nextafter(1.0f, 0.0f); // rounding left the end short of 1
            std::vector<uint32_t> guide(CDF_GUIDE_N + 1);
            buildCdfGuide(cdf.data(), n, guide.data());
            std::vector<float> us;
            for (uint32_t k = 0; k <= CDF_GUIDE_N; ++k) {
                float level = float(k) / float(CDF_GUIDE_N);
                us.push_back(level);
                us.push_back(std::nextafter(level, 0.0f));
            }
            for (float c : cdf) {
                us.push_back(c);
                us.push_back(std::nextafter(c, 0.0f));
            }
            for (int i = 0; i < 2000; ++i) us.push_back(uni(rng));
            us.push_back(0.99999994f);
            for (float u : us) {
                if (!(u >= 0.0f && u < 1.0f)) continue;
                ASSERT_EQ(searchCdfGuided(cdf.data(), n, u, guide.data()), searchCdf(cdf.data(), n, u))
                    << "n " << n << " variant " << variant << " u " << u;
            }
        }
    }
}

} // namespace
} // namespace qv
