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

struct RowScratch {
    std::vector<float> n0x, n0y, n0z, coh, npow, invDepth, invSigL, invSigU;
    std::vector<float> sumR, sumG, sumB, sumVar, sumPv, sumW;
    explicit RowScratch(uint32_t w) {
        for (auto* v : {&n0x, &n0y, &n0z, &coh, &npow, &invDepth, &invSigL, &invSigU, &sumR, &sumG,
                        &sumB, &sumVar, &sumPv, &sumW})
            v->resize(w + kLanes);
    }
};

struct PassContext {
    const float4* src;
    float4* dst;
    const float4* guide;
    const AtrousGuidePlanes* gp;
    const AtrousColourPlanes* cp;
    float4* noise;
    GPUDenoiseParams P;
};

// Accumulates one tap (dx, dy) over pixels [x0, x1) of row y.
template <bool kChroma, bool kCoherence>
QV_ALWAYS_INLINE void accumulateTap(const PassContext& c, RowScratch& s, uint32_t y, int offset, float k,
                                    uint32_t x0, uint32_t x1) {
    const uint32_t W = c.P.dims.x;
    // Centre pixels start at (x0, y); their taps at the same pixels moved by offset.
    const size_t row = size_t(y) * W + x0;
    const size_t tap = size_t(ptrdiff_t(row) + offset);
    const AtrousGuidePlanes& g = *c.gp;
    const AtrousColourPlanes& p = *c.cp;
    const float* __restrict nx = g.nx.data() + tap;
    const float* __restrict ny = g.ny.data() + tap;
    const float* __restrict nz = g.nz.data() + tap;
    const float* __restrict cq = g.coherence.data() + tap;
    const float* __restrict zq = g.depth.data() + tap;
    const float* __restrict rq = p.r.data() + tap;
    const float* __restrict gq = p.g.data() + tap;
    const float* __restrict bq = p.b.data() + tap;
    const float* __restrict vq = p.variance.data() + tap;
    const float* __restrict lq = p.luminance.data() + tap;
    const float* __restrict urq = p.ur.data() + tap;
    const float* __restrict ugq = p.ug.data() + tap;
    const float* __restrict ubq = p.ub.data() + tap;
    const float* __restrict pvq = p.pv.data() + tap;
    const float* __restrict r0 = p.r.data() + row;
    const float* __restrict g0 = p.g.data() + row;
    const float* __restrict b0 = p.b.data() + row;
    const float* __restrict l0 = p.luminance.data() + row;
    const float* __restrict ur0 = p.ur.data() + row;
    const float* __restrict ug0 = p.ug.data() + row;
    const float* __restrict ub0 = p.ub.data() + row;
    const float* __restrict z0 = g.depth.data() + row;
    float* __restrict sumR = s.sumR.data() + x0;
    float* __restrict sumG = s.sumG.data() + x0;
    float* __restrict sumB = s.sumB.data() + x0;
    float* __restrict sumVar = s.sumVar.data() + x0;
    float* __restrict sumPv = s.sumPv.data() + x0;
    float* __restrict sumW = s.sumW.data() + x0;
    const float chromaX = c.P.chroma.x;
    const float invSigW = kCoherence ? 1.0f / c.P.sigmas.w : 0.0f;
    const float* __restrict n0x = s.n0x.data() + x0;
    const float* __restrict n0y = s.n0y.data() + x0;
    const float* __restrict n0z = s.n0z.data() + x0;
    const float* __restrict npowc = s.npow.data() + x0;
    const float* __restrict invDepth = s.invDepth.data() + x0;
    const float* __restrict invSigL = s.invSigL.data() + x0;
    const float* __restrict invSigU = s.invSigU.data() + x0;
    const float* __restrict coh = s.coh.data() + x0;
    const uint32_t n = x1 - x0;
    const v8f lane = v8f{0, 1, 2, 3, 4, 5, 6, 7};
    // Lanes past the run read padding or the next pixels; their weight is 0.
    for (uint32_t x = 0; x < n; x += kLanes) {
        v8f d = load(n0x + x) * load(nx + x) + load(n0y + x) * load(ny + x) + load(n0z + x) * load(nz + x);
        v8f npow = load(npowc + x);
        v8f t = npow * fastLog2(vmax(d, splat(1e-30f)));
        v8f rqv = load(rq + x), gqv = load(gq + x), bqv = load(bq + x);
        v8f dl = load(l0 + x) - load(lq + x);
        v8f dr = vabs((load(r0 + x) - rqv) - dl);
        v8f dg = vabs((load(g0 + x) - gqv) - dl);
        v8f db = vabs((load(b0 + x) - bqv) - dl);
        v8f stop = vabs(load(z0 + x) - load(zq + x)) * load(invDepth + x) +
                   (vabs(dl) + chromaX * vmax(dr, vmax(dg, db))) * load(invSigL + x);
        if constexpr (kChroma) {
            v8f du = vmax(vabs(load(ur0 + x) - load(urq + x)),
                          vmax(vabs(load(ug0 + x) - load(ugq + x)), vabs(load(ub0 + x) - load(ubq + x))));
            stop += du * load(invSigU + x);
        }
        if constexpr (kCoherence) stop += vmax(load(coh + x) - load(cq + x), splat(0.0f)) * invSigW;
        v8f w = k * fastExp2(t - stop * kLog2e);
        // pow(0, p) is 0 for p > 0 and 1 for p = 0.
        auto keep = ((d > 0.0f) | (npow == 0.0f)) & (lane + float(x) < float(n));
        w = keep ? w : splat(0.0f);
        store(sumR + x, load(sumR + x) + rqv * w);
        store(sumG + x, load(sumG + x) + gqv * w);
        store(sumB + x, load(sumB + x) + bqv * w);
        store(sumVar + x, load(sumVar + x) + load(vq + x) * w * w);
        store(sumPv + x, load(sumPv + x) + load(pvq + x) * w);
        store(sumW + x, load(sumW + x) + w);
    }
}

