#pragma once
// The path tracing core: follows one path from a starting ray and returns the
// radiance along it with the first-hit guides. BSDF sampling and next-event
// estimation are combined by the power heuristic; thin clear and frosted
// panes and light fittings are special surfaces; section cuts are capped.
// Variance control: firefly clamp from depth clampFrom, roughness
// regularisation after the first rough bounce, the caustics switch and
// Russian roulette.
#include "shaders/BSDF.h"
#include "shaders/KernelHelpers.h"
#include "shaders/KernelPortability.h"
#include "shaders/LightSampling.h"
#include "shaders/LightSamplingRIS.h"
#include "shaders/NeeStats.h"
#include "shaders/Random.h"
#include "shaders/Records.h"
#include "shaders/Sky.h"
#include "shaders/TextureSample.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstdint>

namespace qv {

struct PathStart {
    float coneW = 0;         // ray-cone width at the origin (m)
    float coneSpread = 0;    // ray-cone spread angle (rad)
    uint32_t clampFrom = 2;  // contributions at this depth or deeper are firefly-clamped
    uint32_t maxDepth = 10;  // scattering vertices
    uint32_t rrDepth = 3;    // Russian roulette from this depth
    bool anyRough = false;   // the path already left a rough surface
    bool skipDirect = false; // leave out the sun disc and lamps seen on the first segment
    bool glassGuides = false; // take guides from behind a clear pane that reflects the first ray
};

struct PathOut {
    float3 L;                // radiance along the starting ray (cd/m2)
    float3 gAlb{1.0f, 1.0f, 1.0f}; // first-hit albedo
    float3 gNrm;             // first-hit shading normal
    float gDepth = 1e4f;     // first-hit distance (m)
    float3 gDiff;            // diffuse albedo at the first scattering vertex
    float3 gSpec;            // specular albedo there
    float gRough = 1;        // roughness there
    float3 E0;               // emitters and sky seen before the first scattering vertex
    float firstDist = BIG;   // distance to the first scattering surface
    bool firstBack = false;  // the first opaque surface was hit on its back face
    bool dropped = false;    // a non-finite contribution was discarded
};

// Everything a path reads: uniforms, scene arrays, ray queries and textures.
template <class Tracer>
struct KernelContext {
    const GPUUniforms& u;
    const SceneData& s;
    const Tracer& tr;
    const KernelTextures& tex;
};

// Per-dispatch switches derived once from the uniforms.
struct PathSwitches {
    bool sunOn, sunNee, skyNee, neeOnly, noCaustics, clip;
    uint32_t lightCount, emCount;
    float clampLum, regRough, texScale, clipY, sunPdf;
};

QV_KERNEL PathSwitches pathSwitches(const GPUUniforms& u) {
    PathSwitches p;
    uint32_t f = u.flags.x;
    bool noLightNee = (f & FLAG_NO_LIGHT_NEE) != 0u;
    p.sunOn = (f & FLAG_SUN) != 0u;
    p.sunNee = p.sunOn && !noLightNee;
    p.skyNee = (f & FLAG_SKY_NEE) != 0u;
    p.neeOnly = (f & FLAG_NEE_ONLY) != 0u;
    p.noCaustics = (f & FLAG_NO_CAUSTICS) != 0u;
    p.clip = (f & FLAG_CLIP) != 0u;
    p.lightCount = noLightNee ? 0u : u.counts.x;
    p.emCount = noLightNee ? 0u : u.counts.y;
    p.clampLum = u.params0.x;
    p.regRough = u.params0.y;
    p.texScale = u.params0.w;
    p.clipY = u.params1.x;
    p.sunPdf = u.sunRadiance.w > 0.0f ? 1.0f / u.sunRadiance.w : 0.0f;
    return p;
}

// Weight of an emitter hit by BSDF sampling against its light-sampling density.
QV_KERNEL float bsdfHitWeight(bool neeOnly, float prevPdf, float lightPdf) {
    if (neeOnly) return lightPdf > 0.0f ? 0.0f : 1.0f;
    return misW(prevPdf, lightPdf);
}

struct SurfaceHit {
    float3 x;      // hit point (m)
    float3 ng;     // unit geometric normal facing the ray
    bool front = true; // the ray met the winding front face
};

QV_KERNEL SurfaceHit triangleHit(const packed_float3* pos, const uint32_t* idx, const KernelHit& h, float3 o, float3 d) {
    const uint32_t* t = idx + size_t(h.prim) * 3u;
    float3 p0 = pos[t[0]], p1 = pos[t[1]], p2 = pos[t[2]];
    SurfaceHit sh;
    sh.x = p0 * (1.0f - h.u - h.v) + p1 * h.u + p2 * h.v;
    float3 n = cross(p1 - p0, p2 - p0);
    float len = length(n);
    if (len <= 1e-20f) {
        sh.ng = -d;
        sh.front = true;
        return sh;
    }
    n = n / len;
    sh.front = dot(n, d) < 0.0f;
    sh.ng = sh.front ? n : -n;
    (void)o;
    return sh;
}

// Starts loading everything shading reads of a hit opaque triangle: its
// corners' positions, normals and texture coordinates (nine lines, likely far
// apart, that would otherwise arrive one dependent load at a time) and its
// material and emitter record.
QV_KERNEL void prefetchTriangle(const SceneData& s, uint32_t prim) {
    const uint32_t* t = s.opIdx + size_t(prim) * 3u;
    QV_PREFETCH(s.opInfo + prim);
    for (int c = 0; c < 3; ++c) {
        QV_PREFETCH(s.opPos + t[c]);
        if (s.opNrm) QV_PREFETCH(s.opNrm + t[c]);
        if (s.opUV) QV_PREFETCH(s.opUV + t[c]);
    }
}

// The guides of what lies behind a clear pane, for a camera ray the pane
// reflected before any guide was set: follows the straight-through ray.
struct GuideHit {
    float3 alb{1.0f, 1.0f, 1.0f};
    float3 nrm;
    float dist = 1e4f;
    float3 diff;
    float3 specular;
    float rough = 1.0f;
};

template <class Tracer>
QV_KERNEL float3 texturedBase(const KernelContext<Tracer>& k, const GPUMaterial& m, const KernelHit& h, float3 d,
                              float coneW) {
    float3 base = xyz(m.baseColor);
    if (m.extra.x < 0.0f) return base;
    const uint32_t* t = k.s.opIdx + size_t(h.prim) * 3u;
    float4 c = sampleBaseTexture(k.tex, m, k.s.opPos[t[0]], k.s.opPos[t[1]], k.s.opPos[t[2]], k.s.opUV[t[0]],
                                 k.s.opUV[t[1]], k.s.opUV[t[2]], h.u, h.v, d, coneW);
    base = base * float3{c.x, c.y, c.z};
    return float3{std::fmin(base.x, 0.98f), std::fmin(base.y, 0.98f), std::fmin(base.z, 0.98f)};
}

template <class Tracer>
QV_KERNEL float3 interpolatedNormal(const KernelContext<Tracer>& k, const KernelHit& h, float3 ng) {
    const uint32_t* t = k.s.opIdx + size_t(h.prim) * 3u;
    float3 n = k.s.opNrm[t[0]] * (1.0f - h.u - h.v) + k.s.opNrm[t[1]] * h.u + k.s.opNrm[t[2]] * h.v;
    float len = length(n);
    if (len <= 1e-6f) return ng;
    n = n / len;
    return dot(n, ng) < 0.0f ? -n : n;
}

template <class Tracer>
QV_KERNEL GuideHit guideBehindGlass(const KernelContext<Tracer>& k, float3 o, float3 d, float travelled, float coneW,
                                    float coneSpread) {
    GuideHit g;
    g.nrm = -d;
    for (int step = 0; step < 8; ++step) {
        KernelHit hOp, hAux;
        traceSegment(k.tr, o, d, hOp, hAux);
        if (isHit(hAux) && hAux.t < hOp.t) {
            SurfaceHit sh = triangleHit(k.s.auxPos, k.s.auxIdx, hAux, o, d);
            travelled += hAux.t;
            coneW += coneSpread * hAux.t;
            uint2 info = k.s.auxInfo[hAux.prim];
            if (info.x == AUX_GLASS && k.s.mats[info.y].extra.y > 0.0f) {
                const GPUMaterial& m = k.s.mats[info.y];
                float3 tint = xyz(m.baseColor);
                g.alb = max(tint, splat3(0.02f));
                g.nrm = sh.ng;
                g.dist = travelled;
                g.diff = tint;
                g.specular = splat3(0.04f);
                g.rough = m.extra.y;
                return g;
            }
            if (info.x == AUX_LIGHT) {
                g.alb = splat3(1.0f);
                g.nrm = sh.ng;
                g.dist = travelled;
                g.diff = splat3(0.8f);
                g.specular = splat3(0.04f);
                g.rough = 0.5f;
                return g;
            }
            o = offsetRay(sh.x, -sh.ng);
            continue;
        }
        if (!isHit(hOp)) return g;
        SurfaceHit sh = triangleHit(k.s.opPos, k.s.opIdx, hOp, o, d);
        travelled += hOp.t;
        coneW += coneSpread * hOp.t;
        const GPUMaterial& m = k.s.mats[k.s.opInfo[hOp.prim].x];
        float3 base = texturedBase(k, m, hOp, d, coneW * k.u.params0.w);
        float3 ns = interpolatedNormal(k, hOp, sh.ng);
        g.alb = max(base, splat3(0.02f));
        g.nrm = ns;
        g.dist = travelled;
        float rough = std::fmax(m.params.x, 0.03f);
        float metallic = clampf(m.params.y, 0.0f, 1.0f);
        BSDF b = makeBSDF(k.s.dfg, k.s.dfgAvg, base, metallic, rough, std::fmax(-dot(d, ns), 1e-4f));
        float2 tv = dfgLookup(k.s.dfg, std::fmax(-dot(d, ns), 1e-4f), rough);
        g.diff = b.diffuse * PI;
        g.specular = clamp((b.F0 * tv.x + splat3(tv.y)) * b.msScale, 0.0f, 1.0f);
        g.rough = rough;
        return g;
    }
    return g;
}

// What next-event estimation needs of the scattering surface: its BSDF
// value and density toward a light, and where a shadow ray toward it starts.
struct OpaqueScatter {
    const BSDF& b;
    float3 v;      // toward the viewer, local frame
    float3 x, ng;  // hit point and facing geometric normal
    QV_KERNEL BSDFEval eval(float3 l) const { return bsdfEval(b, v, l); }
    // The cheap resampling target of the RIS lamp modes.
    QV_KERNEL float3 target(float3 l) const { return bsdfEvalTarget(b, v, l); }
    // Opaque surfaces receive light only on the side the ray came from.
    QV_KERNEL bool receives(float3 dir) const { return dot(dir, ng) > 0.0f; }
    QV_KERNEL float3 origin(float3 l) const { (void)l; return offsetRay(x, ng); }
};

// A frosted pane scatters to both sides: a shadow ray leaves from the side
// its light lies on.
struct FrostedScatter {
    float3 v;
    float alpha, eta;
    float3 tint;
    float3 x, ng;
    QV_KERNEL BSDFEval eval(float3 l) const { return frostedEval(v, l, alpha, eta, tint); }
    // The pane has no cheaper form: RIS resamples by its exact value.
    QV_KERNEL float3 target(float3 l) const { return frostedEval(v, l, alpha, eta, tint).f; }
    QV_KERNEL bool receives(float3 dir) const { (void)dir; return true; }
    QV_KERNEL float3 origin(float3 l) const { return offsetRay(x, l.z > 0.0f ? ng : -ng); }
};

template <class Tracer, class Scatter>
QV_KERNEL void sunNee(const KernelContext<Tracer>& k, const PathSwitches& sw, const Scatter& sc, const Basis& frame,
                      float3& L, float3 beta, bool doClamp, uint32_t& seed, bool& bad) {
    float2 r{rnd(seed), rnd(seed)};
    float3 ld = sampleConeDir(xyz(k.u.sunDir), k.u.sunDir.w, r);
    if (!sc.receives(ld)) return;
    float3 l = toLocal(frame, ld);
    // The shadow ray before the BSDF: indoors nearly every sun (or moon)
    // sample is shadowed, and a shadowed one needs no evaluation.
    float3 T = shadowTransmittance(k.s, k.tr, sc.origin(l), ld, BIG);
    countNeeStat(k.s, STAT_SUN_RAYS);
    if (!(maxComp(T) > 0.0f)) return;
    countNeeStat(k.s, STAT_SUN_UNOCCLUDED);
    BSDFEval e = sc.eval(l);
    if (!(maxComp(e.f) > 0.0f)) return;
    float w = sw.neeOnly ? 1.0f : misW(sw.sunPdf, e.pdf);
    addC(L, beta * e.f * std::fabs(l.z) * xyz(k.u.sunRadiance) * T * (w / sw.sunPdf), doClamp, sw.clampLum, bad);
}

template <class Tracer, class Scatter>
QV_KERNEL void skyNee(const KernelContext<Tracer>& k, const PathSwitches& sw, const Scatter& sc, const Basis& frame,
                      float3& L, float3 beta, bool doClamp, uint32_t& seed, bool& bad) {
    const SceneData& s = k.s;
    float4 r{rnd(seed), rnd(seed), rnd(seed), rnd(seed)};
    SkyTexelSample ts = sampleSkyTexelGuided(s.skyRowCdf, s.skyColCdf, s.skyRowGuide, s.skyColGuide, k.u.counts.z,
                                             k.u.counts.w, r);
    // Cheap rejections first: most sky samples inside a house are shadowed,
    // and their BSDF value, density and radiance need not be computed at all.
    if (!(ts.sinTheta > 1e-6f) || !sc.receives(ts.dir)) return;
    float3 l = toLocal(frame, ts.dir);
    float3 T = shadowTransmittance(s, k.tr, sc.origin(l), ts.dir, BIG);
    countNeeStat(s, STAT_SKY_RAYS);
    if (!(maxComp(T) > 0.0f)) return;
    countNeeStat(s, STAT_SKY_UNOCCLUDED);
    BSDFEval e = sc.eval(l);
    if (!(maxComp(e.f) > 0.0f)) return;
    float pdf = skyTexelPdf(s.skyPdf, k.u.counts.z, ts);
    if (!(pdf > 0.0f)) return;
    float w = sw.neeOnly ? 1.0f : misW(pdf, e.pdf);
    float3 Ls = skyLookup(s.sky, k.u.counts.z, k.u.counts.w, ts.dir);
    addC(L, beta * e.f * std::fabs(l.z) * Ls * T * (w / pdf), doClamp, sw.clampLum, bad);
}

// One lamp, chosen with normal n (by RIS in the RIS modes); lamps are sampled
// only on the incident side (dir . ng > 0) and the shadow ray is aimed at the
// sampled point itself.
template <class Tracer, class Scatter>
QV_KERNEL void lampNee(const KernelContext<Tracer>& k, const PathSwitches& sw, const Scatter& sc, const Basis& frame,
                       float3 n, int cell, float3& L, float3 beta, bool doClamp, bool firstVertex, uint32_t& seed,
                       bool& bad) {
    const SceneData& s = k.s;
    countLampStat(s, STAT_LAMP_NEE_TRIED, firstVertex);
    LampPick pick;
    if (risLampMode(s.grid.mode.x, cell)) {
        pick = risPickLamp(s, sc, frame, n, cell, seed);
    } else {
        LightChoice c = chooseLight(s, sc.x, n, cell, seed);
        float2 r{rnd(seed), rnd(seed)};
        if (c.pmf > 0.0f) {
            pick.light = c.index;
            pick.ls = sampleLight(s.lights[c.index], sc.x, r);
            pick.misPdf = c.pmf * pick.ls.pdf;
            pick.scale = 1.0f / pick.misPdf;
        }
    }
    if (pick.light < 0) return;
    countLampStat(s, STAT_LAMP_CHOSEN, firstVertex);
    const LightSample& ls = pick.ls;
    if (!isValid(ls) || !(dot(ls.dir, sc.ng) > 0.0f)) return;
    float3 l = toLocal(frame, ls.dir);
    BSDFEval e = sc.eval(l);
    if (!(maxComp(e.f) > 0.0f)) return;
    countLampStat(s, STAT_LAMP_BSDF_NONZERO, firstVertex);
    float3 xo = offsetRay(sc.x, sc.ng);
    float3 sd = sc.x + ls.dir * ls.dist - xo;
    float slen = length(sd);
    if (!(slen > 0.0f)) return;
    float3 T = shadowTransmittance(s, k.tr, xo, sd / slen, slen * 0.999f - 1e-4f);
    if (maxComp(T) > 0.0f) countLampStat(s, STAT_LAMP_UNOCCLUDED, firstVertex);
    float w = sw.neeOnly ? 1.0f : misW(pick.misPdf, e.pdf);
    addC(L, beta * e.f * std::fabs(l.z) * ls.Le * T * (w * pick.scale), doClamp, sw.clampLum, bad);
}

// One emissive triangle, traced with the cell's roulette probability.
template <class Tracer>
QV_KERNEL void emissiveNee(const KernelContext<Tracer>& k, const PathSwitches& sw, const OpaqueScatter& sc,
                           const Basis& frame, int cell, float3& L, float3 beta, bool doClamp, uint32_t& seed,
                           bool& bad) {
    const SceneData& s = k.s;
    float pEm = emissiveNeeProb(s, cell);
    if (!(pEm >= 1.0f || rnd(seed) < pEm)) return;
    float3 r{rnd(seed), rnd(seed), rnd(seed)};
    EmissiveSample es = sampleEmissive(s, sw.emCount, sc.x, r);
    if (!(es.pdf > 0.0f) || !sc.receives(es.dir)) return;
    float3 l = toLocal(frame, es.dir);
    float3 xo = sc.origin(l);
    float3 sd = es.y - xo;
    float slen = length(sd);
    if (!(slen > 0.0f)) return;
    // Shadow ray first: most emissive samples are hidden from the point.
    float3 T = shadowTransmittance(s, k.tr, xo, sd / slen, slen * 0.999f);
    countNeeStat(s, STAT_EMISSIVE_RAYS);
    if (!(maxComp(T) > 0.0f)) return;
    countNeeStat(s, STAT_EMISSIVE_UNOCCLUDED);
    BSDFEval e = sc.eval(l);
    if (!(maxComp(e.f) > 0.0f)) return;
    float pl = pEm * es.pdf;
    float w = sw.neeOnly ? 1.0f : misW(pl, e.pdf);
    addC(L, beta * e.f * std::fabs(l.z) * es.Le * T * (w / pl), doClamp, sw.clampLum, bad);
}

// Should a segment end on an opaque surface, that vertex's sky sample uses
// the random numbers after the sun's two: its tables can start loading
// before the segment is traced (first stage) and once it is (second stage).
struct SkyAhead {
    bool on = false;
    uint32_t row = 0;
    float u1 = 0.0f;
};

QV_KERNEL SkyAhead startSkyPrefetch(const SceneData& s, const GPUUniforms& u, const PathSwitches& sw, uint32_t seed) {
    SkyAhead a;
    if (!sw.skyNee || !s.skyColGuide) return a;
    if (sw.sunNee) {
        rnd(seed);
        rnd(seed);
    }
    float u0 = rnd(seed);
    a.u1 = rnd(seed);
    a.row = prefetchSkyRow(s.skyRowCdf, s.skyRowGuide, s.skyColGuide, u.counts.w, u0, a.u1);
    a.on = true;
    return a;
}

QV_KERNEL void finishSkyPrefetch(const SceneData& s, const GPUUniforms& u, const SkyAhead& a) {
    if (a.on) prefetchSkyColumns(s.skyColCdf, s.skyColGuide, u.counts.z, a.row, a.u1);
}

QV_KERNEL bool russianRoulette(float3& beta, uint32_t depth, uint32_t rrDepth, uint32_t& seed) {
    if (depth < rrDepth) return true;
    float q = std::fmin(maxComp(beta), 0.95f);
    if (rnd(seed) >= q) return false;
    beta = beta / q;
    return true;
}

QV_KERNEL bool isZero(float3 v) { return v.x == 0.0f && v.y == 0.0f && v.z == 0.0f; }

constexpr int PATH_MAX_ITERATIONS = 64;

template <bool kGuides, class Tracer>
QV_KERNEL PathOut tracePath(const KernelContext<Tracer>& k, float3 o, float3 d, const PathStart& start,
                            uint32_t& seed) {
    const GPUUniforms& u = k.u;
    const SceneData& s = k.s;
    const PathSwitches sw = pathSwitches(u);
    PathOut out;
    out.gNrm = -d;
    float3 L{};
    float3 beta{1.0f, 1.0f, 1.0f};
    uint32_t depth = 0;
    float3 prevX = o, prevN{0.0f, 1.0f, 0.0f};
    float prevPdf = 0.0f;
    int prevCell = -1;
    bool prevDelta = true, prevFrosted = false, anyRough = start.anyRough, afterRoughDelta = false;
    float coneW = start.coneW, coneSpread = start.coneSpread, travelled = 0.0f;
    bool guideDone = false, matGuide = false;
    bool bad = false;

    for (int iter = 0; iter < PATH_MAX_ITERATIONS; ++iter) {
        const SkyAhead skyAhead = startSkyPrefetch(s, u, sw, seed);
        KernelHit hOp, hAux;
        const bool opKnown = traceSegment(k.tr, o, d, hOp, hAux);
        finishSkyPrefetch(s, u, skyAhead);
        // And the light grid's cell record, from the hit distance alone (the
        // normal comes later; a point near a cell boundary may load the
        // neighbour's, which costs nothing but the load).
        if (isHit(hOp) && (sw.lightCount > 0u || sw.emCount > 0u)) prefetchLightCell(s, o + d * hOp.t, -d);
        if (isHit(hOp)) prefetchTriangle(s, hOp.prim);
        float tOp = isHit(hOp) ? hOp.t : BIG;
        bool auxFirst = isHit(hAux) && hAux.t < tOp;
        bool direct0 = start.skipDirect && depth == 0u;
        bool clampHere = depth >= start.clampFrom;

        if (!isHit(hOp) && !auxFirst) {
            float3 Ls = skyLookup(s.sky, u.counts.z, u.counts.w, d);
            float w = 1.0f;
            if (!prevDelta && sw.skyNee) w = bsdfHitWeight(sw.neeOnly, prevPdf, skyPdfDir(s.skyPdf, u.counts.z, u.counts.w, d));
            addC(L, beta * Ls * w, clampHere, sw.clampLum, bad);
            if (!direct0 && sw.sunOn && 1.0f - dot(d, xyz(u.sunDir)) <= u.sunDir.w &&
                !(sw.noCaustics && afterRoughDelta)) {
                float ws = (prevDelta || !sw.sunNee) ? 1.0f : bsdfHitWeight(sw.neeOnly, prevPdf, sw.sunPdf);
                addC(L, beta * xyz(u.sunRadiance) * ws, clampHere, sw.clampLum, bad);
            }
            if (!guideDone) {
                out.gAlb = splat3(1.0f);
                out.gNrm = -d;
                out.gDepth = 1e4f;
                guideDone = true;
            }
            break;
        }

        float3 x, ng, ns, base;
        float roughParam = 0.5f, metallicParam = 0.0f;
        bool isFitting = false;

        if (auxFirst) {
            SurfaceHit sh = triangleHit(s.auxPos, s.auxIdx, hAux, o, d);
            uint2 info = s.auxInfo[hAux.prim];
            if (info.x == AUX_GLASS) {
                const GPUMaterial& m = s.mats[info.y];
                float3 tint = xyz(m.baseColor);
                travelled += hAux.t;
                coneW += coneSpread * hAux.t;
                if (!(m.extra.y > 0.0f)) {
                    float F = fresnelDielectric(-dot(d, sh.ng), m.params.z);
                    if (rnd(seed) < F) {
                        if (!guideDone && start.glassGuides) {
                            GuideHit g = guideBehindGlass(k, offsetRay(sh.x, -sh.ng), d, travelled, coneW, coneSpread);
                            out.gAlb = g.alb;
                            out.gNrm = g.nrm;
                            out.gDepth = g.dist;
                            if (kGuides && !matGuide) {
                                out.gDiff = g.diff;
                                out.gSpec = g.specular;
                                out.gRough = g.rough;
                                matGuide = true;
                            }
                            guideDone = true;
                        }
                        d = reflect(d, sh.ng);
                        o = offsetRay(sh.x, sh.ng);
                        prevDelta = true;
                        if (anyRough) afterRoughDelta = true;
                        if (depth == 0u) out.E0 = L;
                        ++depth;
                        if (depth > start.maxDepth) break;
                    } else {
                        beta = beta * tint;
                        o = offsetRay(sh.x, -sh.ng);
                    }
                    continue;
                }
                // Frosted pane: one rough interface, a scattering vertex.
                if (!guideDone) {
                    out.gAlb = max(tint, splat3(0.02f));
                    out.gNrm = sh.ng;
                    out.gDepth = travelled;
                    guideDone = true;
                }
                if (kGuides && !matGuide) {
                    out.gDiff = tint;
                    out.gSpec = splat3(0.04f);
                    out.gRough = m.extra.y;
                    matGuide = true;
                }
                if (depth == 0u) {
                    out.firstDist = travelled;
                    out.E0 = L;
                }
                ++depth;
                if (depth > start.maxDepth) break;
                countNeeStat(s, STAT_SCATTER_VERTICES);
                float alpha = frostedAlpha(m.extra.y);
                float eta = m.params.z;
                Basis frame = makeBasis(sh.ng);
                float3 v = toLocal(frame, -d);
                int cell = (sw.lightCount > 0u || sw.emCount > 0u) ? lightCellOf(s, sh.x, sh.ng) : -1;
                // At a pane, sun and sky are clamped one depth later than elsewhere: a sunlit frosted
                // pane is a bright, smooth secondary source for the first surface seen.
                FrostedScatter pane{v, alpha, eta, tint, sh.x, sh.ng};
                bool clampSunSky = depth >= start.clampFrom + 1u;
                if (sw.sunNee) sunNee(k, sw, pane, frame, L, beta, clampSunSky, seed, bad);
                if (sw.skyNee) skyNee(k, sw, pane, frame, L, beta, clampSunSky, seed, bad);
                if (sw.lightCount > 0u)
                    lampNee(k, sw, pane, frame, sh.ng, cell, L, beta, depth >= start.clampFrom, depth == 1u, seed,
                            bad);
                float3 r3{rnd(seed), rnd(seed), rnd(seed)};
                BSDFSample bs = frostedSample(v, alpha, eta, tint, r3);
                if (!isValid(bs)) break;
                beta = beta * bs.weight;
                if (badVec(beta)) {
                    bad = true;
                    break;
                }
                if (isZero(beta)) break;
                float3 nd = toWorld(frame, bs.l);
                o = offsetRay(sh.x, bs.l.z > 0.0f ? sh.ng : -sh.ng);
                d = normalize(nd);
                prevX = sh.x;
                prevN = sh.ng;
                prevPdf = bs.pdf;
                prevCell = cell;
                prevDelta = false;
                prevFrosted = true;
                anyRough = true;
                afterRoughDelta = false;
                coneSpread += 2.0f * alpha;
                if (!russianRoulette(beta, depth, start.rrDepth, seed)) break;
                continue;
            }
            if (info.x != AUX_LIGHT) {
                travelled += hAux.t;
                coneW += coneSpread * hAux.t;
                o = offsetRay(sh.x, -sh.ng);
                continue;
            }
            // A light fitting.
            const GPULight& light = s.lights[info.y];
            float tHit = hAux.t;
            x = sh.x;
            ng = sh.ng;
            if (lightType(light) == 1) {
                float3 oc = o - lightCentre(light);
                float r = light.normalRadius.w;
                float bq = dot(oc, d), cq = dot(oc, oc) - r * r;
                float disc = bq * bq - cq;
                float tS = disc >= 0.0f ? -bq - std::sqrt(disc) : -1.0f;
                // The sphere lies inside its proxy, so an opaque surface may
                // still come between the proxy and the sphere.
                if (!opKnown && tS > 0.0f) tOp = k.tr.opaque(o, d, BIG).t;
                if (cq <= 0.0f || disc < 0.0f || !(tS > 0.0f) || !(tS < tOp)) {
                    travelled += hAux.t;
                    coneW += coneSpread * hAux.t;
                    o = offsetRay(sh.x, -sh.ng);
                    continue;
                }
                tHit = tS;
                x = o + d * tS;
                ng = normalize(x - lightCentre(light));
            }
            travelled += tHit;
            coneW += coneSpread * tHit;
            float3 Le = lightLe(light, d);
            if (!direct0 && !isZero(Le) && !(sw.noCaustics && afterRoughDelta)) {
                float w = 1.0f;
                if (!(prevDelta || (prevFrosted && dot(d, prevN) <= 0.0f))) {
                    float plh = sw.lightCount > 0u ? lightChoicePmf(s, info.y, prevX, prevN, prevCell) *
                                                         lightPdf(light, prevX, x, d)
                                                   : 0.0f;
                    w = bsdfHitWeight(sw.neeOnly, prevPdf, plh);
                }
                addC(L, beta * Le * w, clampHere, sw.clampLum, bad);
            }
            if (!guideDone) {
                out.gAlb = splat3(1.0f);
                out.gNrm = ng;
                out.gDepth = travelled;
                guideDone = true;
            }
            if (depth == 0u) out.firstDist = travelled;
            // The fitting scatters like opal glass.
            base = splat3(0.8f);
            ns = ng;
            roughParam = 0.5f;
            metallicParam = 0.0f;
            isFitting = true;
        } else {
            SurfaceHit sh = triangleHit(s.opPos, s.opIdx, hOp, o, d);
            x = sh.x;
            ng = sh.ng;
            ns = interpolatedNormal(k, hOp, ng);
            uint2 info = s.opInfo[hOp.prim];
            const GPUMaterial& m = s.mats[info.x];
            float tHit = hOp.t;
            bool cap = false;
            if (sw.clip && !sh.front && o.y > sw.clipY && d.y < -1e-6f) {
                tHit = (sw.clipY - o.y) / d.y;
                x = o + d * tHit;
                ng = ns = float3{0.0f, 1.0f, 0.0f};
                cap = true;
            }
            travelled += tHit;
            coneW += coneSpread * tHit;
            if (depth == 0u) {
                out.firstDist = travelled;
                out.firstBack = !sh.front && !cap;
            }
            base = cap ? xyz(m.baseColor) : texturedBase(k, m, hOp, d, coneW * sw.texScale);
            if (!cap && m.emission.w > 0.0f && info.y != NO_EMISSIVE && !(sw.noCaustics && afterRoughDelta)) {
                const GPUEmissiveTri& et = s.emTris[info.y];
                bool twoSided = (et.flags & EM_TWO_SIDED) != 0u;
                bool flip = (et.flags & EM_FLIP) != 0u;
                if (twoSided || sh.front != flip) {
                    float w = 1.0f;
                    if (!(prevDelta || prevFrosted)) {
                        float3 dx = x - prevX;
                        float pl = sw.emCount > 0u ? emissiveNeeProb(s, prevCell) * et.pmf * dot(dx, dx) /
                                                         (et.area * std::fmax(std::fabs(dot(sh.ng, d)), 1e-6f))
                                                   : 0.0f;
                        w = bsdfHitWeight(sw.neeOnly, prevPdf, pl);
                    }
                    addC(L, beta * xyz(m.emission) * w, clampHere, sw.clampLum, bad);
                }
            }
            if (!guideDone) {
                out.gAlb = max(base, splat3(0.02f));
                out.gNrm = ns;
                out.gDepth = travelled;
                guideDone = true;
            }
            roughParam = m.params.x;
            metallicParam = m.params.y;
        }

        // Scattering vertex (opaque surface or fitting).
        float metallic = clampf(metallicParam, 0.0f, 1.0f);
        if (depth == 0u) out.E0 = L;
        ++depth;
        if (depth > start.maxDepth) break;
        countNeeStat(s, STAT_SCATTER_VERTICES);
        float3 wo = -d;
        if (dot(wo, ns) <= 1e-4f) ns = ng;
        Basis frame = makeBasis(ns);
        float rough = std::fmax(roughParam, 0.03f);
        if (anyRough) rough = std::fmax(rough, sw.regRough);
        float mu = dot(wo, ns);
        BSDF b = makeBSDF(s.dfg, s.dfgAvg, base, metallic, rough, mu);
        float3 v = toLocal(frame, wo);
        if (kGuides && !matGuide) {
            float2 tv = dfgLookup(s.dfg, mu, rough);
            out.gDiff = b.diffuse * PI;
            out.gSpec = clamp((b.F0 * tv.x + splat3(tv.y)) * b.msScale, 0.0f, 1.0f);
            out.gRough = rough;
            matGuide = true;
        }
        (void)isFitting;

        int cell = (sw.lightCount > 0u || sw.emCount > 0u) ? lightCellOf(s, x, ng) : -1;
        prefetchLightCellList(s, cell);
        OpaqueScatter surface{b, v, x, ng};
        bool doClamp = depth >= start.clampFrom;
        if (sw.sunNee) sunNee(k, sw, surface, frame, L, beta, doClamp, seed, bad);
        if (sw.skyNee) skyNee(k, sw, surface, frame, L, beta, doClamp, seed, bad);
        if (sw.lightCount > 0u) lampNee(k, sw, surface, frame, ns, cell, L, beta, doClamp, depth == 1u, seed, bad);
        if (sw.emCount > 0u) emissiveNee(k, sw, surface, frame, cell, L, beta, doClamp, seed, bad);

        float3 r3{rnd(seed), rnd(seed), rnd(seed)};
        BSDFSample bs = bsdfSample(b, v, r3);
        if (!isValid(bs)) break;
        float3 nd = toWorld(frame, bs.l);
        if (!(dot(nd, ng) > 0.0f)) break;
        beta = beta * bs.weight;
        if (badVec(beta)) {
            bad = true;
            break;
        }
        if (isZero(beta)) break;
        prevX = x;
        prevN = ns;
        prevPdf = bs.pdf;
        prevCell = cell;
        prevDelta = false;
        prevFrosted = false;
        anyRough = true;
        afterRoughDelta = false;
        coneSpread += (bs.lobe & LOBE_SPECULAR) != 0u ? 2.0f * b.alpha : 0.5f;
        if (!russianRoulette(beta, depth, start.rrDepth, seed)) break;
        o = offsetRay(x, ng);
        d = normalize(nd);
    }
    if (kGuides && depth == 0u) out.E0 = L;
    out.L = L;
    out.dropped = bad;
    return out;
}

} // namespace qv
