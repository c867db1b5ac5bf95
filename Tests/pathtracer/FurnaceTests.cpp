// Closed furnace: a camera inside a closed box whose inner faces all emit the
// same radiance Le and all reflect with the same BSDF. The radiance along any
// camera ray is then the Neumann series Le (1 + T1 + T1 T2 + ...) cut at the
// depth limit, where Tk is the throughput of the k-th bounce; with a constant
// directional albedo rho it is Le (1 + rho + ... + rho^maxDepth).
//
// The opaque BSDF's directional albedo is not exactly constant for any
// reflectance below one (base colours are capped at 0.98, and a dielectric's
// specular lobe takes a share that depends on the angle), so the expected
// series is computed independently here: an analog random walk in the same
// box, the BSDF sampled with its own weights, every bounce's emission counted
// (no next-event estimation, no MIS, no roulette, no clamp), with analytic
// box intersection. The renderer's full estimator (emissive-triangle NEE and
// BSDF hits combined by the power heuristic, Russian roulette) must agree
// with it within noise. The box is lit from outside by the daylight sun and
// sky: any leak of a camera, bounce or shadow ray would add that light.
#include "RenderTestScenes.h"

#include "pathtracer/EnergyTables.h"
#include "shaders/BSDF.h"
#include "shaders/CameraRays.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace qv {
namespace {

using namespace testscenes;

constexpr double kZ = 4.5; // standard errors allowed between the renderer and the reference walk
constexpr float kLe = 1.0f; // emitted radiance of every face (cd/m2)
const float3 kBoxLo{-0.5f, 0.5f, -0.5f}, kBoxHi{0.5f, 1.5f, 0.5f};
const float3 kEye{0.0f, 1.0f, 0.0f};

struct FurnaceCase {
    std::string name;
    float base;      // grey base colour
    float metallic;
    float roughness; // at least the regularisation floor, so that every bounce uses it unchanged
    uint32_t maxDepth;
    NEEMode nee = NEEMode::tree;
};

// One face of the box, emitting toward the inside (winding normal = inward).
void face(SceneMaker& sm, float3 centre, float3 inward, float3 e1, float3 e2, uint32_t mat) {
    if (dot(cross(e1, e2), inward) < 0) std::swap(e1, e2);
    sm.quad(centre - e1 - e2, centre + e1 - e2, centre + e1 + e2, centre - e1 + e2, mat);
}

SceneMaker furnaceBox(const FurnaceCase& c) {
    SceneMaker sm;
    uint32_t mat = sm.material(float3{c.base, c.base, c.base}, c.roughness, c.metallic, float3{kLe, kLe, kLe});
    const float3 mid = (kBoxLo + kBoxHi) * 0.5f, half = (kBoxHi - kBoxLo) * 0.5f;
    const float3 X{half.x, 0, 0}, Y{0, half.y, 0}, Z{0, 0, half.z};
    face(sm, mid - Y, {0, 1, 0}, X, Z, mat);
    face(sm, mid + Y, {0, -1, 0}, X, Z, mat);
    face(sm, mid - X, {1, 0, 0}, Y, Z, mat);
    face(sm, mid + X, {-1, 0, 0}, Y, Z, mat);
    face(sm, mid - Z, {0, 0, 1}, X, Y, mat);
    face(sm, mid + Z, {0, 0, -1}, X, Y, mat);
    sm.finish();
    return sm;
}

RenderSettings furnaceSettings(const FurnaceCase& c) {
    RenderSettings s = smallSettings(16, 12, c.maxDepth);
    s.emissiveNits = 1; // the emissive factor is the radiance
    s.neeMode = c.nee;
    s.lightGridCell = 0.25f;
    return s;
}

const CameraDef kCamera = camera(kEye, kEye + float3{0.3f, 0.2f, -1.0f}, 90);

// Where a ray from inside the box leaves it: the distance and the face's inward normal.
struct BoxExit {
    float t;
    float3 inward;
};

BoxExit boxExit(float3 o, float3 d) {
    BoxExit best{1e30f, {}};
    for (int k = 0; k < 3; ++k) {
        if (d[k] == 0.0f) continue;
        float wall = d[k] > 0 ? kBoxHi[k] : kBoxLo[k];
        float t = (wall - o[k]) / d[k];
        if (t < best.t) {
            best.t = t;
            best.inward = float3{};
            best.inward[k] = d[k] > 0 ? -1.0f : 1.0f;
        }
    }
    return best;
}

struct Estimate {
    double mean = 0, se = 0;
};

// The analog walk: camera rays jittered over the image like the renderer's,
// then maxDepth BSDF-sampled bounces, each adding throughput times Le.
Estimate referenceWalk(const FurnaceCase& c, const GPUUniforms& u, const EnergyTables& tables, int chains) {
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> U(0.0f, 1.0f);
    const int W = int(u.dims.x), H = int(u.dims.y);
    const float3 base{c.base, c.base, c.base};
    double sum = 0, sum2 = 0;
    for (int i = 0; i < chains; ++i) {
        int px = i % W, py = (i / W) % H;
        float2 pix{px + 0.5f + tentOffset(2.0f * U(rng)), py + 0.5f + tentOffset(2.0f * U(rng))};
        float3 o = kEye, d = cameraRayDir(u, pix);
        double value = kLe, beta = 1;
        for (uint32_t depth = 1; depth <= c.maxDepth; ++depth) {
            BoxExit e = boxExit(o, d);
            float3 x = o + d * e.t;
            Basis frame = makeBasis(e.inward);
            float3 v = toLocal(frame, -d);
            BSDF b = makeBSDF(tables.dfg.data(), tables.dfgAvg.data(), base, c.metallic, c.roughness, v.z);
            BSDFSample s = bsdfSample(b, v, float3{U(rng), U(rng), U(rng)});
            if (!isValid(s)) break;
            beta *= s.weight.y;
            value += beta * kLe;
            o = x;
            d = toWorld(frame, s.l);
        }
        sum += value;
        sum2 += value * value;
    }
    double mean = sum / chains;
    return Estimate{mean, std::sqrt(std::max(sum2 / chains - mean * mean, 0.0) / (chains - 1))};
}

void PrintTo(const FurnaceCase& c, std::ostream* os) { *os << c.name; }

class ClosedFurnace : public ::testing::TestWithParam<FurnaceCase> {};

TEST_P(ClosedFurnace, PixelsConvergeToTheEmissionSeriesOfTheBoxBsdf) {
    const FurnaceCase& c = GetParam();
    ASSERT_GE(c.roughness, RenderSettings{}.regularizeRoughness);
    const SceneMaker sm = furnaceBox(c);
    RenderSettings s = furnaceSettings(c);
    s.seed = 21;
    Render rd = render(sm, s, EnvironmentPreset::preset(TimeOfDay::day), kCamera, 48);
    const Renderer& r = *rd.r;
    ASSERT_TRUE(r.sunOn());
    ASSERT_EQ(r.geometry()->emissiveCount, 12u);

    const ImageMean got = imageMean(r);
    static const EnergyTables tables = buildEnergyTables(); // shared by the cases
    // The walk's standard error stays well below the renderer's with this many chains.
    const Estimate want = referenceWalk(c, r.updateUniforms(), tables, 30000);
    // With a constant albedo rho the series would be sum rho^k; the walk's
    // figure gives the effective rho of this BSDF in this box.
    const double tol = kZ * std::sqrt(got.se * got.se + want.se * want.se);
    EXPECT_NEAR(got.mean, want.mean, tol) << c.name << ": renderer " << got.mean << " +- " << got.se
                                          << ", reference walk " << want.mean << " +- " << want.se;
    EXPECT_EQ(r.statCounter(STAT_NONFINITE_SAMPLE), 0u);
    EXPECT_EQ(r.statCounter(STAT_DROPPED_SAMPLE), 0u);
    // Every pixel sees only the box: its first-hit distance is at most the
    // box's diagonal from the centre, never the sky's 1e4.
    for (const float4& g : r.guideA()) EXPECT_LT(g.w / 48.0f, 0.9f);
}

std::string furnaceName(const ::testing::TestParamInfo<FurnaceCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(
    Materials, ClosedFurnace,
    ::testing::Values(
        // Black dielectric: only the specular lobe reflects (rho near 0.05).
        FurnaceCase{"BlackDielectricDepth3", 0.0f, 0.0f, 0.5f, 3},
        // Black metal: F0 = 0, only the Schlick grazing term is left (rho near 0).
        FurnaceCase{"BlackMetalDepth2", 0.0f, 1.0f, 0.4f, 2},
        FurnaceCase{"GreyDielectricDepth2", 0.5f, 0.0f, 0.6f, 2},
        FurnaceCase{"GreyMetalDepth5", 0.8f, 1.0f, 0.4f, 5},
        // Near-white diffuse with a deep limit: Russian roulette runs from depth 3 on.
        FurnaceCase{"WhiteDielectricDepth16", 0.98f, 0.0f, 0.8f, 16},
        // Lamp and emitter choice through the light-visibility grid's cells.
        FurnaceCase{"LightGridCellsDepth6", 0.7f, 0.0f, 0.3f, 6, NEEMode::cell}),
    furnaceName);

// With maxDepth 0 a camera path stops at its first hit: every sample is
// exactly Le, with no light from bounces, next-event estimation or outside.
TEST(ClosedFurnaceDepthZero, EverySampleIsExactlyTheEmittedRadiance) {
    const FurnaceCase c{"depth0", 0.9f, 0.0f, 0.5f, 0};
    const SceneMaker sm = furnaceBox(c);
    RenderSettings s = furnaceSettings(c);
    Render rd = render(sm, s, EnvironmentPreset::preset(TimeOfDay::day), kCamera, 5);
    // The sums of five equal floats, added as the kernel adds them.
    const float lum = luminance(splat3(kLe));
    float sumLe = 0, sumLum2 = 0;
    for (int k = 0; k < 5; ++k) {
        sumLe += kLe;
        sumLum2 += lum * lum;
    }
    int bad = 0;
    for (size_t i = 0; i < rd.r->accum().size(); ++i) {
        const float4 a = rd.r->accum()[i];
        if (a != float4{sumLe, sumLe, sumLe, 5} || rd.r->guideB()[i].w != sumLum2) ++bad;
    }
    EXPECT_EQ(bad, 0) << "pixels whose five samples are not exactly Le";
}

} // namespace
} // namespace qv
