#pragma once
// Display transform: scene-linear radiance sums to display-referred sRGB.
// Per pixel: colour = sum / n, times the exposure x white-balance gain, a
// scene-linear saturation, one operator (AgX with a look, fitted ACES or a
// plain clamp) and the sRGB transfer function. Every operator returns linear
// light so the one sRGB encode serves all three.
#include "shaders/KernelPortability.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace qv {

// Operator numbers in GPUTone::opts.x.
constexpr uint32_t TONE_AGX = 0;
constexpr uint32_t TONE_ACES = 1;
constexpr uint32_t TONE_CLAMP = 2;

// Per-dispatch tone parameters (host name ToneParams), 48 bytes.
struct GPUTone {
    float4 gain; // rgb = exposure x white-balance gain (1 / (cd/m2)); w unused
    float4 look; // x = scene-linear saturation; y = AgX look power; z = AgX look saturation; w = 0
    uint4 opts;  // x = operator (TONE_*); y = width, z = height (pixels); w = 0
};
static_assert(sizeof(GPUTone) == 48);
static_assert(offsetof(GPUTone, gain) == 0 && offsetof(GPUTone, look) == 16 && offsetof(GPUTone, opts) == 32);

// Second record of the confidence kernel, 16 bytes:
// x = 1 when the denoised image is shown; y = relative error at and below which
// the confidence is 1; z = relative error at and above which it is 0;
// w = white luminance (cd/m2), the scene luminance that maps to 1.0.
struct GPUConfidence {
    float4 c;
};
static_assert(sizeof(GPUConfidence) == 16);

// Rec. 709 luminance weights.
QV_KERNEL float rec709Luminance(float3 c) { return 0.2126f * c.x + 0.7152f * c.y + 0.0722f * c.z; }

QV_KERNEL float clamp01(float x) { return std::fmin(std::fmax(x, 0.0f), 1.0f); }

QV_KERNEL float3 mul3x3(const float m[9], float3 c) {
    return {m[0] * c.x + m[1] * c.y + m[2] * c.z, m[3] * c.x + m[4] * c.y + m[5] * c.z,
            m[6] * c.x + m[7] * c.y + m[8] * c.z};
}

// The mean colour of a sum record: (r, g, b) / w, or black when w <= 0.
QV_KERNEL float3 meanColour(float4 s) { return s.w > 0 ? float3{s.x / s.w, s.y / s.w, s.z / s.w} : float3{}; }

// AgX: inset into a log2 encoding of -12.47 to +4.03 stops around mid grey,
// a sigmoid polynomial, the look (power and saturation), outset, and the 2.2
// power back to linear.
QV_KERNEL float3 agxToneCurve(float3 c, float lookPower, float lookSaturation) {
    const float inset[9] = {0.842479062253094f,  0.0784335999999992f, 0.0792237451477643f,
                            0.0423282422610123f, 0.878468636469772f,  0.0791661274605434f,
                            0.0423756549057051f, 0.0784336f,          0.879142973793104f};
    const float outset[9] = {1.19687900512017f,   -0.0980208811401368f, -0.0990297440797205f,
                             -0.0528968517574562f, 1.15190312990417f,   -0.0989611768448433f,
                             -0.0529716355144438f, -0.0980434501171241f, 1.15107367264116f};
    const float minEv = -12.47393f;
    const float maxEv = 4.026069f;
    c = mul3x3(inset, max(c, float3{1e-10f, 1e-10f, 1e-10f}));
    float3 r;
    for (int i = 0; i < 3; ++i) {
        float x = std::fmin(std::fmax(std::log2(c[i]), minEv), maxEv);
        x = (x - minEv) / (maxEv - minEv);
        float x2 = x * x, x4 = x2 * x2;
        float p = 15.5f * x4 * x2 - 40.14f * x4 * x + 31.96f * x4 - 6.868f * x2 * x + 0.4298f * x2 + 0.1191f * x -
                  0.00232f;
        r[i] = std::pow(std::fmax(p, 0.0f), lookPower);
    }
    float lc = rec709Luminance(r);
    r = float3{lc, lc, lc} + lookSaturation * (r - float3{lc, lc, lc});
    r = mul3x3(outset, r);
    for (int i = 0; i < 3; ++i) r[i] = std::pow(std::fmax(r[i], 0.0f), 2.2f);
    return r;
}

// The fitted ACES filmic curve (input transform, RRT+ODT rational fit, output
// transform), after a 0.6 pre-scale.
QV_KERNEL float3 acesFittedToneCurve(float3 c) {
    const float inputM[9] = {0.59719f, 0.35458f, 0.04823f, 0.07600f, 0.90834f,
                             0.01566f, 0.02840f, 0.13383f, 0.83777f};
    const float outputM[9] = {1.60475f, -0.53108f, -0.07367f, -0.10208f, 1.10813f,
                              -0.00605f, -0.00327f, -0.07276f, 1.07602f};
    c = mul3x3(inputM, c * 0.6f);
    float3 f;
    for (int i = 0; i < 3; ++i) {
        float x = c[i];
        float a = x * (x + 0.0245786f) - 0.000090537f;
        float b = x * (0.983729f * x + 0.4329510f) + 0.238081f;
        f[i] = a / b;
    }
    f = mul3x3(outputM, f);
    return {clamp01(f.x), clamp01(f.y), clamp01(f.z)};
}

