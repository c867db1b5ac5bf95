// Ray queries against hand-built geometry, checked against a brute-force
// intersection of every triangle.
#include "pathtracer/RayQuery.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace qv {
namespace {

struct Mesh {
    std::vector<float3> positions;
    std::vector<uint32_t> indices;

    void addTriangle(float3 a, float3 b, float3 c) {
        uint32_t n = static_cast<uint32_t>(positions.size());
        positions.insert(positions.end(), {a, b, c});
        indices.insert(indices.end(), {n, n + 1, n + 2});
    }
    // A square in the plane z = depth spanning [-h, h] in x and y, facing +z.
    void addSquareZ(float depth, float h) {
        addTriangle({-h, -h, depth}, {h, -h, depth}, {h, h, depth});
        addTriangle({-h, -h, depth}, {h, h, depth}, {-h, h, depth});
    }
    TriangleSet set(uint32_t mask = kRayMaskAll) const { return TriangleSet{positions, indices, mask}; }
};

RayQuery buildOne(const Mesh& mesh, BuildQuality quality = BuildQuality::high) {
    TriangleSet sets[] = {mesh.set()};
    return RayQuery::build(sets, quality);
}

Ray rayDown(float x, float y, float z = 5) { return Ray{{x, y, z}, {0, 0, -1}}; }

// n random triangles with corners within `size` of centres spread over
// [-spread, spread] on each axis.
Mesh triangleSoup(std::mt19937& rng, int n, float spread, float size) {
    std::uniform_real_distribution<float> uni(-1, 1);
    auto jitter = [&] { return float3{uni(rng), uni(rng), uni(rng)}; };
    Mesh mesh;
    for (int i = 0; i < n; ++i) {
        float3 c = jitter() * spread;
        float3 a = c + jitter() * size, b = c + jitter() * size;
        mesh.addTriangle(a, b, c + jitter() * size);
    }
    return mesh;
}

// Double-precision ray/triangle test (Moller-Trumbore) as the reference.
bool referenceHit(const Mesh& m, uint32_t tri, const Ray& r, double& t) {
    using D3 = std::array<double, 3>;
    auto d3 = [](float3 a) { return D3{a.x, a.y, a.z}; };
    auto sub = [](D3 a, D3 b) { return D3{a[0] - b[0], a[1] - b[1], a[2] - b[2]}; };
    auto crossd = [](D3 a, D3 b) {
        return D3{a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
    };
    auto dotd = [](D3 a, D3 b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; };
    const D3 v0 = d3(m.positions[m.indices[3 * tri]]), d = d3(r.direction);
    const D3 e1 = sub(d3(m.positions[m.indices[3 * tri + 1]]), v0), e2 = sub(d3(m.positions[m.indices[3 * tri + 2]]), v0);
    const D3 s = sub(d3(r.origin), v0), pv = crossd(d, e2), qv3 = crossd(s, e1);
    const double det = dotd(e1, pv);
    if (std::abs(det) < 1e-14) return false;
    const double u = dotd(s, pv) / det, v = dotd(d, qv3) / det;
    t = dotd(e2, qv3) / det;
    return u >= 0 && v >= 0 && u + v <= 1 && t >= r.tMin && t <= r.tMax;
}

TEST(RayQueryHits, DistanceBarycentricsAndNormalOfAKnownTriangle) {
    Mesh mesh;
    mesh.addTriangle({0, 0, 0}, {2, 0, 0}, {0, 2, 0});
    RayQuery q = buildOne(mesh);
    // Direction of length 2: t is measured in units of the direction.
    RayHit hit = q.intersect(Ray{{0.5f, 0.25f, 3}, {0, 0, -2}});
    ASSERT_TRUE(hit.hit());
    EXPECT_EQ(hit.prim, 0u);
    EXPECT_EQ(hit.set, 0u);
    EXPECT_NEAR(hit.t, 1.5f, 1e-6f);
    // p = v0 (1 - u - v) + v1 u + v2 v = (2u, 2v, 0).
    EXPECT_NEAR(hit.u, 0.25f, 1e-6f);
    EXPECT_NEAR(hit.v, 0.125f, 1e-6f);
    // The winding normal (v1 - v0) x (v2 - v0) = (0, 0, 4).
    EXPECT_GT(hit.ng.z, 0.0f);
    EXPECT_NEAR(hit.ng.z / length(hit.ng), 1.0f, 1e-6f);

    // Back faces are hit too; the geometric normal follows the winding, not the ray.
    RayHit back = q.intersect(Ray{{0.1f, 0.1f, -1}, {0, 0, 1}});
    ASSERT_TRUE(back.hit());
    EXPECT_NEAR(back.t, 1.0f, 1e-6f);
    EXPECT_GT(back.ng.z, 0.0f);
}

TEST(RayQueryHits, NearestOfStackedPlanesAndRangeLimits) {
    Mesh mesh;
    mesh.addSquareZ(0, 1);  // triangles 0, 1
    mesh.addSquareZ(2, 1);  // triangles 2, 3
    RayQuery q = buildOne(mesh);
    RayHit top = q.intersect(rayDown(0.3f, -0.2f));
    ASSERT_TRUE(top.hit());
    EXPECT_NEAR(top.t, 3.0f, 1e-5f);
    EXPECT_GE(top.prim, 2u);

    Ray skipTop = rayDown(0.3f, -0.2f);
    skipTop.tMin = 3.5f;
    RayHit bottom = q.intersect(skipTop);
    ASSERT_TRUE(bottom.hit());
    EXPECT_NEAR(bottom.t, 5.0f, 1e-5f);
    EXPECT_LE(bottom.prim, 1u);

    Ray shortRay = rayDown(0.3f, -0.2f);
    shortRay.tMax = 2.9f;
    EXPECT_FALSE(q.intersect(shortRay).hit());
    EXPECT_FALSE(q.occluded(shortRay));
    shortRay.tMax = 3.1f;
    EXPECT_TRUE(q.occluded(shortRay));

    EXPECT_FALSE(q.intersect(rayDown(1.5f, 0)).hit());
    EXPECT_FALSE(q.intersect(Ray{{0, 0, 5}, {0, 0, 1}}).hit()) << "pointing away";
}

TEST(RayQueryHits, MissOfAnEmptyStructure) {
    RayQuery none = RayQuery::build({}, BuildQuality::high);
    EXPECT_EQ(none.triangleCount(), 0u);
    RayHit miss = none.intersect(rayDown(0, 0));
    EXPECT_FALSE(miss.hit());
    EXPECT_EQ(miss.t, kMissDistance);
    EXPECT_EQ(miss.set, kNoHit);
    EXPECT_FALSE(none.occluded(rayDown(0, 0)));
}

// The auxiliary structure holds glass first and light proxies after it; a
// mask picks either, and triangle numbers run across both sets in order.
TEST(RayQueryMasks, GlassAndProxySetsAreSelectedByMaskAndNumberedInOrder) {
    constexpr uint32_t kGlass = 1, kProxy = 2;
    Mesh glass, proxies, empty;
    glass.addSquareZ(1, 1);           // triangles 0, 1
    glass.addSquareZ(-3, 1);          // triangles 2, 3
    proxies.addSquareZ(0, 1);         // after the empty set: triangles 4, 5
    TriangleSet sets[] = {glass.set(kGlass), empty.set(kProxy), proxies.set(kProxy)};
    RayQuery q = RayQuery::build(sets, BuildQuality::high);
    EXPECT_EQ(q.triangleCount(), 6u);
    EXPECT_EQ(q.setCount(), 3u);
    EXPECT_EQ(q.firstTriangleOfSet(2), 4u);

    // Every mask, then the glass alone from beyond the upper pane.
    struct Case {
        uint32_t mask;
        float tMin, t;
        uint32_t set, firstPrim;
    } cases[] = {{kRayMaskAll, 0.0f, 4.0f, 0, 0}, {kProxy, 0.0f, 5.0f, 2, 4}, {kGlass, 4.5f, 8.0f, 0, 2}};
    const Ray all = rayDown(0.2f, 0.6f);
    for (const Case& c : cases) {
        Ray r = all;
        r.mask = c.mask;
        r.tMin = c.tMin;
        RayHit hit = q.intersect(r);
        ASSERT_TRUE(hit.hit()) << "mask " << c.mask;
        EXPECT_EQ(hit.set, c.set);
        EXPECT_TRUE(hit.prim == c.firstPrim || hit.prim == c.firstPrim + 1) << hit.prim;
        EXPECT_NEAR(hit.t, c.t, 1e-5f);
    }
    Ray proxyOnly = all;
    proxyOnly.mask = kProxy;
    Ray neither = all;
    neither.mask = 4;
    EXPECT_FALSE(q.intersect(neither).hit());
    EXPECT_FALSE(q.occluded(neither));
    proxyOnly.tMax = 4.5f;
    EXPECT_FALSE(q.occluded(proxyOnly)) << "the glass in front does not block a proxy-only ray";
    proxyOnly.tMax = 5.5f;
    EXPECT_TRUE(q.occluded(proxyOnly));
}

// A random triangle soup against the double-precision reference: the nearest
// triangle and its distance agree, and occlusion agrees with intersection.
TEST(RayQueryHits, RandomSoupAgreesWithBruteForceForBothQualities) {
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> uni(-1, 1);
    Mesh mesh = triangleSoup(rng, 300, 4.0f, 0.6f);
    for (BuildQuality quality : {BuildQuality::fast, BuildQuality::high}) {
        RayQuery q = buildOne(mesh, quality);
        EXPECT_GE(q.buildSeconds(), 0.0);
        int hits = 0;
        for (int i = 0; i < 2000; ++i) {
            Ray r{{uni(rng) * 6, uni(rng) * 6, uni(rng) * 6}, normalize(float3{uni(rng), uni(rng), uni(rng)})};
            r.tMax = 3 + 5 * (uni(rng) + 1);
            double best = 1e30, second = 1e30;
            uint32_t bestTri = kNoHit;
            for (uint32_t tri = 0; tri < mesh.indices.size() / 3; ++tri) {
                double t;
                if (!referenceHit(mesh, tri, r, t)) continue;
                if (t < best) {
                    second = best, best = t, bestTri = tri;
                } else if (t < second) {
                    second = t;
                }
            }
            RayHit hit = q.intersect(r);
            // A hit right at the end of the range may fall either way in single precision.
            if (bestTri != kNoHit && std::abs(best - r.tMax) < 1e-3) continue;
            ASSERT_EQ(hit.hit(), bestTri != kNoHit) << "ray " << i;
            EXPECT_EQ(q.occluded(r), hit.hit()) << "ray " << i;
            if (!hit.hit()) continue;
            ++hits;
            EXPECT_NEAR(hit.t, best, 1e-4 * (1 + best)) << "ray " << i;
            if (second - best > 1e-3) {
                EXPECT_EQ(hit.prim, bestTri) << "ray " << i;
            }
        }
        EXPECT_GT(hits, 100) << "too few rays hit to test anything";
    }
}

// The bundled queries answer exactly what the one-ray queries answer, for
// every lane of full and short packets; inactive and empty rays are not
// traced.
TEST(RayQueryBundles, AgreeWithSingleRays) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
    Mesh mesh = triangleSoup(rng, 200, 3.0f, 0.8f);
    RayQuery q = buildOne(mesh);
    constexpr size_t n = 37; // two full packets and a short one
    std::array<float, n> ox, oy, oz, dx, dy, dz, tmax;
    std::array<uint8_t, n> active, blocked, blockedAll;
    std::array<uint32_t, n> prim;
    for (size_t i = 0; i < n; ++i) {
        float3 d = normalize(float3{uni(rng), uni(rng), uni(rng)});
        ox[i] = uni(rng), oy[i] = uni(rng), oz[i] = uni(rng);
        dx[i] = d.x, dy[i] = d.y, dz[i] = d.z;
        tmax[i] = i == 5 ? 0.0f : 2.0f + 4.0f * (uni(rng) + 1.0f);
        active[i] = i % 3 != 1;
    }
    const RayBundle bundle{ox.data(), oy.data(), oz.data(), dx.data(), dy.data(), dz.data(), tmax.data(), n};
    q.occluded(bundle, active.data(), blocked.data());
    q.occluded(bundle, nullptr, blockedAll.data());
    q.nearestPrims(bundle, prim.data());
    int hits = 0;
    for (size_t i = 0; i < n; ++i) {
        Ray r{{ox[i], oy[i], oz[i]}, {dx[i], dy[i], dz[i]}, 0.0f, tmax[i]};
        const bool single = tmax[i] > 0.0f && q.occluded(r);
        hits += single;
        EXPECT_EQ(blockedAll[i], single ? 1 : 0) << "ray " << i;
        EXPECT_EQ(blocked[i], active[i] && single ? 1 : 0) << "ray " << i;
        if (tmax[i] > 0.0f) EXPECT_EQ(prim[i], q.intersect(r).prim) << "ray " << i;
    }
    EXPECT_GT(hits, 5);
    EXPECT_LT(hits, int(n) - 5);
}

TEST(RayQueryErrors, BadIndicesFailTheBuildWithOneSentence) {
    Mesh outOfRange, partial;
    outOfRange.addTriangle({0, 0, 0}, {1, 0, 0}, {0, 1, 0});
    outOfRange.indices[2] = 7;
    partial = outOfRange;
    partial.indices.pop_back();
    const std::tuple<const Mesh*, BuildQuality, const char*> cases[] = {
        {&outOfRange, BuildQuality::high, "triangle index 7 is out of range (3 vertices)"},
        {&partial, BuildQuality::fast, "index count is not a multiple of 3"}};
    for (const auto& [mesh, quality, reason] : cases) {
        TriangleSet sets[] = {mesh->set()};
        try {
            RayQuery::build(sets, quality);
            ADD_FAILURE() << "expected RayQueryError: " << reason;
        } catch (const RayQueryError& e) {
            EXPECT_EQ(std::string(e.what()), std::string("acceleration structure build failed: ") + reason);
        }
    }
}

TEST(RayQueryErrors, NonFiniteTrianglesAreIgnoredNotFatal) {
    Mesh mesh;
    mesh.addTriangle({0, 0, 0}, {1, 0, 0}, {0, 1, 0});
    mesh.addTriangle({NAN, 0, 1}, {1, 0, 1}, {0, 1, 1});
    RayQuery q = buildOne(mesh);
    RayHit hit = q.intersect(Ray{{0.2f, 0.2f, 5}, {0, 0, -1}});
    ASSERT_TRUE(hit.hit());
    EXPECT_EQ(hit.prim, 0u);
}

} // namespace
} // namespace qv
