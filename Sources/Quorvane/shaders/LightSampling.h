#pragma once
// Next-event estimation: choosing an emitter and a point on it, the densities
// of those choices (needed in both directions by the MIS weights), and the
// visibility of a shadow ray through thin glass.
//
// Emitters: analytic lamps (chosen through the light tree, or through the
// light-visibility grid's per-cell lists with a defensive tree branch),
// emissive model triangles (chosen by their power CDF), the sun disc and the
// sky map. Every density returned here is per unit solid angle at the
// shading point; a pdf of 0 means "no sample".
//
// Ray queries go through the Tracer type, which must provide
//   KernelHit opaque(float3 o, float3 d, float tmax) const;        nearest opaque hit in (0, tmax)
//   KernelHit aux(float3 o, float3 d, float tmax) const;           nearest glass or fitting hit in (0, tmax)
//   KernelHit glass(float3 o, float3 d, float tmin, float tmax) const; nearest glass hit in (tmin, tmax)
//   bool opaqueOccluded(float3 o, float3 d, float tmax) const;     any opaque hit in (0, tmax)
// and, optionally, both nearest-hit queries of a path segment in one
//   NearestHit nearest(float3 o, float3 d) const;                   nearest opaque, glass or fitting hit
// (a tracer that has it saves the second traversal of every segment);
// and, for the light grid's bake (shaders/LightGrid.h),
//   void opaqueOccludedMany(const KernelRaySet& rays, const uint8_t* active, uint8_t* blocked) const;
//                                                                  opaqueOccluded of each active ray, 0 for the rest
//   void opaqueNearestMany(const KernelRaySet& rays, uint32_t* prim) const;
//                                                                  the nearest opaque triangle of each ray (KERNEL_NO_HIT)
#include "shaders/FastTrig.h"
#include "shaders/BSDF.h"
#include "shaders/KernelHelpers.h"
#include "shaders/KernelPortability.h"
#include "shaders/Random.h"
#include "shaders/Records.h"
#include "shaders/Sky.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstdint>

