// The renderer end to end on tiny scenes built here: the three estimators
// (full MIS, BSDF sampling only, light sampling only) agree within noise, a
// lamp of known lumens lights the ground plane with the irradiance I cos / d^2,
// the sky and sun seen by escaping camera rays are the sky map's, and the
// accumulation is deterministic and band-independent.
#include "RenderTestScenes.h"
#include "pathtracer/EnergyTables.h"
#include "pathtracer/Renderer.h"
#include "scene/ColorMath.h"
#include "scene/SiteLocation.h"
#include "scene/SkyModel.h"
#include "shaders/BSDF.h"
#include "shaders/CameraRays.h"
#include "shaders/KernelHelpers.h"
#include "shaders/Sky.h"

#include <gtest/gtest.h>
#include <tbb/global_control.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

namespace qv {
namespace {

using namespace testscenes;

constexpr double kZ = 4.0; // standard errors allowed between two estimates (or an estimate and its exact value)

void expectSameMean(const ImageMean& a, const ImageMean& b, const char* what) {
    double tol = kZ * std::sqrt(a.se * a.se + b.se * b.se);
    EXPECT_NEAR(a.mean, b.mean, tol) << what << ": " << a.mean << " +- " << a.se << " against " << b.mean << " +- "
                                     << b.se;
}

// ---- The three estimators agree --------------------------------------------------

struct EstimatorScene {
    std::string name;
    SceneMaker scene;
    EnvironmentPreset env;
    bool bsdfOnly = true; // whether lamps and emitters can be found by BSDF sampling alone (no sun)
    bool skyBsdfOnly = false; // compare against BSDF sampling of the sky instead
};

// A diffuse floor seen from above; the emitter stands beside the view.
SceneMaker floorScene() {
    SceneMaker sm;
    uint32_t floorMat = sm.material({0.7f, 0.7f, 0.7f}, 0.8f);
    sm.rectangle(0, -2, 2, -2, 2, floorMat);
    return sm;
}

std::vector<EstimatorScene> estimatorScenes() {
    std::vector<EstimatorScene> out;
    {
        EstimatorScene e{"pendant", floorScene(), blackSky()};
        LightDef d = lampDef("pendant", {1.3f, 0.6f, 0.0f}, 1500);
        d.radius = 0.25f;
        e.scene.lamp(d);
        out.push_back(e);
    }
    {
        EstimatorScene e{"downlight", floorScene(), blackSky()};
        LightDef d = lampDef("downlight", {-1.1f, 0.9f, 0.3f}, 1500);
        d.radius = 0.3f;
        d.coneDeg = 120;
        d.direction = std::vector<float>{0.4f, -1, 0};
        e.scene.lamp(d);
        out.push_back(e);
    }
    {
        EstimatorScene e{"strip", floorScene(), blackSky()};
        LightDef d = lampDef("strip", {-1.0f, 0.5f, -1.1f}, 1500);
        d.end = std::vector<float>{1.0f, 0.5f, -1.1f};
        d.width = 0.3f;
        e.scene.lamp(d);
        out.push_back(e);
    }
    {
        // A one-sided emissive panel facing down close over the floor (so that
        // its density's distance-squared factor is far from 1), and a lamp beside it.
        EstimatorScene e{"emissive panel", floorScene(), blackSky()};
        uint32_t glow = e.scene.material({0.5f, 0.5f, 0.5f}, 0.6f, 0, {0.4f, 0.35f, 0.3f});
        e.scene.rectangle(0.3f, 0.9f, 1.7f, -0.5f, 0.5f, glow, true);
        LightDef d = lampDef("pendant", {-1.3f, 0.5f, 0.6f}, 400);
        d.radius = 0.2f;
        e.scene.lamp(d);
        out.push_back(e);
    }
    {
        // Daylight: sky by next-event estimation against sky by BSDF sampling.
        EstimatorScene e{"overcast sky", floorScene(), blackSky()};
        e.env.skyFloor = float3{900, 1000, 1200};
        e.skyBsdfOnly = true;
        out.push_back(e);
    }
    {
        // The sun cannot be found by BSDF sampling: full MIS against NEE only.
        EstimatorScene e{"sun and sky", floorScene(), EnvironmentPreset::preset(TimeOfDay::day)};
        e.bsdfOnly = false;
        out.push_back(e);
    }
    for (EstimatorScene& e : out) e.scene.finish();
    return out;
}

class EstimatorConsistency : public ::testing::TestWithParam<int> {};

TEST_P(EstimatorConsistency, MisBsdfOnlyAndNeeOnlyAgreeWithinNoise) {
    const CameraDef cam = camera({0, 2.2f, 0.4f}, {0, 0, 0}, 40);
    const EstimatorScene e = estimatorScenes()[size_t(GetParam())];
    RenderSettings s = smallSettings(12, 12, 4);
    s.seed = 11;
    ImageMean mis = imageMean(*render(e.scene, s, e.env, cam, 48).r);
    EXPECT_GT(mis.mean, 0.0);

    RenderSettings neeOnly = s;
    neeOnly.debugNeeOnly = true;
    neeOnly.seed = 12;
    expectSameMean(mis, imageMean(*render(e.scene, neeOnly, e.env, cam, 48).r), "NEE only");

    if (e.bsdfOnly) {
        RenderSettings bsdf = s;
        (e.skyBsdfOnly ? bsdf.debugNoSkyNEE : bsdf.debugNoLightNEE) = true;
        bsdf.seed = 13;
        expectSameMean(mis, imageMean(*render(e.scene, bsdf, e.env, cam, 96).r), "BSDF sampling only");
    }
}

std::string estimatorSceneName(const ::testing::TestParamInfo<int>& param) {
    static const char* const kNames[] = {"Pendant", "Downlight", "Strip", "EmissivePanel", "OvercastSky", "SunAndSky"};
    return kNames[param.param];
}

INSTANTIATE_TEST_SUITE_P(Scenes, EstimatorConsistency, ::testing::Range(0, 6), estimatorSceneName);

// ---- A lamp of known lumens over the ground -------------------------------------

// A model of one small triangle far from the view, so that only the ground
// plane or the sky is seen.
SceneMaker farTriangle() {
    SceneMaker sm;
    sm.triangle({50, 0, 50}, {50.1f, 0, 50}, {50, 0, 50.1f}, sm.material({0.5f, 0.5f, 0.5f}, 1));
    sm.finish();
    return sm;
}

TEST(KnownIrradiance, LampOverTheGroundGivesBsdfTimesIntensityOverDistanceSquared) {
    // Only the ground plane is in view (the model's one triangle is far away).
    SceneMaker sm = farTriangle();
    const float lumens = 2000, kelvin = 4000, radius = 0.02f;
    const float3 centre{0.7f, kGroundHeight + 1.3f, 0.2f};
    LightDef d = lampDef("pendant", {centre.x, centre.y, centre.z}, lumens);
    d.kelvin = kelvin;
    d.radius = radius;
    sm.lamp(d);
    sm.finish();

    const int W = 8, H = 8;
    RenderSettings s = smallSettings(W, H, 1);
    s.seed = 3;
    const CameraDef cam = camera({0, kGroundHeight + 2.0f, 0}, {0, kGroundHeight, 0}, 20);
    Render rd = render(sm, s, blackSky(), cam, 32);
    const Renderer& r = *rd.r;
    ASSERT_TRUE(r.geometry());
    EXPECT_FALSE(r.geometry()->groundFromModel);
    EXPECT_FALSE(r.sunOn());

    // The expectation per pixel: the pixel filter (a tent of radius one pixel)
    // integrated by quadrature over camera rays meeting the ground, each
    // giving f(v, l) E with E = (lumens / 4 pi) cos(theta) / d^2, exact for a
    // sphere wholly above the horizon.
    const EnergyTables tables = buildEnergyTables();
    const float3 colour = ColorMath::kelvinToLinearSRGB(kelvin);
    const double intensity = lumens / (4 * PI);
    GPUUniforms u = r.updateUniforms();
    const Basis frame = makeBasis(float3{0, 1, 0});
    const int q = 12;
    double expectSum = 0, maxAngle = 0;
    float3 expectRgb{};
    std::vector<double> expected(size_t(W * H));
    for (int py = 0; py < H; ++py)
        for (int px = 0; px < W; ++px) {
            double sum = 0;
            for (int i = 0; i < q; ++i)
                for (int j = 0; j < q; ++j) {
                    float2 pix{px + 0.5f + tentOffset(2.0f * (i + 0.5f) / q), py + 0.5f + tentOffset(2.0f * (j + 0.5f) / q)};
                    float3 dir = cameraRayDir(u, pix);
                    float t = (kGroundHeight - u.camPos.y) / dir.y;
                    float3 X = xyz(u.camPos) + dir * t;
                    float3 toLamp = centre - X;
                    double dist = length(toLamp);
                    float3 l = toLocal(frame, toLamp / float(dist)), v = toLocal(frame, -dir);
                    BSDF b = makeBSDF(tables.dfg.data(), tables.dfgAvg.data(), kDefaultGroundAlbedo, 0, 0.95f, v.z);
                    float3 f = bsdfEval(b, v, l).f;
                    double E = intensity * l.z / (dist * dist);
                    sum += luminance(f * colour) * E;
                    expectRgb += f * colour * float(E / (q * q));
                    maxAngle = std::max(maxAngle, double(radius) / dist);
                }
            expected[size_t(py * W + px)] = sum / (q * q);
            expectSum += sum / (q * q);
        }
    // The BSDF is taken at the lamp's centre; over the lamp's small cone it
    // varies by a relative amount of order the cone's angle squared.
    const double modelError = 2 * maxAngle * maxAngle;

    ImageMean m = imageMean(r);
    double expectMean = expectSum / (W * H);
    EXPECT_NEAR(m.mean, expectMean, kZ * m.se + modelError * expectMean)
        << "relative error " << m.mean / expectMean - 1 << ", standard error " << m.se / expectMean;
    int bad = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        const float4& a = r.accum()[i];
        double n = a.w, mean = luminance(xyz(a)) / n;
        double var = std::max(double(r.guideB()[i].w) / n - mean * mean, 0.0) / (n - 1);
        if (std::fabs(mean - expected[i]) > 5 * std::sqrt(var) + modelError * expected[i]) ++bad;
    }
    EXPECT_EQ(bad, 0) << "pixels off their own expectation";
    // The colour: the lamp's kelvin colour through the ground's BSDF, per
    // channel. Every channel shares the same paths, so the ratios are nearly
    // free of noise; 1% still tells any channel mix-up.
    float3 rgb{};
    for (const float4& a : r.accum()) rgb += xyz(a) / a.w;
    EXPECT_NEAR((rgb.x / rgb.y) / (expectRgb.x / expectRgb.y), 1.0, 0.01);
    EXPECT_NEAR((rgb.z / rgb.y) / (expectRgb.z / expectRgb.y), 1.0, 0.01);
}

// ---- Escaping camera rays see the sky map ---------------------------------------

// The sky map the renderer builds for a preset, made again here.
SkyMap skyFor(const EnvironmentPreset& env, const RenderSettings& s, float3 sunDir) {
    return generateSkyMap(makeSkyParams(env, sunDir, s.skyWidth, s.skyHeight));
}

TEST(EscapedRays, CameraRayThatHitsNothingReturnsTheSkyLookup) {
    const SceneMaker sm = farTriangle();
    const EnvironmentPreset env = EnvironmentPreset::preset(TimeOfDay::day);
    const float3 sunDir = bearingToModelDirection(env.sunAzimuthDeg, env.sunElevationDeg, 0.0);
    // Look up and away from the sun.
    const float3 eye{0, 1, 0};
    const CameraDef cam = camera(eye, eye + float3{-sunDir.x, 0.6f, -sunDir.z}, 60);
    const int W = 10, H = 8;
    RenderSettings s = smallSettings(W, H, 3);
    s.seed = 5;
    Render rd = render(sm, s, env, cam, 2);
    const Renderer& r = *rd.r;
    const SkyMap sky = skyFor(env, s, r.sunDirection());
    ASSERT_EQ(sky.env.size(), size_t(s.skyWidth * s.skyHeight));

    // Replay each pixel's camera rays: the seed of the pixel and sample, the
    // tent jitter, the ray, and the map's bilinear lookup along it.
    int bad = 0;
    GPUUniforms u = r.updateUniforms();
    for (int py = 0; py < H; ++py)
        for (int px = 0; px < W; ++px) {
            uint32_t p = uint32_t(py * W + px);
            float3 sum{};
            for (uint32_t sample = 0; sample < 2; ++sample) {
                uint32_t seed = pixelSeed(p, sample, u.flags.z);
                float r1 = 2.0f * rnd(seed), r2 = 2.0f * rnd(seed);
                float2 pix{px + 0.5f + tentOffset(r1), py + 0.5f + tentOffset(r2)};
                float3 d = cameraRayDir(u, pix);
                ASSERT_GT(d.y, 0.0f);
                sum += skyLookup(sky.env.data(), sky.width, sky.height, d);
            }
            float3 got = xyz(r.accum()[p]);
            if (std::fabs(got.x - sum.x) > 1e-4f * sum.x || std::fabs(got.y - sum.y) > 1e-4f * sum.y ||
                std::fabs(got.z - sum.z) > 1e-4f * sum.z)
                ++bad;
            // First-hit guides of the sky: albedo 1, distance 1e4, normal toward the camera.
            EXPECT_FLOAT_EQ(r.guideA()[p].w, 2e4f);
            EXPECT_FLOAT_EQ(r.guideA()[p].y, 2.0f);
        }
    EXPECT_EQ(bad, 0) << "pixels differing from the sky map along their own rays";
}

TEST(EscapedRays, RayIntoTheSunDiscAddsTheSunRadiance) {
    const SceneMaker sm = farTriangle();
    const EnvironmentPreset env = EnvironmentPreset::preset(TimeOfDay::day);
    RenderSettings s = smallSettings(4, 4, 3);
    // A view narrower than the sun's disc, centred on it.
    Renderer probe(s, nullptr);
    probe.setEnvironment(env, 0.0f);
    const float3 sunDir = probe.sunDirection();
    ASSERT_TRUE(probe.sunOn());
    const CameraDef cam = camera({0, 1, 0}, float3{0, 1, 0} + sunDir, env.sunAngularRadiusDeg * 0.3f);
    Render rd = render(sm, s, env, cam, 4);
    const Renderer& r = *rd.r;
    const SkyMap sky = skyFor(env, s, sunDir);
    const float a = env.sunAngularRadiusDeg * PI / 180.0f;
    const double omega = 2 * PI * (1 - std::cos(double(a)));
    const double sunLum = r.sunIlluminanceLux() / omega;
    const double skyLum = luminance(skyLookup(sky.env.data(), sky.width, sky.height, sunDir));
    for (const float4& p : r.accum()) {
        double lum = luminance(xyz(p)) / p.w;
        EXPECT_NEAR(lum, sunLum + skyLum, 2e-3 * (sunLum + skyLum));
    }
}

// ---- Determinism and accumulation bookkeeping --------------------------------------

SceneMaker lampRoom() {
    SceneMaker sm = floorScene();
    LightDef d = lampDef("pendant", {0.8f, 0.7f, 0.0f}, 1200);
    d.radius = 0.1f;
    sm.lamp(d);
    uint32_t wall = sm.material({0.6f, 0.5f, 0.4f}, 0.3f);
    sm.triangle({-1, 0, -1}, {1, 0, -1}, {1, 1.5f, -1}, wall);
    sm.finish();
    return sm;
}

bool sameBits(const std::vector<float4>& a, const std::vector<float4>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float4)) == 0;
}

