#pragma once
// Edge-avoiding a-trous wavelet denoiser with detail restore.
//
// The filter works on albedo-demodulated irradiance with a per-pixel variance
// estimate from the path tracer's sum of squared luminances, so its strength
// follows the measured noise. Five passes with steps 1, 2, 4, 8, 16 of a 5 x 5
// B3-spline kernel, stopped by normal, depth, colour, chromaticity and normal
// coherence. The restore then compares the residual (raw mean minus filtered)
// with the noise it should contain and puts back what is detail.
//
// Buffers are W x H float4 records, index y * W + x:
//   accum   rgb = sum of radiance (cd/m2), w = samples n
//   guideA  rgb = sum of first-hit albedo, w = sum of first-hit depth (m)
//   guideB  xyz = sum of first-hit normals, w = sum of squared sample luminances
//   colour  ping-pong irradiance: rgb = irradiance, w = its variance
//   guide   xyz = mean normal (length = coherence), w = mean depth (m)
//   albedo  rgb = mean albedo (>= 0.02), w = 1
//   noise   first the noise level pv ([0] and [1] ping-pong), then per-channel noise NZ
//   out     denoised radiance, w = 1
#include "shaders/KernelPortability.h"
#include "shaders/ToneMap.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace qv {

// Per-dispatch parameters of the filter, 48 bytes.
struct GPUDenoiseParams {
    uint4 dims;    // x = W, y = H (pixels), z = step width (pixels), w = iteration number
    float4 sigmas; // x = luminance sigma (standard deviations), y = normal power, z = depth sigma (relative),
                   // w = coherence sigma (0 = off)
    float4 chroma; // x = weight of the chroma difference in the colour stop, y = chromaticity tolerance
                   // (0 = off), z = growth of that tolerance with the relative noise, w = 0
};
static_assert(sizeof(GPUDenoiseParams) == 48);
static_assert(offsetof(GPUDenoiseParams, dims) == 0 && offsetof(GPUDenoiseParams, sigmas) == 16 &&
              offsetof(GPUDenoiseParams, chroma) == 32);

constexpr int ATROUS_PASSES = 5;

// max and min that compile to one instruction (std::fmax carries NaN rules
// that cost a library call per use on the CPU); inputs here are finite.
QV_KERNEL float maxFloat(float a, float b) { return a > b ? a : b; }
QV_KERNEL float minFloat(float a, float b) { return a < b ? a : b; }
QV_KERNEL float maxComponent(float3 c) { return maxFloat(c.x, maxFloat(c.y, c.z)); }
QV_KERNEL float3 abs3(float3 c) { return {std::fabs(c.x), std::fabs(c.y), std::fabs(c.z)}; }
QV_KERNEL int clampIndex(int v, int n) { return v < 0 ? 0 : (v >= n ? n - 1 : v); }

// B3-spline taps h(0) = 3/8, h(1) = 1/4, h(2) = 1/16.
QV_KERNEL float atrousTapWeight(int d) {
    d = d < 0 ? -d : d;
    return d == 0 ? 0.375f : (d == 1 ? 0.25f : 0.0625f);
}

// Demodulation and noise: irradiance = mean radiance / mean albedo, with the
// variance of the mean luminance scaled into irradiance units.
QV_KERNEL void denoisePrep(const float4* accum, const float4* guideA, const float4* guideB, float4* colour,
                           float4* noise, float4* guide, float4* albedo, const GPUDenoiseParams& P, uint32_t x,
                           uint32_t y) {
    if (x >= P.dims.x || y >= P.dims.y) return;
    size_t i = size_t(y) * P.dims.x + x;
    float n = maxFloat(accum[i].w, 1.0f);
    float3 c = xyz(accum[i]) / n;
    float3 alb = max(xyz(guideA[i]) / n, float3{0.02f, 0.02f, 0.02f});
    float depth = guideA[i].w / n;
    float3 nr = xyz(guideB[i]);
    // The mean normal keeps its length: 1 on one surface, less across a crease.
    nr = length(nr) > 1e-6f ? nr / n : float3{0, 0, 1};
    float m1 = rec709Luminance(c);
    float m2 = guideB[i].w / n;
    float var = maxFloat(m2 - m1 * m1, 0.0f) / n;
    float la = rec709Luminance(alb);
    float4 irr = make_float4(c / alb, var / maxFloat(la * la, 1e-4f));
    colour[i] = irr;
    noise[i] = float4{irr.w, irr.w, 0, 0};
    guide[i] = make_float4(nr, depth);
    albedo[i] = make_float4(alb, 1.0f);
}

