// Lamp photometry (flux integrates back to the lumens), repairs and warnings,
// proxies, and the light tree's structure and selection probabilities.
#include "pathtracer/LightBuild.h"
#include "pathtracer/LightTree.h"
#include "shaders/KernelHelpers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace qv {
namespace {

// Luminous intensity (cd) of a built light toward unit direction w: the
// luminance of its radiance in that direction times its projected area.
double intensityToward(const GPULight& L, float3 w) {
    const double lum = luminance(xyz(L.radiance));
    if (L.posType.w == LIGHT_SPHERE) return lum * PI * L.normalRadius.w * L.normalRadius.w;
    const double c = dot(xyz(L.normalRadius), w);
    if (c <= 0) return 0;
    const double p = L.posType.w == LIGHT_DISC ? L.vExp.w : 1.0;
    return lum * std::pow(c, p - 1) * L.uArea.w * c;
}

// Flux = integral of intensity over the sphere, midpoint rule in (cos theta, phi)
// about an arbitrary axis, so that dw = d(cos theta) d(phi) exactly.
double integratedFlux(const GPULight& L) {
    const int nu = 4000, nphi = 96;
    const Basis frame = makeBasis(normalize(float3{0.3f, 0.8f, -0.52f}));
    double sum = 0;
    for (int i = 0; i < nu; ++i) {
        const double u = -1 + (i + 0.5) * 2.0 / nu, s = std::sqrt(1 - u * u);
        for (int j = 0; j < nphi; ++j) {
            const double phi = (j + 0.5) * 2 * PI / nphi;
            float3 w = toWorld(frame, float3{float(s * std::cos(phi)), float(s * std::sin(phi)), float(u)});
            sum += intensityToward(L, w);
        }
    }
    return sum * (2.0 / nu) * (2 * PI / nphi);
}

std::vector<std::string> gBuildLog;
LightBuild buildLamps(const std::vector<LightDef>& lamps) {
    gBuildLog.clear();
    return LightBuild::build(lamps, [](std::string_view line) { gBuildLog.emplace_back(line); });
}

LightDef lamp(std::string kind, std::vector<float> position = {0, 2.5f, 0}) {
    LightDef d;
    d.kind = std::move(kind);
    d.position = std::move(position);
    return d;
}

LightDef with(LightDef d, auto edit) {
    edit(d);
    return d;
}

TEST(LightPhotometry, EveryKindIntegratesBackToItsLumens) {
    LightBuild b = buildLamps({
        lamp("pendant"),
        with(lamp("downlight"), [](LightDef& d) { d.lumens = 950, d.kelvin = 2700; }),
        with(lamp("wall"), [](LightDef& d) { d.direction = std::vector<float>{1, -1, 0}, d.coneDeg = 40; }),
        with(lamp("vanity"), [](LightDef& d) { d.direction = std::vector<float>{0, 0, 1}; }),
        with(lamp("strip"),
             [](LightDef& d) {
                 d.end = std::vector<float>{2, 2.5f, 0}, d.lumensPerM = 500;
                 d.direction = std::vector<float>{0, -1, 0.2f}, d.kelvin = 6500;
             }),
        lamp("exterior"),
    });
    ASSERT_TRUE(gBuildLog.empty()) << gBuildLog.front();
    ASSERT_EQ(b.lights.size(), 6u);
    double sumExtra = 0;
    for (const GPULight& L : b.lights) {
        const double flux = L.extra.y;
        sumExtra += flux;
        EXPECT_NEAR(integratedFlux(L), flux, 1e-4 * flux) << "type " << L.posType.w << ", " << flux << " lm";
        // Peak intensity: on the normal for a disc or quad, anywhere for a sphere.
        EXPECT_NEAR(intensityToward(L, xyz(L.normalRadius)), L.radiance.w, 1e-4 * L.radiance.w);
    }
    EXPECT_NEAR(b.totalLumens, 600 + 950 + 400 + 400 + 1000 + 400, 1e-3);
    EXPECT_NEAR(sumExtra, b.totalLumens, 1e-3);
}

TEST(LightPhotometry, ConeAngleSetsTheExponent) {
    EXPECT_NEAR(discExponentForCone(100), -std::log(2.0) / std::log(std::cos(50 * PI / 180)), 1e-5);
    EXPECT_NEAR(discExponentForCone(100), 1.5684, 1e-4);
    // Wide cones (which would give p < 1) and meaningless ones are Lambertian.
    for (float cone : {180.0f, 179.0f, 150.0f, 0.0f, -5.0f}) EXPECT_EQ(discExponentForCone(cone), 1.0f) << cone;
    // Intensity at half the cone angle is half the peak: cos(cone/2)^p = 1/2.
    EXPECT_NEAR(std::pow(std::cos(20 * PI / 180), discExponentForCone(40)), 0.5, 1e-5);

    LightBuild b = buildLamps({lamp("Downlight"), with(lamp("recessed"), [](LightDef& d) { d.coneDeg = 180; })});
    ASSERT_EQ(b.lights.size(), 2u);
    EXPECT_NEAR(b.lights[0].vExp.w, 1.5684f, 1e-4f);
    EXPECT_EQ(b.lights[1].vExp.w, 1.0f);
    EXPECT_EQ(b.lights[0].extra.y, 800.0f) << "downlight default flux";
}

TEST(LightPhotometry, StripFluxFromLengthUnlessLumensAreGiven) {
    const LightDef perMetre =
        with(lamp("strip", {0, 2, 0}), [](LightDef& d) { d.end = std::vector<float>{0, 2, 2}, d.lumensPerM = 500; });
    LightBuild b = buildLamps({perMetre, with(perMetre, [](LightDef& d) { d.lumens = 123; })});
    ASSERT_EQ(b.lights.size(), 2u);
    EXPECT_EQ(b.lights[0].extra.y, 1000.0f);
    EXPECT_EQ(b.lights[1].extra.y, 123.0f);
    EXPECT_EQ(b.lights[0].posType.w, LIGHT_QUAD);
    // Width defaults to twice the 6 mm radius; length 2 m.
    EXPECT_NEAR(b.lights[0].uArea.w, 2 * 0.012f, 1e-6f);
    EXPECT_NEAR(b.lights[0].radiance.w, 1000 / PI, 1e-3f);
}

struct WarningCase {
    const char* name;
    LightDef def;
    std::vector<std::string> lines;
    size_t built;
};

TEST(LightRepairs, BadDefinitionsAreRepairedOrSkippedWithOneLine) {
    const WarningCase cases[] = {
        {"short position", with(lamp("pendant", {1, 2}), [](LightDef& d) { d.id = "p1"; }),
         {"warning: light 0 (p1) skipped: position must be 3 finite numbers"}, 0},
        {"nan position", lamp("pendant", {1, NAN, 2}),
         {"warning: light 0 (no id) skipped: position must be 3 finite numbers"}, 0},
        {"hot kelvin", with(lamp("pendant"), [](LightDef& d) { d.kelvin = 50000; }),
         {"warning: light 0 (no id): kelvin 50000.0 is outside 1000-25000 K - using 25000.0"}, 1},
        {"nan kelvin", with(lamp("pendant"), [](LightDef& d) { d.kelvin = NAN; }),
         {"warning: light 0 (no id): kelvin nan is outside 1000-25000 K - using 3000.0"}, 1},
        {"flat direction", with(lamp("downlight"), [](LightDef& d) { d.direction = std::vector<float>{0, 0}; }),
         {"warning: light 0 (no id): direction [0.0, 0.0] is not a usable vector - using (0,-1,0)"}, 1},
        {"zero direction", with(lamp("downlight"), [](LightDef& d) { d.direction = std::vector<float>{0, 0, 0}; }),
         {"warning: light 0 (no id): direction [0.0, 0.0, 0.0] is not a usable vector - using (0,-1,0)"}, 1},
        {"nan cone", with(lamp("downlight"), [](LightDef& d) { d.coneDeg = NAN; }),
         {"warning: light 0 (no id): cone_deg is not finite - using the default"}, 1},
        {"negative lumens", with(lamp("downlight"), [](LightDef& d) { d.lumens = -5; }),
         {"warning: light 0 (no id) skipped: lumens -5.0 must be finite, > 0 and <= 1000000"}, 0},
        {"huge lumens", with(lamp("pendant"), [](LightDef& d) { d.lumens = 2e6f; }),
         {"warning: light 0 (no id) skipped: lumens 2000000.0 must be finite, > 0 and <= 1000000"}, 0},
        {"tiny radius", with(lamp("pendant"), [](LightDef& d) { d.radius = 0.001f; }),
         {"warning: light 0 (no id): radius 0.001 m is below 0.005 m - using 0.005 m"}, 1},
        {"strip without end", with(lamp("strip"), [](LightDef& d) { d.id = "s1"; d.end = d.position; }),
         {"warning: strip light s1 has no usable 'end'; using a disc"}, 1},
        {"strip without id or end", lamp("strip"), {"warning: strip light ? has no usable 'end'; using a disc"}, 1},
        {"strip bad per metre",
         with(lamp("strip"), [](LightDef& d) { d.end = std::vector<float>{1, 2.5f, 0}; d.lumensPerM = 0; }),
         {"warning: light 0 (no id) skipped: lumens_per_m 0.0 must be finite and > 0"}, 0},
        {"strip thin",
         with(lamp("strip"), [](LightDef& d) { d.end = std::vector<float>{1, 2.5f, 0}; d.width = 0.001f; }),
         {"warning: light 0 (no id): width 0.001 m is below 0.002 m - using 0.002 m"}, 1},
    };
    for (const WarningCase& c : cases) {
        LightBuild b = buildLamps({c.def});
        EXPECT_EQ(gBuildLog, c.lines) << c.name;
        EXPECT_EQ(b.lights.size(), c.built) << c.name;
        EXPECT_EQ(b.skipped, c.built ? 0 : 1) << c.name;
    }
    // A repaired strip without end becomes a 300 lm Lambertian disc of 3 cm.
    LightBuild disc = buildLamps({lamp("strip")});
    ASSERT_EQ(disc.lights.size(), 1u);
    const GPULight& L = disc.lights[0];
    EXPECT_EQ(std::make_tuple(L.posType.w, L.extra.y, L.normalRadius.w, L.vExp.w),
              std::make_tuple(LIGHT_DISC, 300.0f, 0.03f, 1.0f));
}

TEST(LightProxies, ProxiesFaceOutAndEncloseTheirEmitters) {
    LightBuild b = buildLamps({
        with(lamp("pendant", {1, 2, 3}), [](LightDef& d) { d.radius = 0.2f; }),
        with(lamp("downlight", {-2, 2.7f, 0}), [](LightDef& d) { d.direction = std::vector<float>{0.2f, -1, 0.1f}; }),
        with(lamp("strip", {0, 1, -4}),
             [](LightDef& d) { d.end = std::vector<float>{1, 1.5f, -4}, d.direction = std::vector<float>{0, 0, 1}; }),
    });
    ASSERT_EQ(b.lights.size(), 3u);
    ASSERT_EQ(b.triLight.size() * 3, b.indices.size());
    EXPECT_EQ(b.triLight.size(), 320u + 24u + 2u);
    for (size_t t = 0; t < b.triLight.size(); ++t) {
        const GPULight& L = b.lights[b.triLight[t]];
        const float3 c = xyz(L.posType);
        float3 v0 = b.positions[b.indices[3 * t]], v1 = b.positions[b.indices[3 * t + 1]],
               v2 = b.positions[b.indices[3 * t + 2]];
        float3 n = normalize(cross(v1 - v0, v2 - v0));
        if (L.posType.w == LIGHT_SPHERE) {
            EXPECT_GE(dot(n, v0 - c), L.normalRadius.w * (1 - 1e-5f)) << "sphere face " << t << " inside the sphere";
        } else {
            EXPECT_GT(dot(n, xyz(L.normalRadius)), 0.9999f) << "face " << t << " of type " << L.posType.w;
            EXPECT_NEAR(dot(v0 - c, xyz(L.normalRadius)), 0.0f, 1e-5f) << "face " << t << " off the emitter plane";
        }
    }
    // The disc centre moves 5 mm off its mounting along the normal.
    const GPULight* disc = nullptr;
    for (const GPULight& L : b.lights)
        if (L.posType.w == LIGHT_DISC) disc = &L;
    ASSERT_NE(disc, nullptr);
    float3 n = normalize(float3{0.2f, -1, 0.1f});
    EXPECT_NEAR(length(xyz(disc->posType) - (float3{-2, 2.7f, 0} + n * 0.005f)), 0.0f, 1e-6f);
    EXPECT_NEAR(disc->uArea.w, 12 * 0.045f * 0.045f * std::sin(PI / 12), 1e-8f);
}

TEST(LightProxies, EnclosingIcosphereHas320FacesOutsideTheUnitSphere) {
    TriangleMesh base = icosphere(0);
    EXPECT_EQ(base.positions.size(), 12u);
    EXPECT_EQ(icosphere(1).indices.size(), 3u * 80u);
    EXPECT_EQ(icosphere(1).positions.size(), 42u) << "shared midpoints are made once";
    const TriangleMesh& m = enclosingIcosphere();
    ASSERT_EQ(m.indices.size(), 3u * 320u);
    float nearest = 2;
    for (size_t i = 0; i < m.indices.size(); i += 3) {
        float3 a = m.positions[m.indices[i]], b = m.positions[m.indices[i + 1]], c = m.positions[m.indices[i + 2]];
        float3 n = normalize(cross(b - a, c - a));
        EXPECT_GT(dot(n, a), 0.0f) << "face " << i / 3 << " winds inward";
        nearest = std::min(nearest, dot(n, a));
    }
    EXPECT_GE(nearest, 1.0f);
    EXPECT_LT(nearest, 1.0001f);
}

// Reference selection probabilities: node importance after Conty and Kulla
// (flux cos(theta_i) / d^2 with the box and cone bounds), leaf weight I / d^2.
double nodeImportance(const GPULightNode& N, float3 x) {
    const float3 lo = xyz(N.bmin), hi = xyz(N.bmax);
    const float3 c = (lo + hi) * 0.5f, d = c - x;
    const double r = length(hi - lo) / 2, d2 = dot(d, d);
    if (d2 <= r * r) return N.bmin.w / std::max(d2, 1e-4);
    const double dist = std::sqrt(d2), thetaU = std::asin(std::min(r / dist, 1.0));
    double imp = N.bmin.w / d2;
    if (N.bmax.w > -1) {
        const float3 w = d / static_cast<float>(dist);
        const double thetaO = std::acos(std::clamp<double>(N.bmax.w, -1, 1));
        const double thetaE = std::max(0.0, std::acos(std::clamp<double>(-dot(xyz(N.axis), w), -1, 1)) - thetaO - thetaU);
        if (thetaE >= PI / 2) return 0;
        imp *= std::cos(thetaE);
    }
    return imp;
}

double leafWeight(const GPULight& L, float3 x) {
    float3 d = xyz(L.posType) - x;
    return L.radiance.w / std::max<double>(dot(d, d), 1e-4);
}

// The probability of choosing light li at x, following its stored path.
double selectPmf(const LightBuild& b, uint32_t li, float3 x) {
    const GPULight& L = b.lights[li];
    const uint32_t bits = asUintBits(L.extra.z), depth = asUintBits(L.extra.w);
    double pmf = 1;
    uint32_t node = 0;
    for (uint32_t k = 0; k < depth; ++k) {
        const GPULightNode& N = b.nodes[node];
        EXPECT_EQ(N.info.z, 0u) << "path of light " << li << " reaches a leaf early";
        const double wl = nodeImportance(b.nodes[N.info.x], x), wr = nodeImportance(b.nodes[N.info.y], x);
        if (wl + wr <= 0) return 0;
        const bool right = (bits >> k) & 1u;
        pmf *= (right ? wr : wl) / (wl + wr);
        node = right ? N.info.y : N.info.x;
    }
    const GPULightNode& leaf = b.nodes[node];
    EXPECT_EQ(leaf.info.z, 1u);
    EXPECT_GE(li, leaf.info.x);
    EXPECT_LT(li, leaf.info.x + leaf.info.y) << "light " << li << " is not in the leaf its path leads to";
    double sum = 0;
    for (uint32_t k = leaf.info.x; k < leaf.info.x + leaf.info.y; ++k) sum += leafWeight(b.lights[k], x);
    return sum > 0 ? pmf * leafWeight(L, x) / sum : 0;
}

std::vector<LightDef> scatteredLamps(int count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> uni(0, 1);
    std::vector<LightDef> lamps;
    const char* kinds[] = {"pendant", "downlight", "strip", "wall"};
    for (int i = 0; i < count; ++i) {
        LightDef d = lamp(kinds[i % 4], {uni(rng) * 20, 2.5f + uni(rng) * 3, uni(rng) * 12});
        d.lumens = 100 + 900 * uni(rng);
        if (i % 4 == 2) d.end = std::vector<float>{d.position[0] + 1, d.position[1], d.position[2]};
        if (i % 4 == 3) d.direction = std::vector<float>{uni(rng) - 0.5f, -1, uni(rng) - 0.5f};
        lamps.push_back(d);
    }
    return lamps;
}

TEST(LightTreeShape, FiveLightsMakeThreeNodesAndFourMakeOneLeaf) {
    // info: (first child or light, second child or count, leaf flag).
    LightBuild five = buildLamps(scatteredLamps(5, 1));
    ASSERT_EQ(five.nodes.size(), 3u);
    EXPECT_EQ(five.nodes[0].info.z, 0u);
    const uint4 l = five.nodes[five.nodes[0].info.x].info, r = five.nodes[five.nodes[0].info.y].info;
    EXPECT_EQ(std::make_tuple(l.y, l.z), std::make_tuple(2u, 1u));
    EXPECT_EQ(std::make_tuple(r.x, r.y, r.z), std::make_tuple(2u, 3u, 1u));
    LightBuild four = buildLamps(scatteredLamps(4, 1));
    ASSERT_EQ(four.nodes.size(), 1u);
    EXPECT_EQ(std::make_tuple(four.nodes[0].info.y, four.nodes[0].info.z), std::make_tuple(4u, 1u));
    LightBuild none = buildLamps({});
    EXPECT_TRUE(none.nodes.empty() && none.lights.empty());
}

TEST(LightTreeShape, NodesBoundTheirChildrenAndSumTheirIntensity) {
    LightBuild b = buildLamps(scatteredLamps(200, 7));
    ASSERT_EQ(b.lights.size(), 200u);
    std::vector<int> seen(b.lights.size(), 0);
    for (const GPULightNode& N : b.nodes) {
        if (N.info.z == 1) {
            EXPECT_LE(N.info.y, 4u);
            double flux = 0;
            for (uint32_t k = N.info.x; k < N.info.x + N.info.y; ++k) {
                seen[k] += 1;
                flux += b.lights[k].radiance.w;
                const float3 c = xyz(b.lights[k].posType);
                EXPECT_TRUE(c.x >= N.bmin.x && c.y >= N.bmin.y && c.z >= N.bmin.z);
                EXPECT_TRUE(c.x <= N.bmax.x && c.y <= N.bmax.y && c.z <= N.bmax.z);
            }
            EXPECT_NEAR(N.bmin.w, flux, 1e-4 * flux);
            continue;
        }
        const GPULightNode &l = b.nodes[N.info.x], &r = b.nodes[N.info.y];
        EXPECT_NEAR(N.bmin.w, l.bmin.w + r.bmin.w, 1e-4 * N.bmin.w);
        for (const GPULightNode* child : {&l, &r}) {
            EXPECT_TRUE(N.bmin.x <= child->bmin.x && N.bmin.y <= child->bmin.y && N.bmin.z <= child->bmin.z);
            EXPECT_TRUE(N.bmax.x >= child->bmax.x && N.bmax.y >= child->bmax.y && N.bmax.z >= child->bmax.z);
        }
    }
    // Every emitting normal below a node lies inside the node's cone. Leaf
    // order is depth first, so a node's lights are one contiguous range.
    std::function<std::pair<uint32_t, uint32_t>(uint32_t)> rangeOf = [&](uint32_t node) {
        const GPULightNode& N = b.nodes[node];
        if (N.info.z == 1) return std::pair{N.info.x, N.info.x + N.info.y};
        auto left = rangeOf(N.info.x), right = rangeOf(N.info.y);
        EXPECT_EQ(left.second, right.first);
        return std::pair{left.first, right.second};
    };
    for (uint32_t node = 0; node < b.nodes.size(); ++node) {
        const GPULightNode& N = b.nodes[node];
        auto [first, end] = rangeOf(node);
        for (uint32_t k = first; k < end; ++k) {
            const GPULight& L = b.lights[k];
            if (L.posType.w == LIGHT_SPHERE) {
                EXPECT_EQ(N.bmax.w, -1.0f) << "a node over a sphere is omnidirectional";
            } else if (N.bmax.w > -1) {
                double off = std::acos(std::clamp<double>(dot(xyz(N.axis), xyz(L.normalRadius)), -1, 1));
                EXPECT_LE(off, std::acos(N.bmax.w) + 1e-3) << "node " << node << " light " << k;
            }
        }
    }
    for (size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], 1) << "light " << i;
    // Triangles still point at the light they were made for after reordering.
    for (size_t t = 0; t < b.triLight.size(); ++t) {
        const GPULight& L = b.lights[b.triLight[t]];
        EXPECT_LT(length(b.positions[b.indices[3 * t]] - xyz(L.posType)), 1.5f) << "triangle " << t;
    }
}