TEST(Determinism, SameSeedGivesIdenticalSumsOnAnyThreadCount) {
    const SceneMaker sm = lampRoom();
    const CameraDef cam = camera({0, 1.5f, 1.5f}, {0, 0.2f, 0}, 60);
    RenderSettings s = smallSettings(24, 16, 6);
    s.clampMultiple = 10;
    s.seed = 7;
    Render two = render(sm, s, EnvironmentPreset::preset(TimeOfDay::dusk), cam, 3);
    Render one;
    {
        tbb::global_control single(tbb::global_control::max_allowed_parallelism, 1);
        one = render(sm, s, EnvironmentPreset::preset(TimeOfDay::dusk), cam, 3);
    }
    EXPECT_TRUE(sameBits(one.r->accum(), two.r->accum()));
    EXPECT_TRUE(sameBits(one.r->guideA(), two.r->guideA()));
    EXPECT_TRUE(sameBits(one.r->guideB(), two.r->guideB()));

    RenderSettings other = s;
    other.seed = 8;
    Render three = render(sm, other, EnvironmentPreset::preset(TimeOfDay::dusk), cam, 3);
    EXPECT_FALSE(sameBits(three.r->accum(), two.r->accum())) << "a different seed must give different samples";
}

TEST(Determinism, BandsOfRowsAddUpToWholeSamples) {
    const SceneMaker sm = lampRoom();
    const CameraDef cam = camera({0, 1.5f, 1.5f}, {0, 0.2f, 0}, 60);
    RenderSettings s = smallSettings(16, 13, 4);
    const EnvironmentPreset env = EnvironmentPreset::preset(TimeOfDay::night);

    Render whole = render(sm, s, env, cam, 1);
    EXPECT_EQ(whole.r->sampleCount(), 1);

    // encodeRows(H) on a fresh frame is one whole sample.
    Render rows = render(sm, s, env, cam, 0);
    EXPECT_EQ(rows.r->encodeRows(13), 1);
    EXPECT_EQ(rows.r->sampleCount(), 1);
    EXPECT_TRUE(sameBits(rows.r->accum(), whole.r->accum()));

    // Bands of 3 rows: the fifth band completes the sample, the sixth starts the next.
    Render bands = render(sm, s, env, cam, 0);
    int64_t done = 0;
    for (int k = 0; k < 4; ++k) done += bands.r->encodeRows(3);
    EXPECT_EQ(done, 0);
    EXPECT_EQ(bands.r->sampleCount(), 0);
    EXPECT_EQ(bands.r->encodeRows(3), 1);
    EXPECT_EQ(bands.r->sampleCount(), 1);
    // A band is in progress: encodeSamples(2) completes it and adds one whole sample.
    EXPECT_EQ(bands.r->encodeSamples(2), 2);
    EXPECT_EQ(bands.r->sampleCount(), 3);
    Render three = render(sm, s, env, cam, 3);
    EXPECT_TRUE(sameBits(bands.r->accum(), three.r->accum()));
    EXPECT_TRUE(sameBits(bands.r->guideB(), three.r->guideB()));
    for (const float4& a : bands.r->accum()) EXPECT_EQ(a.w, 3.0f);
}