// 3 x 3 Gaussian of the variance (weights 1/4, 1/8, 1/16), clamped at the border.
QV_KERNEL float prefilteredVariance(const float4* src, uint32_t W, uint32_t H, int x, int y) {
    float v = 0;
    for (int dy = -1; dy <= 1; ++dy) {
        int yy = clampIndex(y + dy, int(H));
        float wy = dy == 0 ? 0.5f : 0.25f;
        for (int dx = -1; dx <= 1; ++dx) {
            int xx = clampIndex(x + dx, int(W));
            float wx = dx == 0 ? 0.5f : 0.25f;
            v += wx * wy * src[size_t(yy) * W + size_t(xx)].w;
        }
    }
    return v;
}

// One a-trous pass (reference per-pixel form). pv is read from component
// (iteration & 1) of noise and written to the other.
QV_KERNEL void denoiseAtrous(const float4* src, float4* dst, const float4* guide, float4* noise,
                             const GPUDenoiseParams& P, uint32_t x, uint32_t y) {
    const uint32_t W = P.dims.x, H = P.dims.y;
    if (x >= W || y >= H) return;
    const int step = int(P.dims.z);
    const bool readFirst = (P.dims.w & 1u) == 0;
    size_t i = size_t(y) * W + x;
    float4 c0 = src[i];
    float4 g0 = guide[i];
    float3 rgb0 = xyz(c0);
    float l0 = rec709Luminance(rgb0);
    float coh = clamp01(length(xyz(g0)));
    float3 n0 = xyz(g0) / maxFloat(coh, 1e-6f);
    float coh2 = coh * coh, coh4 = coh2 * coh2, coh8 = coh4 * coh4;
    float npow = P.sigmas.y * coh8 * coh8;
    float sd = std::sqrt(maxFloat(prefilteredVariance(src, W, H, int(x), int(y)), 0.0f));
    float sigL = P.sigmas.x * sd + 0.02f * l0 + 1e-4f;
    float3 u0 = rgb0 / maxFloat(l0, 1e-6f);
    float sigU = P.chroma.y + P.chroma.z * sd / maxFloat(l0, 1e-6f);
    float depthScale = P.sigmas.z * maxFloat(g0.w, 0.1f) * float(step) + 1e-4f;

    float3 sum{};
    float varSum = 0, pvSum = 0, wsum = 0;
    for (int dy = -2; dy <= 2; ++dy) {
        int qy = int(y) + dy * step;
        if (qy < 0 || qy >= int(H)) continue;
        for (int dx = -2; dx <= 2; ++dx) {
            int qx = int(x) + dx * step;
            if (qx < 0 || qx >= int(W)) continue;
            size_t j = size_t(qy) * W + size_t(qx);
            float4 c = src[j];
            float4 g = guide[j];
            float k = atrousTapWeight(dx) * atrousTapWeight(dy);
            float gl = length(xyz(g));
            float wn = std::pow(maxFloat(dot(n0, xyz(g) / maxFloat(gl, 1e-6f)), 0.0f), npow);
            float wz = std::exp(-std::fabs(g0.w - g.w) / depthScale);
            float3 rgb = xyz(c);
            float lq = rec709Luminance(rgb);
            float dlum = l0 - lq;
            float3 dch = (rgb0 - rgb) - float3{dlum, dlum, dlum};
            float wl = std::exp(-(std::fabs(dlum) + P.chroma.x * maxComponent(abs3(dch))) / sigL);
            if (P.chroma.y > 0) wl *= std::exp(-maxComponent(abs3(u0 - rgb / maxFloat(lq, 1e-6f))) / sigU);
            float w = k * wn * wz * wl;
            if (P.sigmas.w > 0) w *= std::exp(-maxFloat(coh - minFloat(gl, 1.0f), 0.0f) / P.sigmas.w);
            sum += rgb * w;
            varSum += c.w * w * w;
            pvSum += (readFirst ? noise[j].x : noise[j].y) * w;
            wsum += w;
        }
    }
    float pvRead = readFirst ? noise[i].x : noise[i].y;
    float4 out = c0;
    float pvOut = pvRead;
    if (wsum > 0) {
        out = make_float4(sum / wsum, varSum / (wsum * wsum));
        pvOut = pvSum / wsum;
    }
    dst[i] = out;
    if (readFirst)
        noise[i].y = pvOut;
    else
        noise[i].x = pvOut;
}