// sRGB opto-electronic transfer function on [0, 1].
QV_KERNEL float srgbEncode(float x) {
    x = clamp01(x);
    return x <= 0.0031308f ? 12.92f * x : 1.055f * std::pow(x, 1.0f / 2.4f) - 0.055f;
}

// The shared per-pixel transform: a sum record to sRGB-encoded (0..1) rgb.
QV_KERNEL float3 toneMapColour(float4 src, const GPUTone& P) {
    float3 c = meanColour(src) * xyz(P.gain);
    float l = rec709Luminance(c);
    c = max(float3{l, l, l} + P.look.x * (c - float3{l, l, l}), float3{});
    switch (P.opts.x) {
    case TONE_AGX: c = agxToneCurve(c, P.look.y, P.look.z); break;
    case TONE_ACES: c = acesFittedToneCurve(c); break;
    default: c = {clamp01(c.x), clamp01(c.y), clamp01(c.z)}; break;
    }
    return {srgbEncode(c.x), srgbEncode(c.y), srgbEncode(c.z)};
}

// An encoded value in [0, 1] to a byte, rounding half up.
QV_KERNEL uint8_t encodedToByte(float x) { return static_cast<uint8_t>(static_cast<uint32_t>(clamp01(x) * 255.0f + 0.5f)); }

// tonemap: dst is W x H packed R, G, B, A bytes, row-major, top row first.
QV_KERNEL void tonemap(const float4* src, uint8_t* dst, const GPUTone& P, uint32_t x, uint32_t y) {
    if (x >= P.opts.y || y >= P.opts.z) return;
    size_t i = size_t(y) * P.opts.y + x;
    float3 c = toneMapColour(src[i], P);
    dst[4 * i + 0] = encodedToByte(c.x);
    dst[4 * i + 1] = encodedToByte(c.y);
    dst[4 * i + 2] = encodedToByte(c.z);
    dst[4 * i + 3] = 255;
}

// tonemapTexture: (r, g, b, 1) as floats in 0 to 1.
QV_KERNEL void tonemapTexture(const float4* src, float4* dst, const GPUTone& P, uint32_t x, uint32_t y) {
    if (x >= P.opts.y || y >= P.opts.z) return;
    size_t i = size_t(y) * P.opts.y + x;
    dst[i] = make_float4(toneMapColour(src[i], P), 1.0f);
}

QV_KERNEL float smoothstepf(float e0, float e1, float x) {
    float t = clamp01((x - e0) / (e1 - e0));
    return t * t * (3.0f - 2.0f * t);
}

// The confidence that a pixel has converged: one minus a smoothstep of the
// relative standard error of the mean luminance, averaged over 5 x 5 pixels so
// the blend between path-traced and realtime images varies smoothly.
QV_KERNEL float pixelConfidence(const float4* guideB, const float4* accum, const GPUConfidence& C, uint32_t W,
                                uint32_t H, uint32_t x, uint32_t y) {
    float vs = 0, ms = 0, ws = 0;
    for (int dy = -2; dy <= 2; ++dy) {
        int yy = int(y) + dy;
        yy = yy < 0 ? 0 : (yy >= int(H) ? int(H) - 1 : yy);
        for (int dx = -2; dx <= 2; ++dx) {
            int xx = int(x) + dx;
            xx = xx < 0 ? 0 : (xx >= int(W) ? int(W) - 1 : xx);
            size_t j = size_t(yy) * W + size_t(xx);
            float n = accum[j].w;
            if (!(n > 0)) continue;
            float mq = rec709Luminance(xyz(accum[j]) / n);
            vs += std::fmax(guideB[j].w / n - mq * mq, 0.0f) / n;
            ms += mq;
            ws += 1;
        }
    }
    float e = ws > 0 ? std::sqrt(vs / ws) / (ms / ws + 0.004f * C.c.w) : 1e10f;
    if (C.c.x > 0.5f) e /= 3.0f;
    if (!(accum[size_t(y) * W + x].w > 0)) return 0.0f;
    return 1.0f - smoothstepf(C.c.y, C.c.z, e);
}

// tonemapConfidence: (tone-mapped colour of src, confidence). accum is the raw
// accumulation even when src is the denoised image.
QV_KERNEL void tonemapConfidence(const float4* src, const float4* guideB, const GPUTone& P, const float4* accum,
                                 const GPUConfidence& C, float4* dst, uint32_t x, uint32_t y) {
    if (x >= P.opts.y || y >= P.opts.z) return;
    size_t i = size_t(y) * P.opts.y + x;
    float conf = pixelConfidence(guideB, accum, C, P.opts.y, P.opts.z, x, y);
    dst[i] = make_float4(toneMapColour(src[i], P), conf);
}

} // namespace qv
