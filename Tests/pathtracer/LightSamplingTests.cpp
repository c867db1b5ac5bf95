// Next-event estimation's samplers against their own densities and against
// closed-form irradiance: points on spheres, discs and strips, the light
// tree's choice, the grid's cell-list choice with its defensive branch, the
// inverse-CDF search and the strip's equi-angular area density.
#include "pathtracer/LightBuild.h"
#include "shaders/ChiSquareHarness.h"
#include "shaders/KernelHelpers.h"
#include "shaders/LightSampling.h"
#include "shaders/Random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace qv {
namespace {

constexpr double kZ = 4.0; // standard errors allowed between an estimate and its exact value

struct MeanEstimate {
    double sum = 0, sumSq = 0;
    int64_t n = 0;
    void add(double v) {
        sum += v;
        sumSq += v * v;
        ++n;
    }
    double mean() const { return sum / double(n); }
    double standardError() const {
        double m = mean();
        return std::sqrt(std::max(sumSq / double(n) - m * m, 0.0) / double(n));
    }
};

// Irradiance at x (normal n) from a Lambertian polygon of radiance L, by
// Lambert's edge formula: E = L/2 sum_i angle(v_i, v_i+1) (n . unit(v_i x v_i+1)),
// with v_i the unit vectors toward the corners. Exact for a polygon wholly
// above the horizon of n.
double lambertPolygonIrradiance(const std::vector<float3>& corners, float3 x, float3 n, double L) {
    double sum = 0;
    for (size_t i = 0; i < corners.size(); ++i) {
        float3 a = normalize(corners[i] - x), b = normalize(corners[(i + 1) % corners.size()] - x);
        float3 c = cross(a, b);
        double angle = std::atan2(double(length(c)), double(dot(a, b)));
        sum += angle * double(dot(n, normalize(c)));
    }
    return 0.5 * L * std::fabs(sum);
}

std::vector<float3> discCorners(const GPULight& L) {
    std::vector<float3> out;
    const int N = int(L.extra.x);
    for (int k = 0; k < N; ++k) {
        float a = TWO_PI * float(k) / float(N);
        out.push_back(lightCentre(L) + (xyz(L.uArea) * std::cos(a) + xyz(L.vExp) * std::sin(a)) * L.normalRadius.w);
    }
    return out;
}

std::vector<float3> stripCorners(const GPULight& L) {
    float3 c = lightCentre(L), hu = xyz(L.uArea), hv = xyz(L.vExp);
    return {c - hu - hv, c + hu - hv, c + hu + hv, c - hu + hv};
}

// Irradiance from a polygonal emitter whose radiance falls as cos^(p-1) of
// the emission angle, by the centroid rule over an m x m split of each fan
// triangle (a reference for the non-Lambertian disc).
double quadratureIrradiance(const GPULight& L, const std::vector<float3>& corners, float3 x, float3 n, int m) {
    const float3 c = lightCentre(L), ln = lightNormal(L);
    const double radiance = luminance(xyz(L.radiance)), p = L.vExp.w;
    double sum = 0;
    for (size_t k = 0; k < corners.size(); ++k) {
        const float3 A = c, B = corners[k], C = corners[(k + 1) % corners.size()];
        const float3 e1 = (B - A) / float(m), e2 = (C - A) / float(m);
        const double subArea = 0.5 * length(cross(e1, e2));
        for (int i = 0; i < m; ++i)
            for (int j = 0; j < m - i; ++j) {
                // Upright and (where it exists) inverted sub-triangle centroids.
                const float3 base = A + e1 * float(i) + e2 * float(j);
                float3 cents[2] = {base + (e1 + e2) * (1.0f / 3.0f), base + (e1 + e2) * (2.0f / 3.0f)};
                for (int t = 0; t < (j < m - i - 1 ? 2 : 1); ++t) {
                    const float3 d = cents[t] - x;
                    const double d2 = dot(d, d), dist = std::sqrt(d2);
                    const double cosL = -dot(d, ln) / dist, cosR = dot(d, n) / dist;
                    if (cosL <= 0 || cosR <= 0) continue;
                    sum += radiance * std::pow(cosL, p - 1) * cosL * cosR / d2 * subArea;
                }
            }
    }
    return sum;
}

// A lamp for the sampler tests, with its exact irradiance at the receiver.
struct LampCase {
    std::string name;
    GPULight light;
    float3 x, n;   // receiver point and normal
    double E = 0;  // exact irradiance (luminance of the radiance)
    double Etol = 0; // error of the reference itself
};

double radianceOf(const GPULight& L) { return luminance(xyz(L.radiance)); }

GPULight sphereLamp(float3 p, float r, float lumens) {
    LightBuild b;
    b.addSphere(p, r, lumens, {1, 1, 1});
    return b.lights[0];
}
GPULight discLamp(float3 p, float3 n, float r, float lumens, float exponent) {
    LightBuild b;
    b.addDisc(p, n, r, lumens, exponent, {1, 1, 1});
    return b.lights[0];
}
// An under-cabinet strip 3 cm above a worktop.
GPULight stripLamp(float width) {
    LightBuild b;
    b.addQuad({-0.6f, 0.93f, 0}, {0.6f, 0.93f, 0}, {0, -1, 0}, width, 540, {1, 1, 1});
    return b.lights[0];
}
// A Lambertian polygonal emitter: Lambert's formula is exact for the polygon that is sampled.
LampCase lambertCase(std::string name, const GPULight& L, float3 x, float3 n, const std::vector<float3>& corners) {
    return LampCase{std::move(name), L, x, n, lambertPolygonIrradiance(corners, x, n, radianceOf(L))};
}

std::vector<LampCase> lampCases() {
    std::vector<LampCase> cases;
    // A sphere seen from d along the normal: E = pi L (r/d)^2; off to the side
    // only the cone's cosine changes.
    const GPULight near = sphereLamp({0.3f, 2.0f, -0.2f}, 0.12f, 600), side = sphereLamp({0, 1.5f, 0}, 0.2f, 800);
    cases.push_back({"sphere on the normal", near, {0.3f, 2.0f - 0.9f, -0.2f}, {0, 1, 0},
                     PI * radianceOf(near) * (0.12 / 0.9) * (0.12 / 0.9)});
    const float ang = 40.0f * PI / 180.0f;
    cases.push_back({"sphere at 40 degrees", side, float3{0, 1.5f, 0} - float3{std::sin(ang), std::cos(ang), 0} * 1.1f,
                     {0, 1, 0}, PI * radianceOf(side) * (0.2 / 1.1) * (0.2 / 1.1) * std::cos(ang)});
    // A Lambertian downlight on its axis: close to pi L r^2 / (r^2 + d^2) of the circle.
    const GPULight down = discLamp({0, 2.4f, 0}, {0, -1, 0}, 0.3f, 900, 1);
    cases.push_back(lambertCase("Lambertian disc on its axis", down, {0, 2.4f - 0.005f - 0.5f, 0}, {0, 1, 0},
                                discCorners(down)));
    const double circle = PI * radianceOf(down) * 0.09 / (0.09 + 0.25);
    EXPECT_NEAR(cases.back().E / circle, 12 * std::sin(PI / 12) / PI, 0.01) << "the 24-gon is slightly smaller";
    const GPULight tilted = discLamp({0.2f, 2.0f, 0.1f}, {0.3f, -1, 0.2f}, 0.15f, 700, 1);
    cases.push_back(lambertCase("Lambertian disc, tilted receiver", tilted, {0.9f, 1.0f, -0.4f},
                                normalize(float3{-0.4f, 1, 0.3f}), discCorners(tilted)));
    // A cosine-power downlight (60 degree cone) seen off its axis, by quadrature.
    LampCase power{"cosine-power disc off its axis", discLamp({0, 2.4f, 0}, {0, -1, 0}, 0.2f, 800, discExponentForCone(60)),
                   {0.5f, 1.2f, 0.3f}, {0, 1, 0}};
    const double coarse = quadratureIrradiance(power.light, discCorners(power.light), power.x, power.n, 60);
    power.E = quadratureIrradiance(power.light, discCorners(power.light), power.x, power.n, 120);
    power.Etol = 2 * std::fabs(power.E - coarse);
    cases.push_back(power);
    // The strip with a receiver near one end, and seen from beyond its end and below.
    const GPULight thin = stripLamp(0.012f), wide = stripLamp(0.05f);
    cases.push_back(lambertCase("strip close above a worktop", thin, {0.45f, 0.9f, 0.05f}, {0, 1, 0}, stripCorners(thin)));
    cases.push_back(lambertCase("strip seen from beyond its end", wide, {1.1f, 0.4f, -0.2f},
                                normalize(float3{-0.5f, 1, 0}), stripCorners(wide)));
    return cases;
}

TEST(LightPointSampling, SampleDensityAgreesWithLightPdfAndPointsLieOnTheEmitter) {
    for (const LampCase& c : lampCases()) {
        SCOPED_TRACE(c.name);
        uint32_t seed = 12345;
        int failures = 0, mismatches = 0, offSurface = 0;
        for (int i = 0; i < 20000; ++i) {
            float2 u{rnd(seed), rnd(seed)};
            LightSample ls = sampleLight(c.light, c.x, u);
            if (!isValid(ls)) {
                ++failures;
                continue;
            }
            EXPECT_NEAR(length(ls.dir), 1.0f, 1e-5f);
            const float3 y = c.x + ls.dir * ls.dist;
            if (std::fabs(lightPdf(c.light, c.x, y, ls.dir) - ls.pdf) > 1e-3f * ls.pdf) ++mismatches;
            EXPECT_NEAR(lightLe(c.light, ls.dir).y, ls.Le.y, 1e-4f * ls.Le.y);
            // The point is on the emitter's surface.
            float3 local = y - lightCentre(c.light);
            if (lightType(c.light) == 1) {
                if (std::fabs(length(local) - c.light.normalRadius.w) > 1e-4f) ++offSurface;
            } else {
                if (std::fabs(dot(local, lightNormal(c.light))) > 1e-4f) ++offSurface;
                if (lightType(c.light) == 0 && length(local) > c.light.normalRadius.w * 1.0001f) ++offSurface;
                if (lightType(c.light) == 2) {
                    float3 hu = xyz(c.light.uArea), hv = xyz(c.light.vExp);
                    if (std::fabs(dot(local, hu)) > dot(hu, hu) * 1.0001f ||
                        std::fabs(dot(local, hv)) > dot(hv, hv) * 1.0001f)
                        ++offSurface;
                }
            }
        }
        EXPECT_EQ(failures, 0) << "every receiver here sees the whole emitter";
        EXPECT_EQ(mismatches, 0);
        EXPECT_EQ(offSurface, 0);
    }
}

TEST(LightPointSampling, EstimatedIrradianceMatchesTheClosedForm) {
    for (const LampCase& c : lampCases()) {
        SCOPED_TRACE(c.name);
        uint32_t seed = 777;
        MeanEstimate est;
        for (int i = 0; i < 100000; ++i) {
            float2 u{rnd(seed), rnd(seed)};
            LightSample ls = sampleLight(c.light, c.x, u);
            double cosR = isValid(ls) ? std::max(0.0f, dot(ls.dir, c.n)) : 0.0;
            est.add(isValid(ls) ? luminance(ls.Le) * cosR / ls.pdf : 0.0);
        }
        EXPECT_NEAR(est.mean(), c.E, kZ * est.standardError() + c.Etol)
            << "relative error " << est.mean() / c.E - 1 << ", standard error " << est.standardError() / c.E;
    }
}

TEST(LightPointSampling, PointsInsideOrBehindAnEmitterGetNoSample) {
    LightBuild b;
    b.addSphere({0, 2, 0}, 0.2f, 600, {1, 1, 1});
    b.addDisc({0, 2.4f, 0}, {0, -1, 0}, 0.1f, 800, 1, {1, 1, 1});
    b.addQuad({-0.5f, 1, 0}, {0.5f, 1, 0}, {0, -1, 0}, 0.02f, 300, {1, 1, 1});
    const float2 u{0.3f, 0.6f};
    // Inside the sphere.
    EXPECT_FALSE(isValid(sampleLight(b.lights[0], {0.05f, 2.05f, 0}, u)));
    EXPECT_EQ(lightPdf(b.lights[0], {0.05f, 2.05f, 0}, {0, 2.2f, 0}, {0, 1, 0}), 0.0f);
    // Above a downward disc and a downward strip: behind one-sided emitters.
    EXPECT_FALSE(isValid(sampleLight(b.lights[1], {0.1f, 3.0f, 0}, u)));
    EXPECT_FALSE(isValid(sampleLight(b.lights[2], {0.1f, 1.5f, 0}, u)));
    EXPECT_EQ(lightPdf(b.lights[1], {0, 3, 0}, {0, 2.405f, 0}, {0, -1, 0}), 0.0f);
    EXPECT_EQ(lightLe(b.lights[1], {0, -1, 0}).y, 0.0f);
    EXPECT_EQ(lightWeight(b.lights[1], {0, 3, 0}, {0, -1, 0}), 0.0f);
}

// ---- Choosing a lamp -------------------------------------------------------

SceneData sceneOf(const LightBuild& b) {
    SceneData s;
    s.lights = b.lights.data();
    s.nodes = b.nodes.data();
    return s;
}

LightBuild scatteredLights(int count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> uni(0, 1);
    LightBuild b;
    for (int i = 0; i < count; ++i) {
        float3 p{uni(rng) * 8 - 4, 1.5f + uni(rng) * 2, uni(rng) * 8 - 4};
        float lumens = 100 + 900 * uni(rng);
        switch (i % 3) {
        case 0: b.addSphere(p, 0.05f + 0.1f * uni(rng), lumens, {1, 1, 1}); break;
        case 1: b.addDisc(p, {uni(rng) - 0.5f, -1, uni(rng) - 0.5f}, 0.05f, lumens, 1 + 3 * uni(rng), {1, 1, 1}); break;
        default: b.addQuad(p, p + float3{1.2f, 0, 0.3f}, {0, -1, 0}, 0.02f, lumens, {1, 1, 1}); break;
        }
    }
    // One lamp facing up from below the receivers: unreachable from an upward normal.
    b.addDisc({0.5f, -1, 0.5f}, {0, 1, 0}, 0.1f, 500, 1, {1, 1, 1});
    b.buildTree();
    return b;
}

// Chi-square of observed choice counts against expected probabilities; the
// last category is "no light chosen". Categories expected below 5 are pooled.
double choicePValue(const std::vector<int64_t>& observed, const std::vector<double>& probability, int64_t n,
                    int& dof) {
    double chi2 = 0, pooledObs = 0, pooledExp = 0;
    int cells = 0;
    for (size_t i = 0; i < observed.size(); ++i) {
        double expected = probability[i] * double(n);
        if (expected < 5) {
            pooledObs += double(observed[i]);
            pooledExp += expected;
            continue;
        }
        chi2 += (double(observed[i]) - expected) * (double(observed[i]) - expected) / expected;
        ++cells;
    }
    if (pooledExp >= 5) {
        chi2 += (pooledObs - pooledExp) * (pooledObs - pooledExp) / pooledExp;
        ++cells;
    } else {
        EXPECT_LE(pooledObs, 10) << "choices made where almost none were expected";
    }
    dof = std::max(cells - 1, 1);
    return test::gammaQ(0.5 * dof, 0.5 * chi2);
}

// Draws n choices, checks that each reports the pmf that pmfOf recomputes
// and that the frequencies follow prob (last entry: no light chosen).
template <class Choose, class PmfOf>
void expectChoiceFrequencies(const std::vector<double>& prob, int64_t n, uint32_t seed, Choose choose, PmfOf pmfOf,
                             float pmfTol, double alpha) {
    const size_t none = prob.size() - 1;
    std::vector<int64_t> observed(prob.size(), 0);
    int pmfMismatch = 0;
    for (int64_t k = 0; k < n; ++k) {
        LightChoice c = choose(seed);
        if (c.index < 0 || !(c.pmf > 0)) {
            ++observed[none];
            continue;
        }
        ++observed[size_t(c.index)];
        const float expect = pmfOf(uint32_t(c.index));
        if (std::fabs(c.pmf - expect) > pmfTol * expect) ++pmfMismatch;
    }
    EXPECT_EQ(pmfMismatch, 0);
    int dof = 0;
    EXPECT_GT(choicePValue(observed, prob, n, dof), alpha) << "dof " << dof;
}

struct Receiver {
    float3 x, n;
};
const Receiver kReceivers[] = {
    {{0.2f, 0.0f, -0.3f}, {0, 1, 0}},
    {{-3.0f, 1.0f, 2.0f}, normalize(float3{0.6f, 0.7f, -0.2f})},
    {{2.5f, 2.5f, 0.0f}, {-1, 0, 0}},
};

TEST(LightTreeChoice, SelectLightFrequenciesMatchLightSelectPmf) {
    LightBuild b = scatteredLights(14, 5);
    ASSERT_GT(b.nodes.size(), 3u) << "the tree must have inner levels for this test";
    SceneData s = sceneOf(b);
    const uint32_t count = uint32_t(b.lights.size());
    for (const Receiver& r : kReceivers) {
        SCOPED_TRACE(::testing::Message() << "receiver at " << r.x.x << ", " << r.x.y << ", " << r.x.z);
        std::vector<double> prob(count + 1, 0.0);
        double total = 0;
        for (uint32_t i = 0; i < count; ++i) total += prob[i] = lightSelectPmf(s, i, r.x, r.n);
        EXPECT_NEAR(total, 1.0, 1e-5) << "some lamp is reachable, so some lamp is always chosen";
        prob[count] = std::max(0.0, 1.0 - total);
        expectChoiceFrequencies(
            prob, 200000, 99, [&](uint32_t& seed) { return selectLight(s, r.x, r.n, seed); },
            [&](uint32_t i) { return lightSelectPmf(s, i, r.x, r.n); }, 1e-6f, 0.01 / 3);
    }
    // The lamp facing up from below is never chosen for an upward receiver.
    for (uint32_t i = 0; i < count; ++i) {
        if (b.lights[i].normalRadius.y > 0.9f && lightType(b.lights[i]) == 0) {
            EXPECT_EQ(lightSelectPmf(s, i, kReceivers[0].x, kReceivers[0].n), 0.0f);
        }
    }
}

// A scene with one hand-made grid cell listing some of the lights.
struct CellScene {
    LightBuild b;
    std::vector<uint4> ranges;
    std::vector<uint32_t> entries;
    SceneData s;
};

uint32_t entryOf(uint32_t light, uint32_t vis) { return light | (vis << CELL_ENTRY_VIS_SHIFT); }

CellScene cellScene() {
    CellScene c;
    c.b = scatteredLights(14, 5);
    // Cell 0 lists four lamps with different visibilities (one seen by no bake
    // ray, kept at the visibility floor); cell 1 lists none; cell 2 lists only
    // the lamp that faces away from an upward receiver.
    uint32_t below = 0;
    for (uint32_t i = 0; i < c.b.lights.size(); ++i)
        if (lightType(c.b.lights[i]) == 0 && c.b.lights[i].normalRadius.y > 0.9f) below = i;
    c.entries = {entryOf(1, 255), entryOf(4, 40), entryOf(7, 0), entryOf(10, 128), entryOf(below, 255)};
    c.ranges = {uint4{0, 4, 0, 0}, uint4{4, 0, 0, 0}, uint4{4, 1, 0, 0}};
    c.s = sceneOf(c.b);
    c.s.grid.params = float4{0.1f, 0.2f, 0.03f, 0.1f};
    c.s.grid.mode = uint4{NEE_CELL, 8, 1, 0};
    c.s.cellRange = c.ranges.data();
    c.s.cellEntry = c.entries.data();
    return c;
}

TEST(LightCellChoice, ChooseLightFrequenciesMatchLightChoicePmf) {
    CellScene cs = cellScene();
    const SceneData& s = cs.s;
    const uint32_t count = uint32_t(cs.b.lights.size());
    const float eps = s.grid.params.x;
    for (int cell : {0, 1, 2}) {
        for (const Receiver& r : kReceivers) {
            SCOPED_TRACE(::testing::Message() << "cell " << cell << ", receiver at " << r.x.x << ", " << r.x.y);
            std::vector<double> prob(count + 1, 0.0);
            double total = 0, listedTree = 0;
            for (uint32_t i = 0; i < count; ++i) {
                total += prob[i] = lightChoicePmf(s, i, r.x, r.n, cell);
                if (cellLists(s, cell, i)) {
                    listedTree += lightSelectPmf(s, i, r.x, r.n);
                } else {
                    EXPECT_FLOAT_EQ(float(prob[i]), eps * lightSelectPmf(s, i, r.x, r.n)) << "light " << i;
                }
            }
            prob[count] = std::max(0.0, 1.0 - total);
            // What goes missing: the defensive branch's picks of listed lamps,
            // and the whole list branch when the list has no weight here.
            double listWeight = 0;
            for (uint32_t k = 0; k < cs.ranges[size_t(cell)].y; ++k)
                listWeight += cellEntryWeight(s, cs.entries[cs.ranges[size_t(cell)].x + k], r.x, r.n);
            double expectMissing = eps * listedTree + (listWeight > 0 ? 0.0 : 1.0 - eps);
            EXPECT_NEAR(prob[count], expectMissing, 1e-5);
            expectChoiceFrequencies(
                prob, 200000, 4242, [&](uint32_t& seed) { return chooseLight(s, r.x, r.n, cell, seed); },
                [&](uint32_t i) { return lightChoicePmf(s, i, r.x, r.n, cell); }, 1e-5f, 0.01 / 9);
        }
    }
}

TEST(LightCellChoice, ListedLightUsesOnlyTheListAndVisibilityFloorKeepsItReachable) {
    CellScene cs = cellScene();
    const SceneData& s = cs.s;
    const Receiver& r = kReceivers[0];
    // Entry weights: lightWeight times (vmin + (1 - vmin) vis).
    double sum = 0;
    for (uint32_t k = 0; k < 4; ++k) sum += cellEntryWeight(s, cs.entries[k], r.x, r.n);
    const double w7 = lightWeight(s.lights[7], r.x, r.n) * 0.2;
    EXPECT_NEAR(cellEntryWeight(s, cs.entries[2], r.x, r.n), w7, 1e-6 * w7);
    EXPECT_NEAR(lightChoicePmf(s, 7, r.x, r.n, 0), 0.9 * w7 / sum, 1e-6);
    const double w1 = lightWeight(s.lights[1], r.x, r.n);
    EXPECT_NEAR(lightChoicePmf(s, 1, r.x, r.n, 0), 0.9 * w1 / sum, 1e-6);
    // Outside the grid the tree alone decides.
    for (uint32_t i = 0; i < cs.b.lights.size(); ++i)
        EXPECT_EQ(lightChoicePmf(s, i, r.x, r.n, -1), lightSelectPmf(s, i, r.x, r.n));
}

// ---- The inverse-CDF search --------------------------------------------------

uint32_t linearSearch(const std::vector<float>& cdf, float u) {
    for (uint32_t i = 0; i < cdf.size(); ++i)
        if (cdf[i] > u) return i;
    return uint32_t(cdf.size() - 1);
}

TEST(InverseCdf, EdgeCases) {
    struct Case {
        std::vector<float> cdf;
        float u;
        uint32_t expect;
    };
    const Case cases[] = {
        {{1.0f}, 0.0f, 0},
        {{1.0f}, 0.99999994f, 0},
        {{0.25f, 0.5f, 0.75f, 1.0f}, 0.0f, 0},
        {{0.25f, 0.5f, 0.75f, 1.0f}, 0.25f, 1},       // a value equal to u does not exceed it
        {{0.25f, 0.5f, 0.75f, 1.0f}, 0.2499999f, 0},
        {{0.25f, 0.5f, 0.75f, 1.0f}, 0.99999994f, 3},
        {{0.25f, 0.5f, 0.75f, 1.0f}, 1.0f, 3},        // none exceeds: the last
        {{0.0f, 0.0f, 0.5f, 0.5f, 1.0f}, 0.0f, 2},    // zero-probability entries are never returned
        {{0.0f, 0.0f, 0.5f, 0.5f, 1.0f}, 0.5f, 4},
        {{0.3f, 0.3f, 0.3f}, 0.5f, 2},                // a table short of 1 through rounding
        {{0.5f, 1.0f, 1.0f}, 0.75f, 1},               // trailing zero-probability entries
    };
    for (const Case& c : cases)
        EXPECT_EQ(searchCdf(c.cdf.data(), uint32_t(c.cdf.size()), c.u), c.expect)
            << "n " << c.cdf.size() << " u " << c.u;
}

TEST(InverseCdf, AgreesWithALinearSearchOnEveryBoundary) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> uni(0, 1);
    for (uint32_t n = 1; n <= 40; ++n) {
        std::vector<float> cdf(n);
        std::vector<double> w(n);
        double total = 0, run = 0;
        for (uint32_t i = 0; i < n; ++i) total += w[i] = (i % 5 == 3) ? 0.0 : uni(rng);
        for (uint32_t i = 0; i < n; ++i) cdf[i] = float((run += w[i]) / total);
        cdf[n - 1] = 1.0f;
        std::vector<float> us = {0.0f, 0.99999994f, 1.0f};
        for (float v : cdf) us.insert(us.end(), {v, std::nextafter(v, 0.0f), std::nextafter(v, 2.0f)});
        for (int k = 0; k < 50; ++k) us.push_back(uni(rng));
        for (float u : us) ASSERT_EQ(searchCdf(cdf.data(), n, u), linearSearch(cdf, u)) << "n " << n << " u " << u;
    }
}