template <bool kChroma, bool kCoherence>
QV_ALWAYS_INLINE void filterRow(const PassContext& c, RowScratch& s, uint32_t y) {
    const uint32_t W = c.P.dims.x, H = c.P.dims.y;
    const int step = int(c.P.dims.z);
    const size_t row = size_t(y) * W;
    const AtrousColourPlanes& p = *c.cp;
    const AtrousGuidePlanes& g = *c.gp;
    for (uint32_t x = 0; x < W; ++x) {
        size_t i = row + x;
        s.n0x[x] = g.cx[i];
        s.n0y[x] = g.cy[i];
        s.n0z[x] = g.cz[i];
        s.coh[x] = g.coherence[i];
        s.npow[x] = g.normalPower[i];
        s.invDepth[x] = 1.0f / (c.P.sigmas.z * maxFloat(g.depth[i], 0.1f) * float(step) + 1e-4f);
        float sd = p.sd[i];
        float l0 = p.luminance[i];
        s.invSigL[x] = 1.0f / (c.P.sigmas.x * sd + 0.02f * l0 + 1e-4f);
        s.invSigU[x] = 1.0f / (c.P.chroma.y + c.P.chroma.z * sd / maxFloat(l0, 1e-6f));
        s.sumR[x] = s.sumG[x] = s.sumB[x] = s.sumVar[x] = s.sumPv[x] = s.sumW[x] = 0.0f;
    }
    for (int dy = -2; dy <= 2; ++dy) {
        int qy = int(y) + dy * step;
        if (qy < 0 || qy >= int(H)) continue;
        for (int dx = -2; dx <= 2; ++dx) {
            int shift = dx * step;
            int x0 = shift < 0 ? -shift : 0;
            int x1 = shift > 0 ? int(W) - shift : int(W);
            if (x0 >= x1) continue;
            float k = atrousTapWeight(dx) * atrousTapWeight(dy);
            accumulateTap<kChroma, kCoherence>(c, s, y, dy * step * int(W) + shift, k, uint32_t(x0), uint32_t(x1));
        }
    }
    const bool readFirst = (c.P.dims.w & 1u) == 0;
    for (uint32_t x = 0; x < W; ++x) {
        size_t i = row + x;
        float wsum = s.sumW[x];
        if (wsum > 0) {
            c.dst[i] = float4{s.sumR[x] / wsum, s.sumG[x] / wsum, s.sumB[x] / wsum, s.sumVar[x] / (wsum * wsum)};
            float pv = s.sumPv[x] / wsum;
            if (readFirst) c.noise[i].y = pv; else c.noise[i].x = pv;
        } else {
            c.dst[i] = c.src[i];
            if (readFirst) c.noise[i].y = c.noise[i].x; else c.noise[i].x = c.noise[i].y;
        }
    }
}

