// The per-pixel sums of the camera kernel on scenes where every sample's
// value is known: accum = (sum of radiance, sample count), guideA = (sum of
// first-hit albedo, sum of first-hit distance along the ray), guideB = (sum
// of first-hit normal facing the camera, sum of squared sample luminance),
// and the stats counters of non-finite samples and dropped contributions.
#include "RenderTestScenes.h"

#include "pathtracer/EnergyTables.h"
#include "pathtracer/SceneTracer.h"
#include "shaders/BSDF.h"
#include "shaders/CameraRays.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>
#include <vector>

namespace qv {
namespace {

using namespace testscenes;

const float3 kAlbedo{0.5f, 0.4f, 0.3f};
const float3 kLe{3.0f, 2.0f, 1.0f};
constexpr float kWallZ = -2.0f;
constexpr float kWallDistance = 2.0f;

// A wall in the plane z = -2 whose winding normal faces +z, large enough to
// fill the view of a camera 2 m in front of it or behind it.
SceneMaker wall(bool doubleSided) {
    SceneMaker sm;
    uint32_t mat = sm.material(kAlbedo, 0.7f, 0.0f, kLe, doubleSided);
    sm.quad({-4, -3, kWallZ}, {4, -3, kWallZ}, {4, 5, kWallZ}, {-4, 5, kWallZ}, mat);
    sm.finish();
    return sm;
}

struct WallView {
    std::string name;
    bool fromFront;    // the camera looks at the winding normal's side
    bool doubleSided;  // the wall emits from both faces
};

void PrintTo(const WallView& v, std::ostream* os) { *os << v.name; }

constexpr int kW = 9, kH = 7;
constexpr float kFovDeg = 40; // vertical

CameraDef wallCamera(bool fromFront) {
    const float z = fromFront ? kWallZ + kWallDistance : kWallZ - kWallDistance;
    return camera({0, 1, z}, {0, 1, kWallZ}, kFovDeg);
}

// Hit distance of the ray through image position (x, y) for a wall square to
// the view at distance D: D |(sx a t, sy t, 1)|, with t = tan(fov / 2) and
// a the aspect ratio.
double wallDistance(double x, double y) {
    const double t = std::tan(kFovDeg * 3.14159265358979323846 / 360.0), a = double(kW) / kH;
    const double sx = (2 * x / kW - 1) * a * t, sy = (1 - 2 * y / kH) * t;
    return kWallDistance * std::sqrt(1 + sx * sx + sy * sy);
}

// The range and the tent-weighted mean of the hit distance over the pixel's
// filter support, the square of side 2 round its centre.
struct DistanceRange {
    double lo = 1e30, hi = 0, mean = 0;
};

DistanceRange pixelDistances(int px, int py) {
    DistanceRange r;
    const int q = 64;
    double wsum = 0;
    for (int i = 0; i <= q; ++i)
        for (int j = 0; j <= q; ++j) {
            double ox = -1 + 2.0 * i / q, oy = -1 + 2.0 * j / q;
            double d = wallDistance(px + 0.5 + ox, py + 0.5 + oy);
            r.lo = std::min(r.lo, d);
            r.hi = std::max(r.hi, d);
            double w = (1 - std::fabs(ox)) * (1 - std::fabs(oy));
            r.mean += w * d;
            wsum += w;
        }
    r.mean /= wsum;
    return r;
}

// n equal floats added one at a time, as the kernel accumulates them.
float sumOf(float v, int n) {
    float s = 0;
    for (int k = 0; k < n; ++k) s += v;
    return s;
}
float3 sumOf(float3 v, int n) { return float3{sumOf(v.x, n), sumOf(v.y, n), sumOf(v.z, n)}; }

class WallSums : public ::testing::TestWithParam<WallView> {};

// maxDepth 0: a sample is the emission seen at the first hit and nothing
// else, so every sum but the distance is known exactly.
TEST_P(WallSums, OneAndManySamplesHoldTheFirstHitValues) {
    const WallView& v = GetParam();
    RenderSettings s = smallSettings(kW, kH, 0);
    s.emissiveNits = 1;
    s.seed = 6;
    Render rd = render(wall(v.doubleSided), s, blackSky(), wallCamera(v.fromFront), 0);
    Renderer& r = *rd.r;
    const bool emits = v.fromFront || v.doubleSided;
    const float3 L = emits ? kLe : float3{};
    const float3 normal{0, 0, v.fromFront ? 1.0f : -1.0f}; // facing the camera
    const float lum = luminance(L);

    for (int n : {1, 16}) {
        r.encodeSamples(n == 1 ? 1 : n - 1);
        ASSERT_EQ(r.sampleCount(), n);
        int badExact = 0;
        double zMax = 0;
        for (int py = 0; py < kH; ++py)
            for (int px = 0; px < kW; ++px) {
                const size_t p = size_t(py * kW + px);
                const float4 a = r.accum()[p], ga = r.guideA()[p], gb = r.guideB()[p];
                // The unit normal may come out of a fast reciprocal square
                // root one unit in the last place short.
                const float3 nrm = xyz(gb) / float(n);
                const bool normalOk = std::fabs(nrm.x - normal.x) <= 1e-6f && std::fabs(nrm.y - normal.y) <= 1e-6f &&
                                      std::fabs(nrm.z - normal.z) <= 1e-6f;
                if (a != make_float4(sumOf(L, n), float(n)) || xyz(ga) != sumOf(kAlbedo, n) || !normalOk ||
                    gb.w != sumOf(lum * lum, n)) {
                    ++badExact;
                    ADD_FAILURE() << "pixel (" << px << ", " << py << ") after " << n << " samples: accum (" << a.x
                                  << ", " << a.y << ", " << a.z << ", " << a.w << "), albedo (" << ga.x << ", "
                                  << ga.y << ", " << ga.z << "), normal (" << gb.x << ", " << gb.y << ", " << gb.z
                                  << "), lum2 " << gb.w;
                }
                // The distance is along the ray, not the depth to the wall's
                // plane: within the range over the pixel's support, and its
                // mean near the tent-weighted mean (the spread within the
                // support bounds the standard deviation by half the range).
                const DistanceRange d = pixelDistances(px, py);
                const double mean = ga.w / n;
                EXPECT_GE(mean, d.lo * (1 - 1e-6)) << px << ", " << py;
                EXPECT_LE(mean, d.hi * (1 + 1e-6)) << px << ", " << py;
                const double se = 0.5 * (d.hi - d.lo) / std::sqrt(double(n));
                zMax = std::max(zMax, std::fabs(mean - d.mean) / se);
            }
        EXPECT_EQ(badExact, 0);
        EXPECT_LT(zMax, 4.5) << "a pixel's mean distance is far from its tent-weighted mean";
        EXPECT_EQ(r.statCounter(STAT_NONFINITE_SAMPLE), 0u);
        EXPECT_EQ(r.statCounter(STAT_DROPPED_SAMPLE), 0u);
    }
    // The corner pixels look 1.16 times further than the wall's plane.
    EXPECT_GT(r.guideA()[0].w / 16, 1.1f * kWallDistance);
}

INSTANTIATE_TEST_SUITE_P(Views, WallSums,
                         ::testing::Values(WallView{"FrontOfOneSidedEmitter", true, false},
                                           WallView{"BackOfOneSidedEmitter", false, false},
                                           WallView{"BackOfTwoSidedEmitter", false, true}),
                         [](const ::testing::TestParamInfo<WallView>& i) { return i.param.name; });

TEST(AlbedoMode, AccumHoldsTheAlbedoGuideTimesTheWhiteLuminance) {
    RenderSettings s = smallSettings(kW, kH, 4);
    s.debugAlbedo = true;
    s.emissiveNits = 1;
    Render rd = render(wall(false), s, blackSky(), wallCamera(true), 3);
    const Renderer& r = *rd.r;
    const float white = r.whiteLuminance();
    ASSERT_GT(white, 0.0f);
    for (size_t p = 0; p < r.accum().size(); ++p) {
        const float4 a = r.accum()[p];
        const float3 want = sumOf(kAlbedo * white, 3);
        EXPECT_EQ(xyz(a), want) << "pixel " << p;
        EXPECT_EQ(xyz(r.guideA()[p]), sumOf(kAlbedo, 3));
        EXPECT_EQ(r.guideB()[p].w, sumOf(luminance(kAlbedo * white) * luminance(kAlbedo * white), 3));
    }
}

// ---- Guides behind a clear pane ---------------------------------------------------

// A clear pane halfway between the camera and the wall reflects a few per
// cent of the camera rays (Fresnel). Those samples still take their guides
// from the wall behind the pane, so every sample's albedo, normal and
// distance are the wall's, as if the pane were not there.
TEST(GuidesBehindGlass, ReflectedSamplesTakeTheGuidesOfWhatLiesBehindThePane) {
    SceneMaker sm = wall(false);
    uint32_t glass = sm.material({1, 1, 1}, 0.0f);
    sm.model.materials[glass].transmission = 1;
    const float paneZ = kWallZ + 0.5f * kWallDistance;
    sm.quad({-3, -2, paneZ}, {3, -2, paneZ}, {3, 4, paneZ}, {-3, 4, paneZ}, glass);
    sm.finish();
    RenderSettings s = smallSettings(kW, kH, 0);
    s.emissiveNits = 1;
    s.seed = 2;
    const int n = 32;
    Render rd = render(sm, s, blackSky(), wallCamera(true), n);
    const Renderer& r = *rd.r;
    ASSERT_EQ(r.geometry()->glassTriangles, 2u);

    // With maxDepth 0 a transmitted sample is exactly Le (the pane is white)
    // and a reflected one is black: the count of reflections per pixel.
    double reflected = 0, expected = 0;
    const GPUUniforms u = r.updateUniforms();
    for (int py = 0; py < kH; ++py)
        for (int px = 0; px < kW; ++px) {
            const size_t p = size_t(py * kW + px);
            const float4 a = r.accum()[p], ga = r.guideA()[p], gb = r.guideB()[p];
            reflected += n - std::round(a.y / kLe.y);
            const float3 d = cameraRayDir(u, float2{px + 0.5f, py + 0.5f});
            expected += n * fresnelDielectric(std::fabs(d.z), 1.5f);
            EXPECT_EQ(xyz(ga), sumOf(kAlbedo, n)) << "albedo of pixel " << px << ", " << py;
            EXPECT_NEAR(gb.z / n, 1.0f, 1e-6f) << "normal of pixel " << px << ", " << py;
            const DistanceRange d2 = pixelDistances(px, py);
            EXPECT_GE(ga.w / n, d2.lo * (1 - 1e-5)) << "distance of pixel " << px << ", " << py;
            EXPECT_LE(ga.w / n, d2.hi * (1 + 1e-5)) << "distance of pixel " << px << ", " << py;
        }
    // The reflections are a binomial count with mean sum F (about 4% at
    // normal incidence); F barely changes within a pixel's footprint.
    EXPECT_NEAR(reflected, expected, 4.5 * std::sqrt(expected)) << "reflections against the Fresnel expectation";
    EXPECT_GT(reflected, 0.0) << "no sample was reflected: the test did not exercise the pane";
}

// ---- Temporal-denoiser guides, through the guides variant of the kernel ----------

struct TemporalGuideCase {
    std::string name;
    bool fromFront;
    bool albedoMode;
};

void PrintTo(const TemporalGuideCase& c, std::ostream* os) { *os << c.name; }

class TemporalGuides : public ::testing::TestWithParam<TemporalGuideCase> {};

// guideX per pixel: (diffuse albedo, roughness), (specular albedo, 0) of the
// BSDF at the first scattering vertex, and (primary emission capped by the
// sample, coverage). Depth 2 lets the wall light the ground and come back,
// so the sample exceeds the emission the camera sees directly.
TEST_P(TemporalGuides, HoldTheFirstVertexAlbedosAndThePrimaryEmission) {
    const TemporalGuideCase& c = GetParam();
    RenderSettings s = smallSettings(kW, kH, 2);
    s.emissiveNits = 1;
    s.debugAlbedo = c.albedoMode;
    Render rd = render(wall(false), s, blackSky(), wallCamera(c.fromFront), 0);
    const GeometryBuild& g = *rd.r->geometry();
    ASSERT_FALSE(rd.r->sunOn());
    GPUUniforms u = rd.r->updateUniforms();
    u.flags.x = (u.flags.x & ~FLAG_SKY_NEE) | FLAG_MFX_GUIDES;
    u.params2 = float4{0, 0, 1, 0}; // every sample through the pixel centre
    const float4 blackTexel{0, 0, 0, 0};
    u.counts.z = u.counts.w = 1;
    static const EnergyTables tables = buildEnergyTables(); // shared by the cases
    SceneData scene = geometrySceneData(g);
    scene.sky = &blackTexel;
    scene.dfg = tables.dfg.data();
    scene.dfgAvg = tables.dfgAvg.data();
    const SceneTracer tracer(g.opAS.get(), g.auxAS.get(), g.glassAS.get());
    const KernelTextures textures;

    const size_t P = size_t(kW * kH);
    std::vector<float4> accum(P), guideA(P), guideB(P), guideX(P * GUIDEX_PER_PIXEL);
    std::vector<uint32_t> stats(STAT_COUNT, 0u);
    const FrameSums sums{accum.data(), guideA.data(), guideB.data(), guideX.data(), stats.data()};
    const int samples = 4;
    struct Pixel {
        uint32_t x, y;
    };
    for (Pixel px : {Pixel{0, 0}, Pixel{4, 3}, Pixel{8, 6}, Pixel{2, 5}}) {
        for (int k = 0; k < samples; ++k) {
            u.dims.z = uint32_t(k);
            pathTracePixel<true>(KernelContext<SceneTracer>{u, scene, tracer, textures}, sums, px.x, px.y);
        }
        const size_t p = size_t(px.y) * kW + px.x;
        const float4* gx = &guideX[p * GUIDEX_PER_PIXEL];
        const float3 d = cameraRayDir(u, float2{px.x + 0.5f, px.y + 0.5f});
        const float mu = std::fabs(d.z); // the wall's normal is the z axis
        const float rough = 0.7f;
        const BSDF b = makeBSDF(tables.dfg.data(), tables.dfgAvg.data(), kAlbedo, 0.0f, rough, mu);
        const float2 t = dfgLookup(tables.dfg.data(), mu, rough);
        const float3 diffuse = b.diffuse * PI;
        const float3 specular = clamp((b.F0 * t.x + splat3(t.y)) * b.msScale, 0.0f, 1.0f);
        const float n = float(samples);
        auto near3 = [](float3 got, float3 want) {
            return std::fabs(got.x - want.x) <= 1e-5f * std::fabs(want.x) + 1e-7f &&
                   std::fabs(got.y - want.y) <= 1e-5f * std::fabs(want.y) + 1e-7f &&
                   std::fabs(got.z - want.z) <= 1e-5f * std::fabs(want.z) + 1e-7f;
        };
        EXPECT_TRUE(near3(xyz(gx[0]) / n, diffuse)) << "diffuse albedo at pixel " << px.x << ", " << px.y;
        EXPECT_NEAR(gx[0].w / n, rough, 1e-6f);
        EXPECT_TRUE(near3(xyz(gx[1]) / n, specular)) << "specular albedo at pixel " << px.x << ", " << px.y;
        EXPECT_EQ(gx[1].w, 0.0f);
        // The emission seen before the first scattering vertex: the wall's
        // front face, none from its back, none in albedo mode.
        const bool seen = c.fromFront && !c.albedoMode;
        EXPECT_EQ(xyz(gx[2]), seen ? sumOf(kLe, samples) : float3{});
        EXPECT_EQ(gx[2].w, seen ? n : 0.0f);
        if (seen) {
            EXPECT_GT(luminance(xyz(accum[p])), luminance(xyz(gx[2]))) << "the bounce light adds to the sample";
        }
        EXPECT_EQ(accum[p].w, n);
    }
    EXPECT_EQ(stats[STAT_NONFINITE_SAMPLE], 0u);
    EXPECT_EQ(stats[STAT_DROPPED_SAMPLE], 0u);
}

INSTANTIATE_TEST_SUITE_P(Views, TemporalGuides,
                         ::testing::Values(TemporalGuideCase{"FrontOfEmitter", true, false},
                                           TemporalGuideCase{"BackOfEmitter", false, false},
                                           TemporalGuideCase{"AlbedoMode", true, true}),
                         [](const ::testing::TestParamInfo<TemporalGuideCase>& i) { return i.param.name; });

// ---- Non-finite samples, through the kernel on a scene of sky only -------------

struct NothingTracer {
    KernelHit opaque(float3, float3, float) const { return KernelHit{}; }
    KernelHit aux(float3, float3, float) const { return KernelHit{}; }
    KernelHit glass(float3, float3, float, float) const { return KernelHit{}; }
    bool opaqueOccluded(float3, float3, float) const { return false; }
};

struct SkyOnlyCase {
    std::string name;
    float sky;        // radiance of the one sky texel (all channels)
    float sun;        // radiance of the sun disc, 0 = no sun
    float3 accumRgb;  // what the sample adds to accum.rgb
    uint32_t nonFinite, dropped; // stats counters 0 and 1 after the sample
};

void PrintTo(const SkyOnlyCase& c, std::ostream* os) { *os << c.name; }

class NonFiniteSamples : public ::testing::TestWithParam<SkyOnlyCase> {};

TEST_P(NonFiniteSamples, AreCountedAndStillAddOneToTheSampleCount) {
    const SkyOnlyCase& c = GetParam();
    const float4 skyTexel{c.sky, c.sky, c.sky, 0};
    SceneData scene;
    scene.sky = &skyTexel;
    GPUUniforms u{};
    u.camPos = float4{0, 1, 0, 0};
    u.camFwd = float4{0, 0, -1, 0};
    u.camRight = float4{0.5f, 0, 0, 0};
    u.camUp = float4{0, 0.5f, 0, 0};
    u.dims = uint4{2, 2, 0, 3};
    u.counts = uint4{0, 0, 1, 1};
    if (c.sun > 0) {
        // A disc 60 degrees across round the view direction.
        u.flags.x = FLAG_SUN;
        u.sunDir = float4{0, 0, -1, 0.5f};
        u.sunRadiance = float4{c.sun, c.sun, c.sun, PI};
    }
    std::vector<float4> accum(4, float4{1, 1, 1, 1}), guideA(4), guideB(4);
    std::vector<uint32_t> stats(STAT_COUNT, 0u);
    FrameSums sums;
    sums.accum = accum.data();
    sums.guideA = guideA.data();
    sums.guideB = guideB.data();
    sums.stats = stats.data();
    NothingTracer tracer;
    KernelTextures textures;
    pathTracePixel<false>(KernelContext<NothingTracer>{u, scene, tracer, textures}, sums, 1, 0);
    EXPECT_EQ(accum[1], make_float4(float3{1, 1, 1} + c.accumRgb, 2.0f));
    EXPECT_EQ(stats[STAT_NONFINITE_SAMPLE], c.nonFinite);
    EXPECT_EQ(stats[STAT_DROPPED_SAMPLE], c.dropped);
    // The guides of an escaped ray are kept: albedo 1 and distance 1e4.
    EXPECT_EQ(guideA[1], (float4{1, 1, 1, 1e4f}));
    EXPECT_EQ(guideB[1].w, luminance(c.accumRgb) * luminance(c.accumRgb));
    for (size_t p : {0u, 2u, 3u}) EXPECT_EQ(accum[p], (float4{1, 1, 1, 1})) << "only its own pixel changes";
}

INSTANTIATE_TEST_SUITE_P(
    Sky, NonFiniteSamples,
    ::testing::Values(
        SkyOnlyCase{"FiniteSky", 2.0f, 0.0f, {2, 2, 2}, 0, 0},
        // A NaN contribution is dropped: the sample is black and counted as dropped.
        SkyOnlyCase{"NaNSkyIsDropped", std::nanf(""), 0.0f, {0, 0, 0}, 0, 1},
        SkyOnlyCase{"InfiniteSkyIsDropped", INFINITY, 0.0f, {0, 0, 0}, 0, 1},
        // Two finite contributions whose sum overflows: the sample is replaced by black.
        SkyOnlyCase{"OverflowingSumIsBlack", 3.0e38f, 3.0e38f, {0, 0, 0}, 1, 0}),
    [](const ::testing::TestParamInfo<SkyOnlyCase>& i) { return i.param.name; });

} // namespace
} // namespace qv
