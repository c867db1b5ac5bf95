#pragma once
// Base-colour texture lookup at a ray hit. The footprint comes from the ray
// cone: two vectors across the cone, projected along the ray onto the
// triangle's plane, give the texture-space gradients, which choose the mip
// level and the anisotropy (up to 16 trilinear taps along the long axis).
#include "shaders/KernelHelpers.h"
#include "shaders/KernelPortability.h"
#include "shaders/Records.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstdint>

namespace qv {

// The texture array as the kernels see it: square layers with full mip
// chains of 8-bit sRGB RGBA texels (layer L, level l starts at byte
// L * layerBytes + levelOffset[l]).
struct KernelTextures {
    const uint8_t* texels = nullptr;
    const uint64_t* levelOffset = nullptr; // bytes from the start of a layer, per level
    const float* srgbToLinear = nullptr;   // 256 entries: byte -> linear value
    uint64_t layerBytes = 0;
    int size = 0;                          // texels per side of level 0
    int layers = 0;
    int levels = 0;
};

constexpr int TEX_MAX_ANISO = 16;

QV_KERNEL float texWrapOffset(float t0, float mode) {
    if (mode > 1.5f) return 2.0f * std::floor(t0 * 0.5f); // mirrored repeat: period 2
    if (mode > 0.5f) return 0.0f;                         // clamp to edge
    return std::floor(t0);                                // repeat
}

QV_KERNEL float texWrapCoord(float x, float mode, float halfTexel) {
    if (mode > 1.5f) {
        float m = x - 2.0f * std::floor(x * 0.5f);
        return m <= 1.0f ? m : 2.0f - m;
    }
    if (mode > 0.5f) return clampf(x, halfTexel, 1.0f - halfTexel);
    return x;
}

QV_KERNEL int texWrapIndex(int i, int n) {
    int m = i % n;
    return m < 0 ? m + n : m;
}

QV_KERNEL float4 texFetch(const KernelTextures& tex, const uint8_t* level, int n, int x, int y) {
    const uint8_t* p = level + (size_t(texWrapIndex(y, n)) * size_t(n) + size_t(texWrapIndex(x, n))) * 4u;
    return float4{tex.srgbToLinear[p[0]], tex.srgbToLinear[p[1]], tex.srgbToLinear[p[2]], float(p[3]) / 255.0f};
}

QV_KERNEL float4 lerp4(float4 a, float4 b, float t) {
    return float4{a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t, a.z + (b.z - a.z) * t, a.w + (b.w - a.w) * t};
}

// Bilinear sample of one level with repeat addressing.
QV_KERNEL float4 texBilinear(const KernelTextures& tex, int layer, int lvl, float u, float v) {
    int n = tex.size >> lvl;
    if (n < 1) n = 1;
    const uint8_t* level = tex.texels + uint64_t(layer) * tex.layerBytes + tex.levelOffset[lvl];
    float fx = u * float(n) - 0.5f, fy = v * float(n) - 0.5f;
    float x0f = std::floor(fx), y0f = std::floor(fy);
    float tx = fx - x0f, ty = fy - y0f;
    // Keep the integer coordinates small before converting: the period is n.
    float period = float(n);
    x0f -= period * std::floor(x0f / period);
    y0f -= period * std::floor(y0f / period);
    int x0 = int(x0f), y0 = int(y0f);
    float4 a = lerp4(texFetch(tex, level, n, x0, y0), texFetch(tex, level, n, x0 + 1, y0), tx);
    float4 b = lerp4(texFetch(tex, level, n, x0, y0 + 1), texFetch(tex, level, n, x0 + 1, y0 + 1), tx);
    return lerp4(a, b, ty);
}

QV_KERNEL float4 texTrilinear(const KernelTextures& tex, int layer, float lod, float u, float v) {
    float maxLod = float(tex.levels - 1);
    lod = clampf(lod, 0.0f, maxLod);
    int l0 = int(std::floor(lod));
    float t = lod - float(l0);
    float4 a = texBilinear(tex, layer, l0, u, v);
    if (t <= 0.0f || l0 + 1 > tex.levels - 1) return a;
    return lerp4(a, texBilinear(tex, layer, l0 + 1, u, v), t);
}

// Linear RGBA of the material's texture at barycentrics (b1, b2) of the
// triangle (v0, v1, v2) with texture coordinates (t0, t1, t2), seen along d
// by a ray cone of width coneW metres (0 = finest level).
QV_KERNEL float4 sampleBaseTexture(const KernelTextures& tex, const GPUMaterial& mat, float3 v0, float3 v1, float3 v2,
                                   float2 t0, float2 t1, float2 t2, float b1, float b2, float3 d, float coneW) {
    float4 white{1.0f, 1.0f, 1.0f, 1.0f};
    if (!tex.texels || tex.layers <= 0 || mat.extra.x < -0.5f) return white;
    int layer = int(std::floor(mat.extra.x + 0.5f));
    if (layer >= tex.layers) return white;
    float modeS = mat.extra.z, modeT = mat.extra.w;
    float offU = texWrapOffset(t0.x, modeS), offV = texWrapOffset(t0.y, modeT);
    t0 = float2{t0.x - offU, t0.y - offV};
    t1 = float2{t1.x - offU, t1.y - offV};
    t2 = float2{t2.x - offU, t2.y - offV};
    float b0 = 1.0f - b1 - b2;
    float u = t0.x * b0 + t1.x * b1 + t2.x * b2;
    float v = t0.y * b0 + t1.y * b1 + t2.y * b2;

    float2 gA{}, gB{};
    float3 e1 = v1 - v0, e2 = v2 - v0;
    float3 n = cross(e1, e2);
    float n2 = dot(n, n);
    if (n2 > 1e-30f && coneW > 0.0f) {
        float3 nu = n / std::sqrt(n2);
        float dn = dot(d, nu);
        if (std::fabs(dn) < 0.03f) dn = dn < 0.0f ? -0.03f : 0.03f;
        Basis basis = makeBasis(d);
        float3 a = basis.t * coneW, b = basis.b * coneW;
        float3 A = a - d * (dot(a, nu) / dn);
        float3 B = b - d * (dot(b, nu) / dn);
        float2 du1{t1.x - t0.x, t1.y - t0.y}, du2{t2.x - t0.x, t2.y - t0.y};
        float wA1 = dot(cross(A, e2), n) / n2, wA2 = dot(cross(e1, A), n) / n2;
        float wB1 = dot(cross(B, e2), n) / n2, wB2 = dot(cross(e1, B), n) / n2;
        gA = float2{wA1 * du1.x + wA2 * du2.x, wA1 * du1.y + wA2 * du2.y};
        gB = float2{wB1 * du1.x + wB2 * du2.x, wB1 * du1.y + wB2 * du2.y};
    }
    float halfTexel = 0.5f / float(tex.size);
    u = texWrapCoord(u, modeS, halfTexel);
    v = texWrapCoord(v, modeT, halfTexel);

    // Footprint in texels of level 0 along both gradients.
    float size = float(tex.size);
    float lenA = std::sqrt(gA.x * gA.x + gA.y * gA.y) * size;
    float lenB = std::sqrt(gB.x * gB.x + gB.y * gB.y) * size;
    float major = std::fmax(lenA, lenB);
    if (!(major > 1e-8f)) return texTrilinear(tex, layer, 0.0f, u, v);
    float minor = std::fmax(std::fmin(lenA, lenB), major / float(TEX_MAX_ANISO));
    int taps = int(std::fmin(std::ceil(major / minor), float(TEX_MAX_ANISO)));
    if (taps < 1) taps = 1;
    float lod = std::log2(std::fmax(minor, 1e-8f));
    float2 axis = lenA >= lenB ? gA : gB;
    float4 sum{};
    for (int i = 0; i < taps; ++i) {
        float s = (float(i) + 0.5f) / float(taps) - 0.5f;
        float4 c = texTrilinear(tex, layer, lod, u + axis.x * s, v + axis.y * s);
        sum = float4{sum.x + c.x, sum.y + c.y, sum.z + c.z, sum.w + c.w};
    }
    float inv = 1.0f / float(taps);
    return float4{sum.x * inv, sum.y * inv, sum.z * inv, sum.w * inv};
}

} // namespace qv