// ---- The strip's area density ----------------------------------------------

TEST(StripDensity, IntegratesToOneOverTheStripFromAnyPoint) {
    const GPULight L = stripLamp(0.02f);
    const float3 c = lightCentre(L), hu = xyz(L.uArea), hv = xyz(L.vExp);
    const float3 points[] = {
        {0.0f, 0.90f, 0.0f},   // 3 cm under the middle
        {0.55f, 0.91f, 0.01f}, // near one end
        {1.5f, 0.20f, -0.4f},  // beyond the end
        {-3.0f, 2.5f, 1.0f},   // behind it, far away
        c + hu * 2.0f,         // on the axis line beyond the end (edge-on)
    };
    const int nu = 200000, nv = 4;
    for (float3 x : points) {
        double sum = 0;
        for (int i = 0; i < nu; ++i)
            for (int j = 0; j < nv; ++j) {
                float su = -1 + (i + 0.5f) * 2.0f / nu, sv = -1 + (j + 0.5f) * 2.0f / nv;
                sum += stripAreaPdf(L, x, c + hu * su + hv * sv);
            }
        sum *= double(L.uArea.w) / (double(nu) * nv);
        EXPECT_NEAR(sum, 1.0, 2e-4) << "from " << x.x << ", " << x.y << ", " << x.z;
    }
}

} // namespace
} // namespace qv
