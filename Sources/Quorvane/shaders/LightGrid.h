#pragma once
// The light-visibility grid's bake: for one random point in one cell, which
// lamps (and whether any emissive surface) an unoccluded shadow ray reaches.
// Summed over R points per cell, the counts give each lamp's visible fraction
// from the cell, from which the host packs the cell lists that
// chooseLight reads (shaders/LightSampling.h).
//
// One invocation per (sample point k, cell of the slice). The counters of a
// slice are shared by the invocations of a cell and incremented atomically
// (relaxed), so the sums do not depend on the order of the invocations.
#include "shaders/FastTrig.h"
#include "shaders/KernelHelpers.h"
#include "shaders/KernelPortability.h"
#include "shaders/LightSampling.h"
#include "shaders/Random.h"
#include "shaders/Records.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qv {

// Parameters of one bake dispatch over a slice of consecutive cells.
struct GPULightBakeParams {
    uint4 range; // x first cell of the slice; y cells in the slice; z sample points per cell R; w slots = lights + 1
    uint4 info;  // x light count baked; y emissive triangle count; z seed; w unused
};
static_assert(std::is_standard_layout_v<GPULightBakeParams> && std::is_trivially_copyable_v<GPULightBakeParams>);
static_assert(sizeof(GPULightBakeParams) == 32 && offsetof(GPULightBakeParams, info) == 16);

// How far the inside-solid test ray looks (m): beyond the largest house.
constexpr float LIGHT_BAKE_SOLID_RAY = 1e4f;

// Strata per axis for R points: the first sd^3 points are jittered strata of
// the cell, the rest uniformly random.
QV_KERNEL uint32_t lightBakeStrata(uint32_t R) {
    return R >= 64u ? 4u : R >= 27u ? 3u : R >= 8u ? 2u : 1u;
}

// The k-th sample point of cell ci, with `seed` left at the point's stream.
QV_KERNEL float3 lightBakePoint(const GPULightGridParams& g, uint32_t ci, uint32_t k, uint32_t R, uint32_t& seed) {
    const uint32_t nx = g.dims.x, ny = g.dims.y;
    float3 cell{float(ci % nx), float((ci / nx) % ny), float(ci / (nx * ny))};
    const float h = g.origin.w;
    float3 j{rnd(seed), rnd(seed), rnd(seed)};
    const uint32_t sd = lightBakeStrata(R);
    if (k < sd * sd * sd) {
        float3 stratum{float(k % sd), float((k / sd) % sd), float(k / (sd * sd))};
        j = (stratum + j) / float(sd);
    }
    return xyz(g.origin) + (cell + j) * h;
}

// The inside-solid probe's direction, uniform over the sphere.
QV_KERNEL float3 lightBakeSolidDir(uint32_t& seed) {
    float z = 1.0f - 2.0f * rnd(seed);
    SinCos phi = sinCosTurns(rnd(seed));
    float r = std::sqrt(std::fmax(0.0f, 1.0f - z * z));
    return float3{r * phi.c, r * phi.s, z};
}

// Whether a probe along d whose nearest opaque hit is triangle prim met its
// back (winding normal along the ray): the probe started inside a solid.
QV_KERNEL bool lightBakeBackFace(const SceneData& s, uint32_t prim, float3 d) {
    if (prim == KERNEL_NO_HIT) return false;
    const uint32_t* idx = s.opIdx + size_t(prim) * 3u;
    float3 p0 = s.opPos[idx[0]], p1 = s.opPos[idx[1]], p2 = s.opPos[idx[2]];
    return dot(cross(p1 - p0, p2 - p0), d) > 0.0f;
}

// Whether p lies inside a solid, by one probe in a random direction.
template <class Tracer>
QV_KERNEL bool lightBakeInsideSolid(const SceneData& s, const Tracer& tr, float3 p, uint32_t& seed) {
    float3 d = lightBakeSolidDir(seed);
    KernelHit h = tr.opaque(p, d, LIGHT_BAKE_SOLID_RAY);
    return isHit(h) && lightBakeBackFace(s, h.prim, d);
}

QV_KERNEL bool anyPositive(float3 t) { return t.x > 0.0f || t.y > 0.0f || t.z > 0.0f; }

// The bake's shadow ray along a successful sample, ending just short of it.
QV_KERNEL float lightBakeRayLength(float dist) { return std::fmax(dist * 0.999f - 1e-4f, 0.0f); }