// Remodulation: radiance = filtered irradiance x albedo.
QV_KERNEL void denoiseFinish(const float4* irradiance, const float4* albedo, float4* out, const GPUDenoiseParams& P,
                             uint32_t x, uint32_t y) {
    if (x >= P.dims.x || y >= P.dims.y) return;
    size_t i = size_t(y) * P.dims.x + x;
    out[i] = make_float4(xyz(irradiance[i]) * xyz(albedo[i]), 1.0f);
}

// Residual R = raw mean - filtered (w = filtered luminance) and the noise that
// residual should carry per channel, NZ (w = the pixel's own variance). The
// final pv must be in noise[i].y; NZ replaces it in place.
QV_KERNEL void denoiseResid(const float4* accum, const float4* guideB, const float4* denoised, const float4* albedo,
                            float4* resid, float4* noise, const GPUDenoiseParams& P, uint32_t x, uint32_t y) {
    if (x >= P.dims.x || y >= P.dims.y) return;
    size_t i = size_t(y) * P.dims.x + x;
    float n = accum[i].w;
    float3 d = xyz(denoised[i]) / maxFloat(denoised[i].w, 1e-6f);
    float ld = maxFloat(rec709Luminance(d), 1e-6f);
    float pvl = noise[i].y;
    if (!(n > 0)) {
        resid[i] = make_float4(-d, ld);
        noise[i] = float4{1e30f, 1e30f, 1e30f, 1e30f};
        return;
    }
    float3 xm = xyz(accum[i]) / n;
    float lx = rec709Luminance(xm);
    float s2 = maxFloat(guideB[i].w / n - lx * lx, 0.0f) / n;
    float la = rec709Luminance(xyz(albedo[i]));
    float nl = maxFloat(pvl * la * la, s2);
    // Spread the luminance noise over the channels by chromaticity, so a
    // coloured outlier does not read as chroma detail.
    float3 q;
    for (int ch = 0; ch < 3; ++ch) {
        float a = maxFloat(d[ch], 0.0f) / ld;
        float b = maxFloat(xm[ch], 0.0f) / maxFloat(lx, 1e-6f);
        q[ch] = maxFloat(a * a, b * b);
    }
    resid[i] = make_float4(xm - d, ld);
    noise[i] = make_float4(q * nl, s2);
}

// Crease correction: on pixels straddling a crease (mean normal shorter than
// C.x) the residual is biased, not noise; a Wiener-weighted mean of similar
// crease neighbours estimates that bias and removes it from the residual so
// the restore puts it back as detail.
// C = (coherence threshold, coherence window, k, 0).
QV_KERNEL void denoiseCrease(const float4* resid, const float4* noise, const float4* guide, float4* out,
                             const float4& C, const GPUDenoiseParams& P, uint32_t x, uint32_t y) {
    const uint32_t W = P.dims.x, H = P.dims.y;
    if (x >= W || y >= H) return;
    size_t i = size_t(y) * W + x;
    float4 R = resid[i];
    float coh = length(xyz(guide[i]));
    out[i] = R;
    if (coh >= C.x) return;
    float depth = guide[i].w;
    float3 S{}, V{};
    float m = 0;
    for (int dy = -3; dy <= 3; ++dy) {
        int qy = int(y) + dy;
        if (qy < 0 || qy >= int(H)) continue;
        for (int dx = -3; dx <= 3; ++dx) {
            int qx = int(x) + dx;
            if (qx < 0 || qx >= int(W)) continue;
            size_t j = size_t(qy) * W + size_t(qx);
            float cq = length(xyz(guide[j]));
            if (!(cq < C.x) || !(std::fabs(cq - coh) < C.y)) continue;
            int ad = dx < 0 ? -dx : dx, bd = dy < 0 ? -dy : dy;
            int reach = ad > bd ? ad : bd;
            reach = reach > 1 ? reach : 1;
            if (!(std::fabs(guide[j].w - depth) < 0.05f * maxFloat(depth, 0.1f) * float(reach))) continue;
            float4 Rj = resid[j];
            if (!(Rj.w < 2.0f * R.w && 2.0f * Rj.w > R.w)) continue;
            S += xyz(Rj);
            V += xyz(noise[j]);
            m += 1;
        }
    }
    if (m < 3) return;
    float3 mres = S / m;
    float3 vm = V / (m * m);
    float3 corr;
    for (int ch = 0; ch < 3; ++ch) {
        float b2 = maxFloat(mres[ch] * mres[ch] - C.z * vm[ch], 0.0f);
        corr[ch] = b2 / maxFloat(b2 + vm[ch], 1e-30f) * mres[ch];
    }
    out[i] = make_float4(xyz(R) - corr, R.w);
}