QV_VECTOR_CLONES void filterRows(const PassContext& c, RowScratch& s, uint32_t y0, uint32_t y1) {
    const bool chroma = c.P.chroma.y > 0, coherence = c.P.sigmas.w > 0;
    for (uint32_t y = y0; y < y1; ++y) {
        if (chroma && coherence) filterRow<true, true>(c, s, y);
        else if (chroma) filterRow<true, false>(c, s, y);
        else if (coherence) filterRow<false, true>(c, s, y);
        else filterRow<false, false>(c, s, y);
    }
}

} // namespace

void AtrousGuidePlanes::build(const float4* guide, uint32_t width, uint32_t height, float normalSigma) {
    size_t count = size_t(width) * height;
    // Vector loads may run up to one vector past the last pixel.
    for (auto* v : {&nx, &ny, &nz, &cx, &cy, &cz, &coherence, &normalPower, &depth}) v->assign(count + kLanes, 0.0f);
    tbb::parallel_for(tbb::blocked_range<size_t>(0, count, 4096), [&](const tbb::blocked_range<size_t>& r) {
        for (size_t i = r.begin(); i != r.end(); ++i) {
            float gl = length(xyz(guide[i]));
            float inv = 1.0f / maxFloat(gl, 1e-6f);
            nx[i] = guide[i].x * inv;
            ny[i] = guide[i].y * inv;
            nz[i] = guide[i].z * inv;
            float coh = minFloat(gl, 1.0f);
            float invCoh = 1.0f / maxFloat(coh, 1e-6f);
            cx[i] = guide[i].x * invCoh;
            cy[i] = guide[i].y * invCoh;
            cz[i] = guide[i].z * invCoh;
            coherence[i] = coh;
            float coh2 = coh * coh, coh4 = coh2 * coh2, coh8 = coh4 * coh4;
            normalPower[i] = normalSigma * coh8 * coh8;
            depth[i] = guide[i].w;
        }
    });
}

void atrousPassCPU(const float4* src, float4* dst, const float4* guide, const AtrousGuidePlanes& guidePlanes,
                   AtrousColourPlanes& planes, float4* noise, const GPUDenoiseParams& P) {
    const uint32_t W = P.dims.x, H = P.dims.y;
    const size_t count = size_t(W) * H;
    AtrousColourPlanes& p = planes;
    for (auto* v : {&p.r, &p.g, &p.b, &p.variance, &p.luminance, &p.ur, &p.ug, &p.ub, &p.pv, &p.sd})
        if (v->size() != count + kLanes) v->assign(count + kLanes, 0.0f);
    const bool readFirst = (P.dims.w & 1u) == 0;
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, H, 8), [&](const tbb::blocked_range<uint32_t>& rows) {
        for (uint32_t y = rows.begin(); y != rows.end(); ++y)
            for (uint32_t x = 0; x < W; ++x) {
                size_t i = size_t(y) * W + x;
                float4 c = src[i];
                float l = rec709Luminance(xyz(c));
                float inv = 1.0f / maxFloat(l, 1e-6f);
                p.r[i] = c.x;
                p.g[i] = c.y;
                p.b[i] = c.z;
                p.variance[i] = c.w;
                p.luminance[i] = l;
                p.ur[i] = c.x * inv;
                p.ug[i] = c.y * inv;
                p.ub[i] = c.z * inv;
                p.pv[i] = readFirst ? noise[i].x : noise[i].y;
                p.sd[i] = std::sqrt(maxFloat(prefilteredVariance(src, W, H, int(x), int(y)), 0.0f));
            }
    });
    PassContext c{src, dst, guide, &guidePlanes, &planes, noise, P};
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, H, 4), [&](const tbb::blocked_range<uint32_t>& rows) {
        RowScratch scratch(W);
        filterRows(c, scratch, rows.begin(), rows.end());
    });
}

} // namespace qv