TEST(Uniforms, ClampSeedAndPanoramaSpacing) {
    RenderSettings s = smallSettings(40, 20, 4);
    s.clampMultiple = 0;
    s.seed = 0;
    Renderer r(s, nullptr);
    r.setEnvironment(EnvironmentPreset::preset(TimeOfDay::day), 0.0f);
    r.setCamera(camera({0, 1, 0}, {0, 1, -1}, 70));
    r.resize(40, 20);
    GPUUniforms u = r.updateUniforms();
    EXPECT_EQ(u.params0.x, 0.0f) << "clampMultiple 0 turns the clamp off";
    EXPECT_EQ(u.flags.z, 17u);
    EXPECT_EQ(u.params2.w, 0.0f);

    s.clampMultiple = 10;
    s.seed = 3;
    r.setSettings(s);
    u = r.updateUniforms();
    EXPECT_FLOAT_EQ(u.params0.x, 10 * r.whiteLuminance());
    EXPECT_EQ(u.flags.z, 17u + 3u * 7919u);
    s.seed = 0xFFFFFFFFu;
    r.setSettings(s);
    EXPECT_EQ(r.updateUniforms().flags.z, uint32_t(17u - 7919u)) << "the seed wraps around in 32 bits";

    // A panorama with 4 padding columns on each side: the 32 inner columns
    // span 360 degrees, the centre column looks forward, and the padding
    // continues across the seam.
    s.projection = Projection::equirect;
    r.setSettings(s);
    r.setEquirectPad(4);
    u = r.updateUniforms();
    EXPECT_FLOAT_EQ(u.params2.w, TWO_PI / 32.0f);
    EXPECT_NE(u.flags.x & FLAG_EQUIRECT, 0u);
    float3 centre = cameraRayDir(u, float2{20.0f, 10.0f});
    EXPECT_NEAR(centre.z, -1.0f, 1e-5f);
    EXPECT_NEAR(cameraRayDir(u, float2{28.0f, 10.0f}).x, 1.0f, 1e-5f) << "a quarter turn right of forward";
    for (float col : {4.0f, 5.5f}) {
        float3 a = cameraRayDir(u, float2{col, 7.0f}), b = cameraRayDir(u, float2{col + 32.0f, 7.0f});
        EXPECT_NEAR(a.x, b.x, 1e-5f);
        EXPECT_NEAR(a.y, b.y, 1e-5f);
        EXPECT_NEAR(a.z, b.z, 1e-5f);
    }
    EXPECT_NEAR(cameraRayDir(u, float2{20.0f, 0.0f}).y, 1.0f, 1e-5f);
}

} // namespace
} // namespace qv
