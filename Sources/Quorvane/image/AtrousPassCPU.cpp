#include "image/AtrousPassCPU.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <bit>
#include <cmath>
#include <cstring>

// Clones of the row loop for wide vector units, picked at load time.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_ADDRESS__)
#define QV_VECTOR_CLONES __attribute__((target_clones("avx512f", "arch=x86-64-v3", "default")))
#else
#define QV_VECTOR_CLONES
#endif
#define QV_ALWAYS_INLINE inline __attribute__((always_inline))

// The vector helpers below are always inlined, so their argument ABI never shows.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace qv {

namespace {

constexpr float kLog2e = 1.44269504088896341f;
constexpr float kLn2 = 0.69314718055994531f;

// Eight lanes of float in GCC/Clang vector extensions: one AVX register in
// the wide clones, two SSE registers in the default one.
typedef float v8f __attribute__((vector_size(32)));
typedef int32_t v8i __attribute__((vector_size(32)));
constexpr int kLanes = 8;

QV_ALWAYS_INLINE v8f splat(float v) { return v8f{v, v, v, v, v, v, v, v}; }
QV_ALWAYS_INLINE v8f load(const float* p) {
    v8f v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
QV_ALWAYS_INLINE void store(float* p, v8f v) { std::memcpy(p, &v, sizeof v); }
QV_ALWAYS_INLINE v8f vmax(v8f a, v8f b) { return a > b ? a : b; }
QV_ALWAYS_INLINE v8f vabs(v8f a) { return std::bit_cast<v8f>(std::bit_cast<v8i>(a) & 0x7fffffff); }

// log2 for x > 0 (normal floats): exponent plus a degree-9 polynomial for the
// natural log of the mantissa reduced to [sqrt(1/2), sqrt(2)); relative error
// about 1e-7.
QV_ALWAYS_INLINE v8f fastLog2(v8f x) {
    v8i bits = std::bit_cast<v8i>(x);
    v8f e = __builtin_convertvector(((bits >> 23) & 0xff) - 127, v8f);
    v8f m = std::bit_cast<v8f>((bits & 0x007fffff) | 0x3f800000);
    auto high = m > 1.41421356f;
    m = high ? m * 0.5f : m;
    e = high ? e + 1.0f : e;
    v8f f = m - 1.0f;
    v8f z = f * f;
    v8f p = splat(7.0376836292e-2f);
    p = p * f - 1.1514610310e-1f;
    p = p * f + 1.1676998740e-1f;
    p = p * f - 1.2420140846e-1f;
    p = p * f + 1.4249322787e-1f;
    p = p * f - 1.6668057665e-1f;
    p = p * f + 2.0000714765e-1f;
    p = p * f - 2.4999993993e-1f;
    p = p * f + 3.3333331174e-1f;
    v8f ln = f + (p * f * z - 0.5f * z);
    return ln * kLog2e + e;
}

// 2^t for t in [-126, 126]: integer part into the exponent, degree-6
// polynomial for e^(f ln 2), |f| <= 1/2; relative error about 1e-7.
QV_ALWAYS_INLINE v8f fastExp2(v8f t) {
    t = t < -126.0f ? splat(-126.0f) : t;
    t = t > 126.0f ? splat(126.0f) : t;
    v8i i = __builtin_convertvector(t + 127.5f, v8i) - 127; // floor(t + 1/2): the argument is positive
    v8f g = (t - __builtin_convertvector(i, v8f)) * kLn2;
    v8f p = splat(1.9875691500e-4f);
    p = p * g + 1.3981999507e-3f;
    p = p * g + 8.3334519073e-3f;
    p = p * g + 4.1665795894e-2f;
    p = p * g + 1.6666665459e-1f;
    p = p * g + 5.0000001201e-1f;
    p = p * g * g + g + 1.0f;
    return p * std::bit_cast<v8f>((i + 127) << 23);
}

struct PassContext {
    const float4* src;
    float4* dst;
    const AtrousGuidePlanes* gp;
    const AtrousColourPlanes* cp;
    float4* noise;
    GPUDenoiseParams P;
};

// Planes carry kPad floats before and after the image, so a vector of taps
// that hangs over the image's first or last pixel still reads owned memory;
// such lanes get weight 0.
constexpr size_t kPad = 48;
static_assert(kPad >= 2 * 16 + kLanes, "room for the widest step's taps");

// Filters the kLanes pixels starting at (x, y): centre values stay in
// registers while the 25 taps go by.
template <bool kChroma, bool kCoherence>
QV_ALWAYS_INLINE void filterBlock(const PassContext& c, uint32_t x, uint32_t y) {
    const uint32_t W = c.P.dims.x, H = c.P.dims.y;
    const int step = int(c.P.dims.z);
    const AtrousGuidePlanes& g = *c.gp;
    const AtrousColourPlanes& p = *c.cp;
    const float* nxP = g.nx.data() + kPad;
    const float* nyP = g.ny.data() + kPad;
    const float* nzP = g.nz.data() + kPad;
    const float* cohP = g.coherence.data() + kPad;
    const float* zP = g.depth.data() + kPad;
    const float* rP = p.r.data() + kPad;
    const float* gP = p.g.data() + kPad;
    const float* bP = p.b.data() + kPad;
    const float* vP = p.variance.data() + kPad;
    const float* lP = p.luminance.data() + kPad;
    const float* urP = p.ur.data() + kPad;
    const float* ugP = p.ug.data() + kPad;
    const float* ubP = p.ub.data() + kPad;
    const float* pvP = p.pv.data() + kPad;

    const ptrdiff_t i0 = ptrdiff_t(y) * W + x;
    const v8f n0x = load(g.cx.data() + kPad + i0), n0y = load(g.cy.data() + kPad + i0),
              n0z = load(g.cz.data() + kPad + i0);
    const v8f coh = load(cohP + i0), npow = load(g.normalPower.data() + kPad + i0), z0 = load(zP + i0);
    const v8f r0 = load(rP + i0), g0 = load(gP + i0), b0 = load(bP + i0), l0 = load(lP + i0);
    const v8f ur0 = load(urP + i0), ug0 = load(ugP + i0), ub0 = load(ubP + i0);
    const v8f sd = load(p.sd.data() + kPad + i0);
    const v8f invDepth = 1.0f / (c.P.sigmas.z * vmax(z0, splat(0.1f)) * float(step) + 1e-4f);
    const v8f invSigL = 1.0f / (c.P.sigmas.x * sd + 0.02f * l0 + 1e-4f);
    const v8f invSigU = 1.0f / (c.P.chroma.y + c.P.chroma.z * sd / vmax(l0, splat(1e-6f)));
    const float chromaX = c.P.chroma.x;
    const float invSigW = kCoherence ? 1.0f / c.P.sigmas.w : 0.0f;
    const v8f px = v8f{0, 1, 2, 3, 4, 5, 6, 7} + float(x);
    const auto npowZero = npow == 0.0f;

    v8f sumR{}, sumG{}, sumB{}, sumVar{}, sumPv{}, sumW{};
    for (int dy = -2; dy <= 2; ++dy) {
        int qy = int(y) + dy * step;
        if (qy < 0 || qy >= int(H)) continue;
        const float ky = atrousTapWeight(dy);
        for (int dx = -2; dx <= 2; ++dx) {
            const int shift = dx * step;
            if (int(x) + shift >= int(W) || int(x) + kLanes - 1 + shift < 0) continue;
            const ptrdiff_t j = ptrdiff_t(qy) * W + ptrdiff_t(x) + shift;
            const float k = ky * atrousTapWeight(dx);
            v8f d = n0x * load(nxP + j) + n0y * load(nyP + j) + n0z * load(nzP + j);
            v8f t = npow * fastLog2(vmax(d, splat(1e-30f)));
            v8f rq = load(rP + j), gq = load(gP + j), bq = load(bP + j);
            v8f dl = l0 - load(lP + j);
            v8f dch = vmax(vabs((r0 - rq) - dl), vmax(vabs((g0 - gq) - dl), vabs((b0 - bq) - dl)));
            v8f stop = vabs(z0 - load(zP + j)) * invDepth + (vabs(dl) + chromaX * dch) * invSigL;
            if constexpr (kChroma) {
                v8f du = vmax(vabs(ur0 - load(urP + j)), vmax(vabs(ug0 - load(ugP + j)), vabs(ub0 - load(ubP + j))));
                stop += du * invSigU;
            }
            if constexpr (kCoherence) stop += vmax(coh - load(cohP + j), splat(0.0f)) * invSigW;
            v8f w = k * fastExp2(t - stop * kLog2e);
            // pow(0, p) is 0 for p > 0 and 1 for p = 0; taps outside the image are skipped.
            v8f qx = px + float(shift);
            auto keep = ((d > 0.0f) | npowZero) & (qx >= 0.0f) & (qx < float(W));
            w = keep ? w : splat(0.0f);
            sumR += rq * w;
            sumG += gq * w;
            sumB += bq * w;
            sumVar += load(vP + j) * w * w;
            sumPv += load(pvP + j) * w;
            sumW += w;
        }
    }
    const bool readFirst = (c.P.dims.w & 1u) == 0;
    const uint32_t lanes = W - x < uint32_t(kLanes) ? W - x : uint32_t(kLanes);
    for (uint32_t l = 0; l < lanes; ++l) {
        size_t i = size_t(i0) + l;
        float wsum = sumW[l];
        if (wsum > 0) {
            c.dst[i] = float4{sumR[l] / wsum, sumG[l] / wsum, sumB[l] / wsum, sumVar[l] / (wsum * wsum)};
            float pv = sumPv[l] / wsum;
            if (readFirst) c.noise[i].y = pv; else c.noise[i].x = pv;
        } else {
            c.dst[i] = c.src[i];
            if (readFirst) c.noise[i].y = c.noise[i].x; else c.noise[i].x = c.noise[i].y;
        }
    }
}

QV_VECTOR_CLONES void filterRows(const PassContext& c, uint32_t y0, uint32_t y1) {
    const bool chroma = c.P.chroma.y > 0, coherence = c.P.sigmas.w > 0;
    for (uint32_t y = y0; y < y1; ++y)
        for (uint32_t x = 0; x < c.P.dims.x; x += kLanes) {
            if (chroma && coherence) filterBlock<true, true>(c, x, y);
            else if (chroma) filterBlock<true, false>(c, x, y);
            else if (coherence) filterBlock<false, true>(c, x, y);
            else filterBlock<false, false>(c, x, y);
        }
}

} // namespace

void AtrousGuidePlanes::build(const float4* guide, uint32_t width, uint32_t height, float normalSigma) {
    size_t count = size_t(width) * height;
    for (auto* v : {&nx, &ny, &nz, &cx, &cy, &cz, &coherence, &normalPower, &depth}) v->assign(count + 2 * kPad, 0.0f);
    tbb::parallel_for(tbb::blocked_range<size_t>(0, count, 4096), [&](const tbb::blocked_range<size_t>& r) {
        for (size_t i = r.begin(); i != r.end(); ++i) {
            const size_t o = i + kPad;
            float gl = length(xyz(guide[i]));
            float inv = 1.0f / maxFloat(gl, 1e-6f);
            nx[o] = guide[i].x * inv;
            ny[o] = guide[i].y * inv;
            nz[o] = guide[i].z * inv;
            float coh = minFloat(gl, 1.0f);
            float invCoh = 1.0f / maxFloat(coh, 1e-6f);
            cx[o] = guide[i].x * invCoh;
            cy[o] = guide[i].y * invCoh;
            cz[o] = guide[i].z * invCoh;
            coherence[o] = coh;
            float coh2 = coh * coh, coh4 = coh2 * coh2, coh8 = coh4 * coh4;
            normalPower[o] = normalSigma * coh8 * coh8;
            depth[o] = guide[i].w;
        }
    });
}

void atrousPassCPU(const float4* src, float4* dst, const AtrousGuidePlanes& guidePlanes,
                   AtrousColourPlanes& planes, float4* noise, const GPUDenoiseParams& P) {
    const uint32_t W = P.dims.x, H = P.dims.y;
    const size_t count = size_t(W) * H;
    AtrousColourPlanes& p = planes;
    for (auto* v : {&p.r, &p.g, &p.b, &p.variance, &p.luminance, &p.ur, &p.ug, &p.ub, &p.pv, &p.sd})
        if (v->size() != count + 2 * kPad) v->assign(count + 2 * kPad, 0.0f);
    const bool readFirst = (P.dims.w & 1u) == 0;
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, H, 8), [&](const tbb::blocked_range<uint32_t>& rows) {
        for (uint32_t y = rows.begin(); y != rows.end(); ++y)
            for (uint32_t x = 0; x < W; ++x) {
                size_t i = size_t(y) * W + x;
                size_t o = i + kPad;
                float4 c = src[i];
                float l = rec709Luminance(xyz(c));
                float inv = 1.0f / maxFloat(l, 1e-6f);
                p.r[o] = c.x;
                p.g[o] = c.y;
                p.b[o] = c.z;
                p.variance[o] = c.w;
                p.luminance[o] = l;
                p.ur[o] = c.x * inv;
                p.ug[o] = c.y * inv;
                p.ub[o] = c.z * inv;
                p.pv[o] = readFirst ? noise[i].x : noise[i].y;
                p.sd[o] = std::sqrt(maxFloat(prefilteredVariance(src, W, H, int(x), int(y)), 0.0f));
            }
    });
    PassContext c{src, dst, &guidePlanes, &planes, noise, P};
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, H, 4),
                      [&](const tbb::blocked_range<uint32_t>& rows) { filterRows(c, rows.begin(), rows.end()); });
}

} // namespace qv