// One bake invocation. `vis` holds (cells in the slice) x slots counters: the
// unoccluded rays to each lamp, then in the last slot those to an emissive
// point; `valid` one counter per cell of the slice: its points in free space.
// The scene's grid parameters give the grid's origin, cell size and dims.
template <class Tracer>
QV_KERNEL void lightGridBake(const SceneData& s, const Tracer& tr, const GPULightBakeParams& bp, uint32_t k,
                             uint32_t localCell, uint32_t* vis, uint32_t* valid) {
    const uint32_t R = bp.range.z, slots = bp.range.w;
    if (k >= R || localCell >= bp.range.y) return;
    const uint32_t ci = bp.range.x + localCell;
    if (ci >= s.grid.dims.w) return;

    uint32_t seed = pcgHash(ci * 7919u + pcgHash(k * 0x9E3779B9u + bp.info.z));
    const float3 p = lightBakePoint(s.grid, ci, k, R, seed);
    if (lightBakeInsideSolid(s, tr, p, seed)) return;
    atomicAddCounter(&valid[localCell], 1u);

    uint32_t* row = vis + size_t(localCell) * slots;
    const uint32_t lightCount = bp.info.x;
    for (uint32_t li = 0; li < lightCount; ++li) {
        float2 u{rnd(seed), rnd(seed)};
        LightSample ls = sampleLight<false>(s.lights[li], p, u);
        if (!isValid(ls)) continue;
        if (anyPositive(shadowTransmittance(s, tr, p, ls.dir, lightBakeRayLength(ls.dist))))
            atomicAddCounter(&row[li], 1u);
    }

    const uint32_t emCount = bp.info.y;
    if (emCount > 0u) {
        float3 u{rnd(seed), rnd(seed), rnd(seed)};
        EmissiveSample es = sampleEmissive(s, emCount, p, u);
        if (es.pdf > 0.0f && es.dist > 1e-5f &&
            anyPositive(shadowTransmittance(s, tr, p, es.dir, es.dist * 0.999f)))
            atomicAddCounter(&row[lightCount], 1u);
    }
}

constexpr uint32_t LIGHT_BAKE_MAX_POINTS = 255;

// Per-point arrays of the bake hold R points rounded up to whole vectors, so
// the passes over them never end in a partial vector.
constexpr uint32_t LIGHT_BAKE_VECTOR = 16;
constexpr uint32_t LIGHT_BAKE_SLOTS = (LIGHT_BAKE_MAX_POINTS + LIGHT_BAKE_VECTOR - 1) / LIGHT_BAKE_VECTOR * LIGHT_BAKE_VECTOR;

// The live points of one cell, by coordinate, each with its random stream.
// Slots from count up to padded() repeat point 0 and are never used.
struct LightBakePoints {
    float x[LIGHT_BAKE_SLOTS], y[LIGHT_BAKE_SLOTS], z[LIGHT_BAKE_SLOTS];
    uint32_t seed[LIGHT_BAKE_SLOTS];
    uint32_t count = 0;

    QV_KERNEL float3 at(uint32_t i) const { return float3{x[i], y[i], z[i]}; }
    QV_KERNEL uint32_t padded() const { return (count + LIGHT_BAKE_VECTOR - 1) / LIGHT_BAKE_VECTOR * LIGHT_BAKE_VECTOR; }
    QV_KERNEL void pad() {
        for (uint32_t i = count; i < padded(); ++i) x[i] = x[0], y[i] = y[0], z[i] = z[0], seed[i] = seed[0];
    }
};

// One shadow ray per point (ray i starts at point i) by coordinate, with
// which of them to trace and their results.
struct LightBakeRays {
    float dx[LIGHT_BAKE_SLOTS], dy[LIGHT_BAKE_SLOTS], dz[LIGHT_BAKE_SLOTS], tmax[LIGHT_BAKE_SLOTS];
    uint8_t active[LIGHT_BAKE_SLOTS], blocked[LIGHT_BAKE_SLOTS];
};

// How many of the active rays arrive: opaque occlusion for all of them at
// once, then the glass along each unblocked one (a frosted pane blocks).
template <class Tracer>
QV_KERNEL uint32_t lightBakeReached(const SceneData& s, const Tracer& tr, const LightBakePoints& pts,
                                    LightBakeRays& rays) {
    const uint32_t n = pts.padded();
    tr.opaqueOccludedMany(KernelRaySet{pts.x, pts.y, pts.z, rays.dx, rays.dy, rays.dz, rays.tmax, n}, rays.active,
                          rays.blocked);
    uint32_t reached = 0;
    for (uint32_t i = 0; i < n; ++i) {
        if (!rays.active[i] || rays.blocked[i]) continue;
        const float3 d{rays.dx[i], rays.dy[i], rays.dz[i]};
        if (anyPositive(glassTransmittance(s, tr, pts.at(i), d, rays.tmax[i]))) ++reached;
    }
    return reached;
}

// One pass over the points: the ray `toward(p, u)` gives for each point and
// its next two random numbers, kept or not. Branch-free `toward` functions
// make this a loop the compiler turns into vector code.
template <class Toward>
QV_KERNEL void lightBakeRayPass(LightBakePoints& pts, LightBakeRays& rays, Toward toward) {
    const uint32_t count = pts.count, n = pts.padded();
    for (uint32_t i = 0; i < n; ++i) {
        float2 u{rnd(pts.seed[i]), rnd(pts.seed[i])};
        LampRay r = toward(pts.at(i), u);
        rays.dx[i] = r.dir.x, rays.dy[i] = r.dir.y, rays.dz[i] = r.dir.z;
        rays.tmax[i] = lightBakeRayLength(r.dist);
        rays.active[i] = r.ok && i < count;
    }
}