TEST(LightTreeSelection, ProbabilitiesSumToOneAndFavourNearBrightLamps) {
    LightBuild b = buildLamps(scatteredLamps(300, 11));
    const float3 points[] = {{5, 1, 5}, {18, 0.5f, 2}, {10, 4, 11}, {-30, 1, 40}};
    for (float3 x : points) {
        double sum = 0;
        for (uint32_t i = 0; i < b.lights.size(); ++i) sum += selectPmf(b, i, x);
        EXPECT_NEAR(sum, 1.0, 1e-5) << "at " << x.x << ", " << x.y << ", " << x.z;
    }
    // Two equal pendants, one close, one across the house; and a bright one next to a dim one.
    std::vector<LightDef> lamps = scatteredLamps(40, 3);
    lamps.insert(lamps.end(), {lamp("pendant", {1, 2.5f, 1}), lamp("pendant", {19, 2.5f, 11}),
                               with(lamp("pendant", {10, 2.6f, 6}), [](LightDef& d) { d.lumens = 5000; }),
                               with(lamp("pendant", {10.2f, 2.6f, 6}), [](LightDef& d) { d.lumens = 50; })});
    LightBuild s = buildLamps(lamps);
    auto indexOf = [&](float3 c) {
        for (uint32_t i = 0; i < s.lights.size(); ++i)
            if (length(xyz(s.lights[i].posType) - c) < 1e-4f) return i;
        return ~0u;
    };
    const uint32_t iNear = indexOf({1, 2.5f, 1}), iFar = indexOf({19, 2.5f, 11});
    const uint32_t iBright = indexOf({10, 2.6f, 6}), iDim = indexOf({10.2f, 2.6f, 6});
    ASSERT_NE(iNear, ~0u);
    ASSERT_NE(iBright, ~0u);
    EXPECT_GT(selectPmf(s, iNear, {1.5f, 1, 1.5f}), 10 * selectPmf(s, iFar, {1.5f, 1, 1.5f}));
    EXPECT_GT(selectPmf(s, iBright, {10.1f, 1, 5}), 20 * selectPmf(s, iDim, {10.1f, 1, 5}));
}

