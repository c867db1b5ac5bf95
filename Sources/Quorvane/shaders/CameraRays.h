#pragma once
// The camera kernel: one sample for one pixel. It seeds the pixel's random
// sequence from the pixel and sample index, makes the camera ray (perspective
// or equirectangular panorama) with tent-filtered jitter or a fixed offset,
// traces the path and adds radiance and denoiser guides to the pixel's sums.
#include "shaders/KernelHelpers.h"
#include "shaders/KernelPortability.h"
#include "shaders/PathTrace.h"
#include "shaders/Random.h"
#include "shaders/Records.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstdint>

namespace qv {

// The per-pixel sums a camera dispatch adds to (index y * width + x).
struct FrameSums {
    float4* accum = nullptr;  // rgb radiance sum (cd/m2), w sample count
    float4* guideA = nullptr; // rgb albedo sum, w first-hit distance sum (m)
    float4* guideB = nullptr; // rgb normal sum, w sum of squared sample luminance
    float4* guideX = nullptr; // GUIDEX_PER_PIXEL per pixel, only with FLAG_MFX_GUIDES
    uint32_t* stats = nullptr; // STAT_COUNT counters
};

// A tent filter of radius one pixel from a uniform number in [0, 2).
QV_KERNEL float tentOffset(float r) { return r < 1.0f ? std::sqrt(r) - 1.0f : 1.0f - std::sqrt(2.0f - r); }

QV_KERNEL uint32_t pixelSeed(uint32_t pixel, uint32_t sampleIndex, uint32_t seed) {
    return pcgHash(pixel ^ pcgHash(sampleIndex * 0x9E3779B9u + seed));
}

// Direction of the panorama position p (pixels): longitude 0 at the centre
// column along fwd, growing to the right; latitude +90 degrees at the top.
QV_KERNEL float3 equirectDir(float2 p, float W, float H, float radPerPixel, float3 fwd, float3 right, float3 up) {
    float lon = (p.x - W * 0.5f) * radPerPixel;
    float lat = 0.5f * PI - p.y * PI / H;
    return normalize((right * std::sin(lon) + fwd * std::cos(lon)) * std::cos(lat) + up * std::sin(lat));
}

QV_KERNEL float3 cameraRayDir(const GPUUniforms& u, float2 pixel) {
    float W = float(u.dims.x), H = float(u.dims.y);
    if ((u.flags.x & FLAG_EQUIRECT) != 0u)
        return equirectDir(pixel, W, H, u.params2.w, xyz(u.camFwd), xyz(u.camRight), xyz(u.camUp));
    float ndcX = pixel.x / W * 2.0f - 1.0f;
    float ndcY = pixel.y / H * 2.0f - 1.0f;
    return normalize(xyz(u.camFwd) + xyz(u.camRight) * ndcX - xyz(u.camUp) * ndcY);
}

template <bool kGuides, class Tracer>
QV_KERNEL void pathTracePixel(const KernelContext<Tracer>& k, const FrameSums& sums, uint32_t x, uint32_t row) {
    const GPUUniforms& u = k.u;
    uint32_t W = u.dims.x, H = u.dims.y;
    if (x >= W || row >= H) return;
    uint32_t p = row * W + x;
    uint32_t seed = pixelSeed(p, u.dims.z, u.flags.z);
    float r1 = 2.0f * rnd(seed), r2 = 2.0f * rnd(seed);
    float2 offset{tentOffset(r1), tentOffset(r2)};
    if (u.params2.z > 0.5f) offset = float2{u.params2.x, u.params2.y};
    float2 pixel{float(x) + 0.5f + offset.x, float(row) + 0.5f + offset.y};
    float3 d = cameraRayDir(u, pixel);

    PathStart start;
    start.coneW = 0.0f;
    start.coneSpread = u.params0.z;
    start.clampFrom = 2;
    start.maxDepth = u.dims.w;
    start.rrDepth = u.flags.y;
    start.anyRough = false;
    start.skipDirect = false;
    start.glassGuides = true;
    PathOut po = tracePath<kGuides>(k, xyz(u.camPos), d, start, seed);

    float3 L = po.L;
    bool albedoMode = (u.flags.x & FLAG_ALBEDO) != 0u;
    if (albedoMode) L = po.gAlb * u.params1.y;
    if (badVec(L) || badFloat(luminance(L))) {
        L = float3{};
        if (sums.stats) atomicAddCounter(&sums.stats[STAT_NONFINITE_SAMPLE], 1u);
    }
    if (po.dropped && sums.stats) atomicAddCounter(&sums.stats[STAT_DROPPED_SAMPLE], 1u);

    float lum = luminance(L);
    float4& a = sums.accum[p];
    a = float4{a.x + L.x, a.y + L.y, a.z + L.z, a.w + 1.0f};
    float4& ga = sums.guideA[p];
    ga = float4{ga.x + po.gAlb.x, ga.y + po.gAlb.y, ga.z + po.gAlb.z, ga.w + po.gDepth};
    float4& gb = sums.guideB[p];
    gb = float4{gb.x + po.gNrm.x, gb.y + po.gNrm.y, gb.z + po.gNrm.z, gb.w + lum * lum};

    if (kGuides && sums.guideX && (u.flags.x & FLAG_MFX_GUIDES) != 0u) {
        float3 E0{};
        if (!albedoMode && !badVec(po.E0))
            E0 = float3{std::fmin(po.E0.x, L.x), std::fmin(po.E0.y, L.y), std::fmin(po.E0.z, L.z)};
        float4* gx = sums.guideX + size_t(p) * GUIDEX_PER_PIXEL;
        gx[0] = float4{gx[0].x + po.gDiff.x, gx[0].y + po.gDiff.y, gx[0].z + po.gDiff.z, gx[0].w + po.gRough};
        gx[1] = float4{gx[1].x + po.gSpec.x, gx[1].y + po.gSpec.y, gx[1].z + po.gSpec.z, gx[1].w};
        float cover = (E0.x > 0.0f || E0.y > 0.0f || E0.z > 0.0f) ? 1.0f : 0.0f;
        gx[2] = float4{gx[2].x + E0.x, gx[2].y + E0.y, gx[2].z + E0.z, gx[2].w + cover};
    }
}

} // namespace qv