// The shadow rays toward lamp L, ray i from point i: those of sampleLight
// for the points' next two random numbers, active where the sample succeeds.
QV_KERNEL void lightBakeLampRays(const GPULight& lamp, LightBakePoints& pts, LightBakeRays& rays) {
    const GPULight L = lamp; // a local copy: the stores of the pass cannot alias it
    const float3 normal = lightNormal(L);
    switch (lightType(L)) {
    case 0: {
        const bool area = lampAreaPdf(L) > 0.0f;
        lightBakeRayPass(pts, rays, [&](float3 p, float2 u) {
            LampRay r = areaLampRay(p, discLampPoint(L, u), normal);
            r.ok = r.ok && area;
            return r;
        });
        break;
    }
    case 1: lightBakeRayPass(pts, rays, [&](float3 p, float2 u) { return sphereLampRay(L, p, u); }); break;
    default:
        lightBakeRayPass(pts, rays, [&](float3 p, float2 u) {
            LampPoint lp = stripLampPoint(L, p, u);
            LampRay r = areaLampRay(p, lp.y, normal);
            r.ok = r.ok && lp.areaPdf > 0.0f;
            return r;
        });
    }
}

// All R points of one cell in one invocation, for processors that trace rays
// faster in bundles: the same counts as R invocations of lightGridBake (every
// point draws the same random numbers in the same order), but the shadow rays
// of all points toward one lamp go to the tracer together
// (opaqueOccludedMany), and a cell's counters have a single writer.
template <class Tracer>
QV_KERNEL void lightGridBakeCell(const SceneData& s, const Tracer& tr, const GPULightBakeParams& bp,
                                 uint32_t localCell, uint32_t* vis, uint32_t* valid) {
    const uint32_t R = bp.range.z < LIGHT_BAKE_MAX_POINTS ? bp.range.z : LIGHT_BAKE_MAX_POINTS;
    const uint32_t slots = bp.range.w;
    if (localCell >= bp.range.y) return;
    const uint32_t ci = bp.range.x + localCell;
    if (ci >= s.grid.dims.w) return;

    LightBakePoints cand, pts;
    LightBakeRays probe;
    uint32_t prim[LIGHT_BAKE_SLOTS];
    for (uint32_t k = 0; k < R; ++k) {
        uint32_t seed = pcgHash(ci * 7919u + pcgHash(k * 0x9E3779B9u + bp.info.z));
        const float3 p = lightBakePoint(s.grid, ci, k, R, seed);
        float3 d = lightBakeSolidDir(seed);
        cand.x[k] = p.x, cand.y[k] = p.y, cand.z[k] = p.z, cand.seed[k] = seed;
        probe.dx[k] = d.x, probe.dy[k] = d.y, probe.dz[k] = d.z, probe.tmax[k] = LIGHT_BAKE_SOLID_RAY;
    }
    tr.opaqueNearestMany(KernelRaySet{cand.x, cand.y, cand.z, probe.dx, probe.dy, probe.dz, probe.tmax, R}, prim);
    for (uint32_t k = 0; k < R; ++k) {
        if (lightBakeBackFace(s, prim[k], float3{probe.dx[k], probe.dy[k], probe.dz[k]})) continue;
        const uint32_t i = pts.count++;
        pts.x[i] = cand.x[k], pts.y[i] = cand.y[k], pts.z[i] = cand.z[k];
        pts.seed[i] = cand.seed[k];
    }
    valid[localCell] += pts.count;
    if (pts.count == 0u) return;
    pts.pad();

    uint32_t* row = vis + size_t(localCell) * slots;
    LightBakeRays rays;
    const uint32_t lightCount = bp.info.x;
    for (uint32_t li = 0; li < lightCount; ++li) {
        lightBakeLampRays(s.lights[li], pts, rays);
        row[li] += lightBakeReached(s, tr, pts, rays);
    }

    const uint32_t emCount = bp.info.y;
    if (emCount == 0u) return;
    for (uint32_t i = pts.count; i < pts.padded(); ++i) rays.active[i] = 0;
    for (uint32_t i = 0; i < pts.count; ++i) {
        float3 u{rnd(pts.seed[i]), rnd(pts.seed[i]), rnd(pts.seed[i])};
        EmissiveSample es = sampleEmissive(s, emCount, pts.at(i), u);
        rays.dx[i] = es.dir.x, rays.dy[i] = es.dir.y, rays.dz[i] = es.dir.z;
        rays.tmax[i] = es.dist * 0.999f;
        rays.active[i] = es.pdf > 0.0f && es.dist > 1e-5f;
    }
    row[lightCount] += lightBakeReached(s, tr, pts, rays);
}

} // namespace qv