TEST(LightTreeShape, PathBitsSurviveAsExactIntegers) {
    // Path bits stored in float fields are denormals: they must survive as bits.
    for (uint32_t bits : {(1u << 19) | 5u, 20u}) EXPECT_EQ(asUintBits(asFloatBits(bits)), bits);
    // A deep tree: 2000 lights in a row stays within the 30-level cap.
    std::vector<LightDef> row;
    for (int i = 0; i < 2000; ++i) row.push_back(lamp("pendant", {float(i), 2, 0}));
    LightBuild b = buildLamps(row);
    uint32_t deepest = 0;
    for (const GPULight& l : b.lights) deepest = std::max(deepest, asUintBits(l.extra.w));
    EXPECT_GE(deepest, 9u);
    EXPECT_LE(deepest, 30u);
}

TEST(LightTreeShape, ConeUnion) {
    const float3 up{0, 1, 0}, side{1, 0, 0};
    NormalCone a{up, 0}, b{side, 0};
    NormalCone u = coneUnion(a, b);
    EXPECT_NEAR(u.halfAngle, PI / 4, 1e-6f);
    EXPECT_NEAR(dot(u.axis, normalize(float3{1, 1, 0})), 1.0f, 1e-6f);
    NormalCone wide{up, 1.0f};
    EXPECT_EQ(coneUnion(wide, NormalCone{normalize(float3{0.1f, 1, 0}), 0.2f}).halfAngle, 1.0f) << "containment";
    EXPECT_GE(coneUnion(NormalCone{up, 0}, NormalCone{float3{0, -1, 0}, 0}).halfAngle, PI / 2 - 1e-6f);
    EXPECT_GE(coneUnion(NormalCone{up, 2.0f}, NormalCone{float3{0, -1, 0}, 2.0f}).halfAngle, PI);
}

} // namespace
} // namespace qv