namespace qv {

// One ray-query result: t = BIG and prim = KERNEL_NO_HIT on a miss; the hit
// point is v0 (1 - u - v) + v1 u + v2 v.
constexpr uint32_t KERNEL_NO_HIT = 0xFFFFFFFFu;
struct KernelHit {
    float t = BIG;
    uint32_t prim = KERNEL_NO_HIT;
    float u = 0, v = 0;
};
QV_KERNEL bool isHit(const KernelHit& h) { return h.prim != KERNEL_NO_HIT; }

// The nearest hit of a segment over the opaque and the auxiliary triangles;
// aux tells which numbering prim is in.
struct NearestHit {
    KernelHit hit;
    bool aux = false;
};

// The two nearest-hit queries of a path segment: hOp, the nearest opaque hit,
// then hAux, the nearest auxiliary hit in front of it. Returns false when
// hOp was not looked for because an auxiliary hit came first (the caller asks
// for the opaque distance only if it needs it).
template <class Tracer>
QV_KERNEL bool traceSegment(const Tracer& tr, float3 o, float3 d, KernelHit& hOp, KernelHit& hAux) {
    if constexpr (requires { tr.nearest(o, d); }) {
        NearestHit n = tr.nearest(o, d);
        hOp = n.aux ? KernelHit{} : n.hit;
        hAux = n.aux ? n.hit : KernelHit{};
        return !n.aux;
    } else {
        hOp = tr.opaque(o, d, BIG);
        hAux = tr.aux(o, d, hOp.t);
        return true;
    }
}

// Shadow-ray segments by coordinate: ray i from (ox, oy, oz)[i] along the
// unit (dx, dy, dz)[i] up to tmax[i] (m).
struct KernelRaySet {
    const float *ox, *oy, *oz, *dx, *dy, *dz, *tmax;
    uint32_t count;
};

struct LightSample {
    float3 dir;    // unit direction from the shading point to the sampled point
    float dist = 0; // distance to it (m)
    float3 Le;     // radiance arriving along dir (cd/m2)
    float pdf = 0; // solid-angle density of the point choice on this light (1/sr)
};
QV_KERNEL bool isValid(const LightSample& s) { return s.pdf > 0.0f; }

struct LightChoice {
    int index = -1; // light index, -1 = none
    float pmf = 0;  // probability of the choice
};

// x^p for a lamp's falloff exponent: lamps mostly have p = 1 (a plain
// Lambertian panel) or 2, so those powers are taken exactly without a call.
QV_KERNEL float lampPow(float x, float p) {
    if (p == 0.0f) return 1.0f;
    if (p == 1.0f) return x;
    if (p == 2.0f) return x * x;
    return std::pow(x, p);
}

QV_KERNEL float3 lightCentre(const GPULight& L) { return xyz(L.posType); }
QV_KERNEL float3 lightNormal(const GPULight& L) { return xyz(L.normalRadius); }
QV_KERNEL int lightType(const GPULight& L) { return int(std::floor(L.posType.w + 0.5f)); }

// ---- Choosing a lamp ---------------------------------------------------

// Estimated illuminance of light L at x with normal n: the selection weight.
QV_KERNEL float lightWeight(const GPULight& L, float3 x, float3 n) {
    float3 d = lightCentre(L) - x;
    float d2 = std::fmax(dot(d, d), 1e-8f);
    float invDist = 1.0f / std::sqrt(d2);
    float r = L.normalRadius.w;
    float sinA = std::fmin(r * invDist, 1.0f);
    float recv = dot(n, d) * invDist + sinA;
    if (recv <= 0.0f) return 0.0f;
    float emit = 1.0f;
    if (lightType(L) != 1) {
        float side = -dot(d, lightNormal(L));
        if (side <= 0.0f) return 0.0f;
        float cosL = clampf(side * invDist + sinA, 0.02f, 1.0f);
        float p = L.vExp.w;
        emit = lampPow(cosL, p);
    }
    return L.radiance.w * emit * std::fmin(recv, 1.0f) / std::fmax(d2, r * r);
}

// cos(max(0, acos(c) - psi)) for psi in [0, pi) given by its cosine and sine,
// without inverse trigonometry: 1 when psi covers the whole angle, else the
// cosine of the difference.
QV_KERNEL float cosReducedAngle(float c, float cosPsi, float sinPsi) {
    if (c >= cosPsi) return 1.0f;
    return c * cosPsi + std::sqrt(std::fmax(0.0f, 1.0f - c * c)) * sinPsi;
}

// Conservative importance of a tree node (Conty and Kulla 2018): zero only
// when no light below can reach the upper hemisphere of n at x. The angle
// bounds theta_i = max(0, acos(n.w) - theta_u) and theta_e = max(0,
// acos(-axis.w) - theta_o - theta_u) are evaluated through their cosines.
QV_KERNEL float nodeImportance(const GPULightNode& N, float3 x, float3 n) {
    float3 bmin = xyz(N.bmin), bmax = xyz(N.bmax);
    float3 c = (bmin + bmax) * 0.5f;
    float3 half = (bmax - bmin) * 0.5f;
    float r2 = dot(half, half);
    float3 d = c - x;
    float d2 = dot(d, d);
    float flux = N.bmin.w;
    if (d2 <= r2) return flux / std::fmax(r2, 1e-8f);
    float dist = std::sqrt(d2);
    float3 w = d / dist;
    float sinU = std::fmin(std::sqrt(r2) / dist, 1.0f);
    float cosU = std::sqrt(std::fmax(0.0f, 1.0f - sinU * sinU));
    float cosI = cosReducedAngle(clampf(dot(n, w), -1.0f, 1.0f), cosU, sinU);
    if (cosI <= 0.0f) return 0.0f;
    float importance = flux * cosI / d2;
    if (N.bmax.w > -1.0f) {
        float cosO = clampf(N.bmax.w, -1.0f, 1.0f);
        float sinO = std::sqrt(std::fmax(0.0f, 1.0f - cosO * cosO));
        // psi = theta_o + theta_u; at pi or more every direction is inside the cone.
        float cosPsi = cosO * cosU - sinO * sinU;
        float sinPsi = sinO * cosU + cosO * sinU;
        if (sinPsi < 0.0f) return importance;
        float cosE = cosReducedAngle(clampf(-dot(xyz(N.axis), w), -1.0f, 1.0f), cosPsi, sinPsi);
        if (cosE <= 0.0f) return 0.0f;
        importance *= cosE;
    }
    return importance;
}

// One pass of weighted reservoir sampling with a single uniform number,
// rescaled in place after every decision.
struct Reservoir {
    int chosen = -1;
    float chosenWeight = 0;
    float wsum = 0;
};
QV_KERNEL void reservoirUpdate(Reservoir& r, int index, float w, float& u) {
    r.wsum += w;
    if (w <= 0.0f) return;
    float p = w / r.wsum;
    if (u < p) {
        r.chosen = index;
        r.chosenWeight = w;
        u = std::fmin(u / p, 0.99999994f);
    } else {
        u = std::fmin((u - p) / (1.0f - p), 0.99999994f);
    }
}

constexpr int LIGHT_TREE_MAX_STEPS = 48;

// Descends the light tree from the root.
QV_KERNEL LightChoice selectLight(const SceneData& s, float3 x, float3 n, uint32_t& seed) {
    float pmf = 1.0f;
    uint32_t node = 0;
    for (int step = 0; step < LIGHT_TREE_MAX_STEPS; ++step) {
        const GPULightNode& N = s.nodes[node];
        if (N.info.z != 0u) {
            Reservoir r;
            float u = rnd(seed);
            for (uint32_t k = 0; k < N.info.y; ++k) {
                uint32_t li = N.info.x + k;
                reservoirUpdate(r, int(li), lightWeight(s.lights[li], x, n), u);
            }
            if (r.chosen < 0 || !(r.wsum > 0.0f)) return LightChoice{};
            return LightChoice{r.chosen, pmf * r.chosenWeight / r.wsum};
        }
        float wl = nodeImportance(s.nodes[N.info.x], x, n);
        float wr = nodeImportance(s.nodes[N.info.y], x, n);
        float total = wl + wr;
        if (!(total > 0.0f)) return LightChoice{};
        if (rnd(seed) * total < wl) {
            pmf *= wl / total;
            node = N.info.x;
        } else {
            pmf *= wr / total;
            node = N.info.y;
        }
    }
    return LightChoice{};
}

// The probability that selectLight returns light li, along its stored path.
QV_KERNEL float lightSelectPmf(const SceneData& s, uint32_t li, float3 x, float3 n) {
    const GPULight& L = s.lights[li];
    uint32_t path = asUintBits(L.extra.z);
    uint32_t depth = asUintBits(L.extra.w);
    float pmf = 1.0f;
    uint32_t node = 0;
    for (uint32_t k = 0; k < depth && k < uint32_t(LIGHT_TREE_MAX_STEPS); ++k) {
        const GPULightNode& N = s.nodes[node];
        if (N.info.z != 0u) break;
        float wl = nodeImportance(s.nodes[N.info.x], x, n);
        float wr = nodeImportance(s.nodes[N.info.y], x, n);
        float total = wl + wr;
        if (!(total > 0.0f)) return 0.0f;
        bool right = k < 32u && ((path >> k) & 1u) != 0u;
        pmf *= (right ? wr : wl) / total;
        node = right ? N.info.y : N.info.x;
    }
    const GPULightNode& leaf = s.nodes[node];
    if (leaf.info.z == 0u) return 0.0f;
    float wsum = 0.0f, wi = 0.0f;
    for (uint32_t k = 0; k < leaf.info.y; ++k) {
        uint32_t lk = leaf.info.x + k;
        float w = lightWeight(s.lights[lk], x, n);
        wsum += w;
        if (lk == li) wi = w;
    }
    if (!(wsum > 0.0f)) return 0.0f;
    return pmf * wi / wsum;
}

// The grid cell whose lists serve point p; -1 = use the tree.
QV_KERNEL int lightCellAt(const SceneData& s, float3 p) {
    const GPULightGridParams& g = s.grid;
    if (g.mode.x == NEE_TREE || g.mode.x == NEE_RIS_TREE || g.mode.z == 0u || !s.cellRange) return -1;
    float3 f = (p - xyz(g.origin)) / g.origin.w;
    if (!(f.x >= 0.0f && f.y >= 0.0f && f.z >= 0.0f)) return -1;
    float3 c{std::floor(f.x), std::floor(f.y), std::floor(f.z)};
    if (c.x >= float(g.dims.x) || c.y >= float(g.dims.y) || c.z >= float(g.dims.z)) return -1;
    uint32_t index = uint32_t(c.x) + g.dims.x * (uint32_t(c.y) + g.dims.y * uint32_t(c.z));
    if (s.cellRange[index].w == CELL_UNKNOWN) return -1;
    return int(index);
}

// The shading point moved off the surface along its facing normal, so a wall
// on a cell boundary never takes the other room's list.
QV_KERNEL int lightCellOf(const SceneData& s, float3 x, float3 ng) {
    return lightCellAt(s, x + ng * s.grid.params.z);
}

// Starts loading the cell record that lightCellOf(x, ng) will read, without
// waiting for it: a shading point knows its position well before it chooses
// a lamp.
QV_KERNEL void prefetchLightCell(const SceneData& s, float3 x, float3 ng) {
    const GPULightGridParams& g = s.grid;
    if (g.mode.x == NEE_TREE || g.mode.x == NEE_RIS_TREE || g.mode.z == 0u || !s.cellRange) return;
    float3 f = (x + ng * g.params.z - xyz(g.origin)) / g.origin.w;
    if (!(f.x >= 0.0f && f.y >= 0.0f && f.z >= 0.0f)) return;
    if (!(f.x < float(g.dims.x) && f.y < float(g.dims.y) && f.z < float(g.dims.z))) return;
    uint32_t index = uint32_t(f.x) + g.dims.x * (uint32_t(f.y) + g.dims.y * uint32_t(f.z));
    QV_PREFETCH(s.cellRange + index);
}

// Starts loading a cell's list of lamps (its record should be cached by now).
QV_KERNEL void prefetchLightCellList(const SceneData& s, int cell) {
    if (cell >= 0) QV_PREFETCH(s.cellEntry + s.cellRange[cell].x);
}

QV_KERNEL float cellEntryWeight(const SceneData& s, uint32_t entry, float3 x, float3 n) {
    uint32_t li = entry & CELL_ENTRY_LIGHT_MASK;
    float vis = float((entry >> CELL_ENTRY_VIS_SHIFT) & 0xFFu) / 255.0f;
    float vmin = s.grid.params.y;
    return lightWeight(s.lights[li], x, n) * (vmin + (1.0f - vmin) * vis);
}

QV_KERNEL bool cellLists(const SceneData& s, int cell, uint32_t li) {
    uint4 range = s.cellRange[cell];
    for (uint32_t k = 0; k < range.y; ++k)
        if ((s.cellEntry[range.x + k] & CELL_ENTRY_LIGHT_MASK) == li) return true;
    return false;
}

// Lamp choice with the grid: the cell's list, or with probability eps a tree
// sample that counts only for lights the list lacks.
QV_KERNEL LightChoice chooseLight(const SceneData& s, float3 x, float3 n, int cell, uint32_t& seed) {
    if (cell < 0) return selectLight(s, x, n, seed);
    float eps = s.grid.params.x;
    if (rnd(seed) < eps) {
        LightChoice t = selectLight(s, x, n, seed);
        if (t.index < 0 || cellLists(s, cell, uint32_t(t.index))) return LightChoice{};
        return LightChoice{t.index, t.pmf * eps};
    }
    uint4 range = s.cellRange[cell];
    Reservoir r;
    float u = rnd(seed);
    for (uint32_t k = 0; k < range.y; ++k) {
        uint32_t entry = s.cellEntry[range.x + k];
        reservoirUpdate(r, int(entry & CELL_ENTRY_LIGHT_MASK), cellEntryWeight(s, entry, x, n), u);
    }
    if (r.chosen < 0 || !(r.wsum > 0.0f)) return LightChoice{};
    return LightChoice{r.chosen, (1.0f - eps) * r.chosenWeight / r.wsum};
}

QV_KERNEL float lightChoicePmf(const SceneData& s, uint32_t li, float3 x, float3 n, int cell) {
    if (cell < 0) return lightSelectPmf(s, li, x, n);
    float eps = s.grid.params.x;
    uint4 range = s.cellRange[cell];
    float wsum = 0.0f, wi = 0.0f;
    bool listed = false;
    for (uint32_t k = 0; k < range.y; ++k) {
        uint32_t entry = s.cellEntry[range.x + k];
        float w = cellEntryWeight(s, entry, x, n);
        wsum += w;
        if ((entry & CELL_ENTRY_LIGHT_MASK) == li) {
            wi = w;
            listed = true;
        }
    }
    if (listed) return wsum > 0.0f ? (1.0f - eps) * wi / wsum : 0.0f;
    return eps * lightSelectPmf(s, li, x, n);
}

// ---- Points on a lamp --------------------------------------------------

QV_KERNEL float3 sampleConeDir(float3 axis, float oneMinusCosMax, float2 u) {
    float cosT = 1.0f - u.x * oneMinusCosMax;
    float sinT = std::sqrt(std::fmax(0.0f, 1.0f - cosT * cosT));
    SinCos phi = sinCosTurns(u.y);
    Basis b = makeBasis(axis);
    return normalize(toWorld(b, float3{sinT * phi.c, sinT * phi.s, cosT}));
}

// 1 - cos of the cone a sphere subtends from x, computed without cancellation;
// a negative value when x is inside the sphere. Written without branches, as
// are the other per-point pieces below, so that a loop of them over many
// points vectorises (the light grid's bake).
QV_KERNEL float sphereConeOmc(const GPULight& L, float3 x) {
    float3 d = lightCentre(L) - x;
    float d2 = dot(d, d);
    float r = L.normalRadius.w;
    float s2 = r * r / d2;
    float cosMax = std::sqrt(std::fmax(0.0f, 1.0f - s2));
    return d2 <= r * r * 1.0001f ? -1.0f : s2 / (1.0f + cosMax);
}

// A ray from x toward a point of a lamp: ok is false where sampleLight fails.
struct LampRay {
    float3 dir;
    float dist = 0;
    float d2 = 0;
    float cosL = 0; // cosine at an area lamp's surface; 1 - cos of the cone for a sphere
    bool ok = false;
};

// Toward point y of an area lamp with unit normal n (the lamp's front side).
QV_KERNEL LampRay areaLampRay(float3 x, float3 y, float3 n) {
    LampRay r;
    float3 d = y - x;
    r.d2 = dot(d, d);
    r.dist = std::sqrt(r.d2);
    r.dir = d / r.dist;
    r.cosL = -dot(r.dir, n);
    r.ok = r.d2 >= 1e-10f && r.cosL > 1e-6f;
    return r;
}

// Toward a point of a sphere lamp, uniform over the cone it subtends.
QV_KERNEL LampRay sphereLampRay(const GPULight& L, float3 x, float2 u) {
    LampRay s;
    float omc = sphereConeOmc(L, x);
    float3 dc = lightCentre(L) - x;
    float d2 = dot(dc, dc);
    float3 w = dc / std::sqrt(d2);
    s.dir = sampleConeDir(w, omc, u);
    float cosT = dot(s.dir, w);
    float r = L.normalRadius.w;
    float sin2 = std::fmax(0.0f, 1.0f - cosT * cosT);
    float dist = std::sqrt(d2) * cosT - std::sqrt(std::fmax(r * r - d2 * sin2, 0.0f));
    s.dist = std::fmax(dist, 0.0f);
    s.cosL = omc;
    s.ok = omc > 0.0f;
    return s;
}

// A point on an area lamp and the density per unit area it was drawn with.
struct LampPoint {
    float3 y;
    float areaPdf = 0;
};

// A point of a disc lamp (an N-gon of fans from the centre): u.x picks the
// fan and, with u.y, the point in it, uniform by area.
QV_KERNEL float3 discLampPoint(const GPULight& L, float2 u) {
    float N = std::fmax(L.extra.x, 3.0f);
    float k = std::fmin(std::floor(u.x * N), N - 1.0f);
    float uu = clampf(u.x * N - k, 0.0f, 1.0f);
    float r = L.normalRadius.w;
    SinCos a1 = sinCosTurns(k / N), a2 = sinCosTurns((k + 1.0f) / N);
    float3 c = lightCentre(L), tu = xyz(L.uArea), tv = xyz(L.vExp);
    float3 p1 = c + (tu * a1.c + tv * a1.s) * r;
    float3 p2 = c + (tu * a2.c + tv * a2.s) * r;
    float su = std::sqrt(uu);
    float b0 = 1.0f - su, b1 = u.y * su;
    return c * b0 + p1 * b1 + p2 * (1.0f - b0 - b1);
}

// The inverse of a disc or rectangle lamp's area, 0 for a degenerate one.
QV_KERNEL float lampAreaPdf(const GPULight& L) { return L.uArea.w > 0.0f ? 1.0f / L.uArea.w : 0.0f; }

// Density along a strip (equi-angular along the length, uniform across) of
// the point y, per unit area.
QV_KERNEL float stripAreaPdf(const GPULight& L, float3 x, float3 y) {
    float3 c = lightCentre(L);
    float3 hu = xyz(L.uArea);
    float Lh = length(hu);
    float Wh = length(xyz(L.vExp));
    if (!(Lh > 0.0f)) return 0.0f;
    float3 a = hu / Lh;
    float s0 = dot(x - c, a);
    float3 foot = c + a * s0;
    float h = std::fmax(length(x - foot), 1e-4f);
    float th0 = std::atan((-Lh - s0) / h), th1 = std::atan((Lh - s0) / h);
    if (!(th1 - th0 > 1e-7f) || !(Wh > 0.0f)) return lampAreaPdf(L);
    float t = dot(y - c, a);
    return (h / ((t - s0) * (t - s0) + h * h)) / (th1 - th0) / (2.0f * Wh);
}

// The common tail of area lights: direction, distance and solid-angle density
// from an area density at point y. Without kRadiance the radiance is left 0
// (the light grid's bake needs only where the sample lies).
template <bool kRadiance = true>
QV_KERNEL LightSample areaLightTail(const GPULight& L, float3 x, float3 y, float areaPdf) {
    LightSample ls;
    LampRay r = areaLampRay(x, y, lightNormal(L));
    if (!r.ok || !(areaPdf > 0.0f)) return ls;
    ls.dir = r.dir;
    ls.dist = r.dist;
    if constexpr (kRadiance) {
        float p = L.vExp.w;
        ls.Le = xyz(L.radiance) * lampPow(r.cosL, p - 1.0f);
    }
    ls.pdf = areaPdf * r.d2 / r.cosL;
    return ls;
}

// A point of a strip lamp with its density per unit area (0: no sample):
// equi-angular along the length, so the part facing a nearby surface gets
// the samples, uniform across the width; uniform over the whole rectangle
// when x lies on the strip's axis or the strip has no width.
QV_KERNEL LampPoint stripLampPoint(const GPULight& L, float3 x, float2 u) {
    float3 c = lightCentre(L), hu = xyz(L.uArea), hv = xyz(L.vExp);
    float Lh = length(hu), Wh = length(hv);
    float3 a = hu / Lh;
    float s0 = dot(x - c, a);
    float h = std::fmax(length(x - (c + a * s0)), 1e-4f);
    float th0 = std::atan((-Lh - s0) / h), th1 = std::atan((Lh - s0) / h);
    float t = clampf(s0 + h * std::tan(th0 + u.x * (th1 - th0)), -Lh, Lh);
    const bool equiAngular = th1 - th0 > 1e-7f && Wh > 0.0f;
    LampPoint lp;
    lp.y = equiAngular ? c + a * t + hv * (2.0f * u.y - 1.0f) : c + hu * (2.0f * u.x - 1.0f) + hv * (2.0f * u.y - 1.0f);
    lp.areaPdf = equiAngular ? (h / ((t - s0) * (t - s0) + h * h)) / (th1 - th0) / (2.0f * Wh) : lampAreaPdf(L);
    lp.areaPdf = Lh > 0.0f ? lp.areaPdf : 0.0f;
    return lp;
}

template <bool kRadiance = true>
QV_KERNEL LightSample sampleLight(const GPULight& L, float3 x, float2 u) {
    LightSample ls;
    int type = lightType(L);
    if (type == 1) {
        LampRay r = sphereLampRay(L, x, u);
        if (!r.ok) return ls;
        ls.dir = r.dir;
        ls.dist = r.dist;
        ls.Le = xyz(L.radiance);
        ls.pdf = 1.0f / (TWO_PI * r.cosL);
        return ls;
    }
    if (type == 0) return areaLightTail<kRadiance>(L, x, discLampPoint(L, u), lampAreaPdf(L));
    LampPoint lp = stripLampPoint(L, x, u);
    return areaLightTail<kRadiance>(L, x, lp.y, lp.areaPdf);
}

// Solid-angle density with which sampleLight produces point y along dir.
QV_KERNEL float lightPdf(const GPULight& L, float3 x, float3 y, float3 dir) {
    int type = lightType(L);
    if (type == 1) {
        float omc = sphereConeOmc(L, x);
        return omc > 0.0f ? 1.0f / (TWO_PI * omc) : 0.0f;
    }
    float cosL = -dot(dir, lightNormal(L));
    if (cosL <= 1e-6f) return 0.0f;
    float3 d = y - x;
    float d2 = dot(d, d);
    if (type == 2) return stripAreaPdf(L, x, y) * d2 / cosL;
    return L.uArea.w > 0.0f ? d2 / (L.uArea.w * cosL) : 0.0f;
}

QV_KERNEL float3 lightLe(const GPULight& L, float3 dir) {
    if (lightType(L) == 1) return xyz(L.radiance);
    float c = -dot(dir, lightNormal(L));
    if (c <= 0.0f) return float3{};
    float p = L.vExp.w;
    return xyz(L.radiance) * lampPow(c, p - 1.0f);
}

// ---- Emissive triangles ----------------------------------------------------

// The probability of tracing the emissive shadow ray from a cell.
QV_KERNEL float emissiveNeeProb(const SceneData& s, int cell) {
    if (cell < 0 || s.cellRange[cell].z > 0u) return 1.0f;
    return s.grid.params.w;
}

struct EmissiveSample {
    float3 y;      // point on the triangle (m)
    float3 dir;    // unit direction from x
    float dist = 0;
    float3 Le;     // emitted radiance (cd/m2)
    float pdf = 0; // solid-angle density including the triangle choice, before the roulette factor
};

QV_KERNEL EmissiveSample sampleEmissive(const SceneData& s, uint32_t count, float3 x, float3 u) {
    EmissiveSample es;
    uint32_t k = s.emGuide ? searchCdfGuided(s.emCdf, count, u.x, s.emGuide) : searchCdf(s.emCdf, count, u.x);
    const GPUEmissiveTri& et = s.emTris[k];
    const uint32_t* idx = s.opIdx + size_t(et.tri) * 3u;
    float3 p0 = s.opPos[idx[0]], p1 = s.opPos[idx[1]], p2 = s.opPos[idx[2]];
    float su = std::sqrt(u.y);
    float3 y = p0 * (1.0f - su) + p1 * (u.z * su) + p2 * ((1.0f - u.z) * su);
    float3 en = normalize(cross(p1 - p0, p2 - p0));
    if ((et.flags & EM_FLIP) != 0u) en = -en;
    float3 d = y - x;
    float d2 = dot(d, d);
    if (d2 < 1e-10f) return es;
    float dist = std::sqrt(d2);
    float3 dir = d / dist;
    float cosL = -dot(dir, en);
    if ((et.flags & EM_TWO_SIDED) != 0u) cosL = std::fabs(cosL);
    if (!(cosL > 1e-6f) || !(et.area > 0.0f)) return es;
    es.y = y;
    es.dir = dir;
    es.dist = dist;
    es.Le = xyz(s.mats[s.opInfo[et.tri].x].emission);
    es.pdf = et.pmf * d2 / (et.area * cosL);
    return es;
}

// ---- Visibility ----------------------------------------------------------

// Transmittance of the segment from o along unit d up to tmax: 0 behind any
// opaque surface or a frosted pane, the Fresnel-weighted tints of the clear
// panes crossed otherwise.
// The glass part alone: for a segment already known to miss opaque geometry.
template <class Tracer>
QV_KERNEL float3 glassTransmittance(const SceneData& s, const Tracer& tr, float3 o, float3 d, float tmax) {
    float3 T{1.0f, 1.0f, 1.0f};
    if (!s.hasGlass) return T;
    float t0 = 0.0f;
    for (int i = 0; i < 16; ++i) {
        KernelHit h = tr.glass(o, d, t0, tmax);
        if (!isHit(h)) break;
        const GPUMaterial& m = s.mats[s.auxInfo[h.prim].y];
        if (m.extra.y > 0.0f) return float3{};
        const uint32_t* idx = s.auxIdx + size_t(h.prim) * 3u;
        float3 p0 = s.auxPos[idx[0]], p1 = s.auxPos[idx[1]], p2 = s.auxPos[idx[2]];
        float3 ng = normalize(cross(p1 - p0, p2 - p0));
        T = T * xyz(m.baseColor) * (1.0f - fresnelDielectric(std::fabs(dot(d, ng)), m.params.z));
        if (T.x < 1e-4f && T.y < 1e-4f && T.z < 1e-4f) return float3{};
        t0 = h.t + std::fmax(1e-5f, h.t * 2e-6f);
    }
    return T;
}

template <class Tracer>
QV_KERNEL float3 shadowTransmittance(const SceneData& s, const Tracer& tr, float3 o, float3 d, float tmax) {
    if (tr.opaqueOccluded(o, d, tmax)) return float3{};
    return glassTransmittance(s, tr, o, d, tmax);
}

} // namespace qv
