#pragma once
// Small helpers every path-tracing kernel shares: colour measures, the
// non-finite guard, an orthonormal basis, the self-intersection offset, the
// MIS weight, clamped accumulation and the inverse-CDF search.
#include "shaders/KernelPortability.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstdint>
#include <cstring>

namespace qv {

QV_KERNEL float clampf(float x, float lo, float hi) { return std::fmin(std::fmax(x, lo), hi); }
QV_KERNEL float mixf(float a, float b, float t) { return a + (b - a) * t; }
QV_KERNEL float3 mix(float3 a, float3 b, float t) { return a + (b - a) * t; }
QV_KERNEL float3 clamp(float3 v, float lo, float hi) {
    return {clampf(v.x, lo, hi), clampf(v.y, lo, hi), clampf(v.z, lo, hi)};
}
QV_KERNEL float3 splat3(float s) { return {s, s, s}; }

// Reflection of the incident direction d about the unit normal n (d points
// toward the surface; the result points away from it).
QV_KERNEL float3 reflect(float3 d, float3 n) { return d - n * (2.0f * dot(d, n)); }

// Bit-pattern moves between float and uint slots ("uint bits" in the records).
QV_KERNEL uint32_t asUintBits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}
QV_KERNEL float asFloatBits(uint32_t u) {
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}

// Rec. 709 luminance of a linear colour.
QV_KERNEL float luminance(float3 c) { return 0.2126f * c.x + 0.7152f * c.y + 0.0722f * c.z; }
QV_KERNEL float maxComp(float3 c) { return std::fmax(c.x, std::fmax(c.y, c.z)); }

// Infinity or NaN, decided on the exponent bits so that fast-math builds cannot
// fold the test away.
QV_KERNEL bool badFloat(float x) { return (asUintBits(x) & 0x7F800000u) == 0x7F800000u; }
QV_KERNEL bool badVec(float3 v) { return badFloat(v.x) || badFloat(v.y) || badFloat(v.z); }

// Orthonormal tangent frame around a unit normal; z of local vectors is n.
struct Basis {
    float3 t; // tangent
    float3 b; // bitangent
    float3 n; // normal
};

// Branchless basis of Duff et al. (2017): continuous everywhere except the
// sign flip at n.z = 0, with no normalisation needed.
QV_KERNEL Basis makeBasis(float3 n) {
    float s = n.z >= 0.0f ? 1.0f : -1.0f;
    float a = -1.0f / (s + n.z);
    float b = n.x * n.y * a;
    return Basis{{1.0f + s * n.x * n.x * a, s * b, -s * n.x}, {b, s + n.y * n.y * a, -n.y}, n};
}
QV_KERNEL float3 toLocal(const Basis& f, float3 v) { return {dot(v, f.t), dot(v, f.b), dot(v, f.n)}; }
QV_KERNEL float3 toWorld(const Basis& f, float3 v) { return f.t * v.x + f.b * v.y + f.n * v.z; }

// Moves a hit point off its surface along n so a ray leaving it cannot hit the
// same surface again (Waechter and Binder, Ray Tracing Gems ch. 6): far from the
// origin by int(256 n) units in the last place, near the origin (|p| < 1/32)
// by n / 65536 in floating point.
QV_KERNEL float offsetCoord(float p, float n) {
    const float origin = 1.0f / 32.0f;
    const float floatScale = 1.0f / 65536.0f;
    const float intScale = 256.0f;
    if (std::fabs(p) < origin) return p + floatScale * n;
    int32_t ulps = int32_t(intScale * n);
    // Unsigned wrap-around adds the signed step to the bit pattern.
    return asFloatBits(asUintBits(p) + uint32_t(p < 0.0f ? -ulps : ulps));
}
QV_KERNEL float3 offsetRay(float3 p, float3 n) {
    return {offsetCoord(p.x, n.x), offsetCoord(p.y, n.y), offsetCoord(p.z, n.z)};
}

// Power heuristic (beta = 2) for the strategy with density a against b.
QV_KERNEL float misW(float a, float b) {
    if (a <= 0.0f) return 0.0f;
    float r = b / a;
    return 1.0f / (1.0f + r * r);
}

// Adds contribution c to the radiance sum L. A non-finite contribution is
// dropped and flags `bad`; with doClamp and clampLum > 0 a contribution whose
// luminance exceeds clampLum is scaled to it, keeping its hue.
QV_KERNEL void addC(float3& L, float3 c, bool doClamp, float clampLum, bool& bad) {
    if (badVec(c)) {
        bad = true;
        return;
    }
    if (doClamp && clampLum > 0.0f) {
        float lum = luminance(c);
        if (lum > clampLum) c = c * (clampLum / lum);
    }
    L += c;
}

// First index of n ascending cumulative values whose value exceeds u; n - 1
// when none does (u at or above the last value through rounding).
QV_KERNEL uint32_t searchCdf(const float* cdf, uint32_t n, float u) {
    // Branch-free halving (the comparisons of a random u mispredict half the
    // time): the answer stays within [lo, lo + len - 1] and len shrinks to 1.
    uint32_t lo = 0, len = n;
    while (len > 1u) {
        uint32_t half = len / 2u;
        lo = cdf[lo + half - 1u] > u ? lo : lo + half;
        len -= half;
    }
    return lo;
}

// A guide to a cumulative table: entry k (0..CDF_GUIDE_N) is the first index
// whose value exceeds k / CDF_GUIDE_N (n - 1 when none does). A search for u
// then only looks between the entries of floor(u CDF_GUIDE_N) and the next,
// and returns exactly what searchCdf returns over the whole table.
constexpr uint32_t CDF_GUIDE_N = 64;

QV_KERNEL void buildCdfGuide(const float* cdf, uint32_t n, uint32_t* guide) {
    uint32_t i = 0;
    for (uint32_t k = 0; k <= CDF_GUIDE_N; ++k) {
        float level = float(k) / float(CDF_GUIDE_N);
        while (i < n - 1u && !(cdf[i] > level)) ++i;
        guide[k] = i;
    }
}

// The range [lo, hi] of a guided search for u: the answer lies within it.
struct CdfRange {
    uint32_t lo, hi;
};

QV_KERNEL CdfRange cdfGuideRange(uint32_t n, float u, const uint32_t* guide) {
    float scaled = u * float(CDF_GUIDE_N);
    uint32_t k = scaled >= float(CDF_GUIDE_N) ? CDF_GUIDE_N - 1u : (scaled > 0.0f ? uint32_t(scaled) : 0u);
    uint32_t lo = guide[k];
    uint32_t hi = guide[k + 1u];
    if (hi > n - 1u) hi = n - 1u;
    if (lo > hi) lo = hi;
    return CdfRange{lo, hi};
}

QV_KERNEL uint32_t searchCdfRange(const float* cdf, CdfRange r, float u) {
    uint32_t lo = r.lo;
    uint32_t len = r.hi - r.lo + 1u;
    while (len > 1u) {
        uint32_t half = len / 2u;
        lo = cdf[lo + half - 1u] > u ? lo : lo + half;
        len -= half;
    }
    return lo;
}

QV_KERNEL uint32_t searchCdfGuided(const float* cdf, uint32_t n, float u, const uint32_t* guide) {
    return searchCdfRange(cdf, cdfGuideRange(n, u, guide), u);
}

// Atomic increment of a stats counter shared by all pixels.
QV_KERNEL void atomicAddCounter(uint32_t* counter, uint32_t v) {
#if defined(__CUDACC__)
    atomicAdd(counter, v);
#else
    __atomic_fetch_add(counter, v, __ATOMIC_RELAXED);
#endif
}

} // namespace qv
