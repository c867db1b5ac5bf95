#include "image/AtrousPassCPU.h"

#include "image/SimdLanes.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <cmath>

namespace qv {

namespace {

using namespace simd;

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
static_assert(kPad >= 2 * 16 + kMaxLanes, "room for the widest step's taps");

// m when all `count` values equal 2^m with m in [1, 7], else -1.
inline int uniformPowerOfTwoExponent(const float* values, int count) {
    const float v = values[0];
    for (int l = 1; l < count; ++l)
        if (values[l] != v) return -1;
    for (int m = 1; m <= 7; ++m)
        if (v == float(1 << m)) return m;
    return -1;
}

// Filters the kLanes pixels starting at (x, y): centre values stay in
// registers while the 25 taps go by.
template <class V, bool kChroma, bool kCoherence, bool kInterior>
QV_ALWAYS_INLINE void filterBlock(const PassContext& c, uint32_t x, uint32_t y) {
    constexpr int kLanes = lanes<V>;
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
    const V n0x = load<V>(g.cx.data() + kPad + i0), n0y = load<V>(g.cy.data() + kPad + i0),
              n0z = load<V>(g.cz.data() + kPad + i0);
    const V coh = load<V>(cohP + i0), npow = load<V>(g.normalPower.data() + kPad + i0), z0 = load<V>(zP + i0);
    const V r0 = load<V>(rP + i0), g0 = load<V>(gP + i0), b0 = load<V>(bP + i0), l0 = load<V>(lP + i0);
    const V ur0 = load<V>(urP + i0), ug0 = load<V>(ugP + i0), ub0 = load<V>(ubP + i0);
    const V sd = load<V>(p.sd.data() + kPad + i0);
    // The stops' scales carry the factor -log2(e) of exp(-x) = 2^(-x log2(e)).
    const V invDepth = -kLog2e / (c.P.sigmas.z * vmax(z0, splat<V>(0.1f)) * float(step) + 1e-4f);
    const V invSigL = -kLog2e / (c.P.sigmas.x * sd + 0.02f * l0 + 1e-4f);
    const V invSigU = -kLog2e / (c.P.chroma.y + c.P.chroma.z * sd / vmax(l0, splat<V>(1e-6f)));
    const float chromaX = c.P.chroma.x;
    const float invSigW = kCoherence ? -kLog2e / c.P.sigmas.w : 0.0f;
    // pow(0, p) is 0 for p > 0 and 1 for p = 0, where npow log2(d) is already 0.
    const V zeroPowFactor = npow == 0.0f ? splat<V>(1.0f) : splat<V>(0.0f);
    // Horizontal tap weights, 0 for taps outside the image (they are skipped);
    // blocks whose taps all lie inside use the plain weights.
    using I = IntOf<V>;
    V tapX[5];
    if constexpr (!kInterior) {
        const I column = __builtin_convertvector(iota<V>(), I) + int(x);
        for (int dx = -2; dx <= 2; ++dx) {
            const I qx = column + dx * step;
            V kx = splat<V>(atrousTapWeight(dx));
            kx = qx >= 0 ? kx : splat<V>(0.0f);
            tapX[dx + 2] = qx < int(W) ? kx : splat<V>(0.0f);
        }
    }

    // Where every pixel of the block has the same normal power 2^m (fully
    // coherent pixels, the default power 64), the normal weight is m
    // squarings of the dot product instead of a logarithm and exponential.
    const int squarings = uniformPowerOfTwoExponent(g.normalPower.data() + kPad + i0, kLanes);

    V sumR{}, sumG{}, sumB{}, sumVar{}, sumPv{}, sumW{};
    for (int dy = -2; dy <= 2; ++dy) {
        int qy = int(y) + dy * step;
        if (qy < 0 || qy >= int(H)) continue;
        const float ky = atrousTapWeight(dy);
        for (int dx = -2; dx <= 2; ++dx) {
            const int shift = dx * step;
            if (!kInterior && (int(x) + shift >= int(W) || int(x) + kLanes - 1 + shift < 0)) continue;
            const ptrdiff_t j = ptrdiff_t(qy) * W + ptrdiff_t(x) + shift;
            V k;
            if constexpr (kInterior)
                k = splat<V>(ky * atrousTapWeight(dx));
            else
                k = ky * tapX[dx + 2];
            V d = n0x * load<V>(nxP + j) + n0y * load<V>(nyP + j) + n0z * load<V>(nzP + j);
            V rq = load<V>(rP + j), gq = load<V>(gP + j), bq = load<V>(bP + j);
            V dl = l0 - load<V>(lP + j);
            V dch = vmax(vabs((r0 - rq) - dl), vmax(vabs((g0 - gq) - dl), vabs((b0 - bq) - dl)));
            V exponent = vabs(z0 - load<V>(zP + j)) * invDepth + (vabs(dl) + chromaX * dch) * invSigL;
            if constexpr (kChroma) {
                V du = vmax(vabs(ur0 - load<V>(urP + j)), vmax(vabs(ug0 - load<V>(ugP + j)), vabs(ub0 - load<V>(ubP + j))));
                exponent += du * invSigU;
            }
            if constexpr (kCoherence) exponent += vmax(coh - load<V>(cohP + j), splat<V>(0.0f)) * invSigW;
            V w;
            if (squarings >= 0) {
                V wn = vmax(d, splat<V>(0.0f));
                for (int m = 0; m < squarings; ++m) wn *= wn;
                w = k * wn * fastExp2(exponent);
            } else {
                w = k * fastExp2(npow * fastLog2(vmax(d, splat<V>(1e-30f))) + exponent);
                w = d > 0.0f ? w : w * zeroPowFactor;
            }
            sumR += rq * w;
            sumG += gq * w;
            sumB += bq * w;
            sumVar += load<V>(vP + j) * w * w;
            sumPv += load<V>(pvP + j) * w;
            sumW += w;
        }
    }
    const bool readFirst = (c.P.dims.w & 1u) == 0;
    const uint32_t valid = W - x < uint32_t(kLanes) ? W - x : uint32_t(kLanes);
    for (uint32_t l = 0; l < valid; ++l) {
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

// The colour planes of the pixels [i0, i1) from the AoS source: a copy into
// the rgb, variance and pv planes (pv has a stride of 4), then luminance and
// chromaticity over whole vectors of those planes.
struct ColourPlaneFill {
    const float4* src;
    const float* pv;
    float *r, *g, *b, *variance, *luminance, *ur, *ug, *ub, *pvOut;
    size_t i0, i1;

    template <class V>
    QV_ALWAYS_INLINE void run() const {
        for (size_t i = i0; i < i1; ++i) {
            r[i] = src[i].x;
            g[i] = src[i].y;
            b[i] = src[i].z;
            variance[i] = src[i].w;
            pvOut[i] = pv[4 * i];
        }
        size_t i = i0;
        for (; i + lanes<V> <= i1; i += lanes<V>) {
            const V rv = load<V>(r + i), gv = load<V>(g + i), bv = load<V>(b + i);
            const V l = 0.2126f * rv + 0.7152f * gv + 0.0722f * bv;
            const V inv = 1.0f / vmax(l, splat<V>(1e-6f));
            store(luminance + i, l);
            store(ur + i, rv * inv);
            store(ug + i, gv * inv);
            store(ub + i, bv * inv);
        }
        for (; i < i1; ++i) {
            const float l = rec709Luminance(float3{r[i], g[i], b[i]});
            const float inv = 1.0f / maxFloat(l, 1e-6f);
            luminance[i] = l;
            ur[i] = r[i] * inv;
            ug[i] = g[i] * inv;
            ub[i] = b[i] * inv;
        }
    }
};

// sd = sqrt(prefilteredVariance) over the rows [y0, y1), from the variance
// plane: the nine taps of the 3 x 3 Gaussian as vector loads, rows clamped;
// the first and last columns, whose taps clamp sideways, per pixel. Reads
// past a row's end land in the next row or the plane's padding, unused.
struct NoiseDeviationRows {
    const float4* src;
    const float* variance;
    float* sd;
    uint32_t width, height, y0, y1;

    template <class V>
    QV_ALWAYS_INLINE void run() const {
        const int W = int(width), H = int(height);
        for (uint32_t y = y0; y < y1; ++y) {
            const float* rowsAt[3] = {variance + size_t(clampIndex(int(y) - 1, H)) * width,
                                      variance + size_t(y) * width, variance + size_t(clampIndex(int(y) + 1, H)) * width};
            float* out = sd + size_t(y) * width;
            for (int x = 1; x < W - 1; x += lanes<V>) {
                V v{};
                for (int dy = -1; dy <= 1; ++dy) {
                    const float wy = dy == 0 ? 0.5f : 0.25f;
                    for (int dx = -1; dx <= 1; ++dx) {
                        const float wx = dx == 0 ? 0.5f : 0.25f;
                        v += (wx * wy) * load<V>(rowsAt[dy + 1] + x + dx);
                    }
                }
                v = vmax(v, splat<V>(0.0f));
                for (int l = 0; l < lanes<V> && x + l < W - 1; ++l) out[x + l] = std::sqrt(v[l]);
            }
            for (int x : {0, W - 1})
                out[x] = std::sqrt(maxFloat(prefilteredVariance(src, width, height, x, int(y)), 0.0f));
        }
    }
};

// The rows [y0, y1) of one pass, for the vector unit picked by runWidest.
struct FilterRows {
    const PassContext& c;
    uint32_t y0, y1;

    template <class V>
    QV_ALWAYS_INLINE void run() const {
        const bool chroma = c.P.chroma.y > 0, coherence = c.P.sigmas.w > 0;
        if (chroma && coherence) blocks<V, true, true>();
        else if (chroma) blocks<V, true, false>();
        else if (coherence) blocks<V, false, true>();
        else blocks<V, false, false>();
    }

    template <class V, bool kChroma, bool kCoherence>
    QV_ALWAYS_INLINE void blocks() const {
        const int W = int(c.P.dims.x), reach = 2 * int(c.P.dims.z);
        for (uint32_t y = y0; y < y1; ++y)
            for (int x = 0; x < W; x += lanes<V>) {
                if (x >= reach && x + lanes<V> - 1 + reach < W)
                    filterBlock<V, kChroma, kCoherence, true>(c, uint32_t(x), y);
                else
                    filterBlock<V, kChroma, kCoherence, false>(c, uint32_t(x), y);
            }
    }
};

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
    const float* pvIn = readFirst ? &noise[0].x : &noise[0].y;
    tbb::parallel_for(tbb::blocked_range<size_t>(0, count, 4096), [&](const tbb::blocked_range<size_t>& r) {
        runWidest(ColourPlaneFill{src, pvIn, p.r.data() + kPad, p.g.data() + kPad, p.b.data() + kPad,
                                  p.variance.data() + kPad, p.luminance.data() + kPad, p.ur.data() + kPad,
                                  p.ug.data() + kPad, p.ub.data() + kPad, p.pv.data() + kPad, r.begin(), r.end()});
    });
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, H, 16), [&](const tbb::blocked_range<uint32_t>& rows) {
        runWidest(NoiseDeviationRows{src, p.variance.data() + kPad, p.sd.data() + kPad, W, H, rows.begin(), rows.end()});
    });
    PassContext c{src, dst, &guidePlanes, &planes, noise, P};
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, H, 4),
                      [&](const tbb::blocked_range<uint32_t>& rows) {
                          runWidest(FilterRows{c, rows.begin(), rows.end()});
                      });
}

} // namespace qv