// Restore: over five windows (a 5 x 5 square and four 5-tap lines), the share
// of residual energy above k times its expected noise, without the single
// most significant tap (a lone outlier sample), is put back. C.x = k.
QV_KERNEL void denoiseRestore2(const float4* accum, const float4* resid, const float4* noise, float4* out,
                               const float4& C, const GPUDenoiseParams& P, uint32_t x, uint32_t y) {
    const uint32_t W = P.dims.x, H = P.dims.y;
    if (x >= W || y >= H) return;
    size_t i = size_t(y) * W + x;
    float n = accum[i].w;
    float3 R = xyz(resid[i]);
    if (!(n > 0)) {
        out[i] = make_float4(-R, 1.0f);
        return;
    }
    const float k = C.x;
    const int lineDir[4][2] = {{1, 0}, {0, 1}, {1, 1}, {1, -1}};
    float wmax = 0;
    for (int win = 0; win < 5; ++win) {
        float3 E{}, N{}, Mr{}, Mn{}, Mz{};
        int taps = win == 0 ? 25 : 5;
        for (int t = 0; t < taps; ++t) {
            int ox, oy;
            if (win == 0) {
                ox = t % 5 - 2;
                oy = t / 5 - 2;
            } else {
                ox = lineDir[win - 1][0] * (t - 2);
                oy = lineDir[win - 1][1] * (t - 2);
            }
            size_t j = size_t(clampIndex(int(y) + oy, int(H))) * W + size_t(clampIndex(int(x) + ox, int(W)));
            float3 r = xyz(resid[j]);
            float3 nq = xyz(noise[j]);
            for (int ch = 0; ch < 3; ++ch) {
                float e = r[ch] * r[ch];
                E[ch] += e;
                N[ch] += nq[ch];
                if (e > Mz[ch] * nq[ch]) {
                    Mr[ch] = e;
                    Mn[ch] = nq[ch];
                    Mz[ch] = e / maxFloat(nq[ch], 1e-30f);
                }
            }
        }
        for (int ch = 0; ch < 3; ++ch) {
            float Et = E[ch] - Mr[ch];
            float Nt = N[ch] - Mn[ch];
            float w = Et > 0 ? clamp01((Et - k * Nt) / maxFloat(Et, 1e-30f)) : 0.0f;
            wmax = maxFloat(wmax, w);
        }
    }
    float3 xm = xyz(accum[i]) / n;
    out[i] = make_float4(xm - (1.0f - wmax) * R, 1.0f);
}

// One-pass restore after a denoiser without a noise level of its own:
// C = (k, W, H, 0). den is the denoised radiance.
QV_KERNEL void denoiseRestore(const float4* accum, const float4* guideB, const float4* den, float4* out,
                              const float4& C, uint32_t x, uint32_t y) {
    const uint32_t W = uint32_t(C.y), H = uint32_t(C.z);
    if (x >= W || y >= H) return;
    size_t i = size_t(y) * W + x;
    float3 d = xyz(den[i]) / maxFloat(den[i].w, 1e-6f);
    float n = accum[i].w;
    if (!(n > 0)) {
        out[i] = den[i];
        return;
    }
    float Rs = 0, Ns = 0;
    for (int dy = -2; dy <= 2; ++dy) {
        int qy = clampIndex(int(y) + dy, int(H));
        for (int dx = -2; dx <= 2; ++dx) {
            size_t j = size_t(qy) * W + size_t(clampIndex(int(x) + dx, int(W)));
            float nj = accum[j].w;
            if (!(nj > 0)) continue;
            float mx = rec709Luminance(xyz(accum[j]) / nj);
            float md = rec709Luminance(xyz(den[j]) / maxFloat(den[j].w, 1e-6f));
            Rs += (mx - md) * (mx - md);
            Ns += maxFloat(guideB[j].w / nj - mx * mx, 0.0f) / nj;
        }
    }
    float w = Rs > 0 ? clamp01((Rs - C.x * Ns) / Rs) : 0.0f;
    float3 xm = xyz(accum[i]) / n;
    out[i] = make_float4(d + w * (xm - d), 1.0f);
}

} // namespace qv
