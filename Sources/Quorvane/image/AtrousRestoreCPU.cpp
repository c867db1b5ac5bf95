#include "image/AtrousRestoreCPU.h"

#include "image/SimdLanes.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <cstddef>

namespace qv {

namespace {

using namespace simd;

// Replicated border on each side: the windows reach two pixels.
constexpr int kBorder = 2;

// The five windows' taps as offsets on the padded grid, in the order the
// reference visits them (the outlier kept is the first largest).
struct RestoreWindows {
    static constexpr int kCount = 5;
    ptrdiff_t taps[25 + 4 * 5];
    int begin[kCount + 1];

    explicit RestoreWindows(ptrdiff_t stride) {
        int n = 0;
        begin[0] = 0;
        for (int oy = -2; oy <= 2; ++oy)
            for (int ox = -2; ox <= 2; ++ox) taps[n++] = oy * stride + ox;
        const int lineDir[4][2] = {{1, 0}, {0, 1}, {1, 1}, {1, -1}};
        for (int line = 0; line < 4; ++line) {
            begin[line + 1] = n;
            for (int t = -2; t <= 2; ++t) taps[n++] = lineDir[line][1] * t * stride + lineDir[line][0] * t;
        }
        begin[kCount] = n;
    }
};

// Largest share of residual energy above k times its noise, over the
// channels of one window, without the window's most significant tap.
template <class V>
QV_ALWAYS_INLINE V windowWeight(const AtrousRestorePlanes& p, ptrdiff_t centre, const ptrdiff_t* taps, int count,
                                const V& k) {
    V best{};
    for (int ch = 0; ch < 3; ++ch) {
        const float* eP = p.energy[ch].data() + centre;
        const float* nP = p.noise[ch].data() + centre;
        const float* zP = p.ratio[ch].data() + centre;
        V E{}, N{}, Mr{}, Mn{}, Mz{};
        for (int t = 0; t < count; ++t) {
            const V e = load<V>(eP + taps[t]), nq = load<V>(nP + taps[t]);
            E += e;
            N += nq;
            const auto larger = e > Mz * nq;
            Mr = larger ? e : Mr;
            Mn = larger ? nq : Mn;
            Mz = larger ? load<V>(zP + taps[t]) : Mz;
        }
        const V Et = E - Mr, Nt = N - Mn;
        V w = (Et - k * Nt) / vmax(Et, splat<V>(1e-30f));
        w = vmin(vmax(w, splat<V>(0.0f)), splat<V>(1.0f));
        w = Et > 0.0f ? w : splat<V>(0.0f);
        best = vmax(best, w);
    }
    return best;
}

struct RestoreRows {
    const float4 *accum, *resid;
    float4* out;
    const AtrousRestorePlanes& planes;
    const RestoreWindows& windows;
    float k;
    uint32_t width, y0, y1;

    template <class V>
    QV_ALWAYS_INLINE void run() const {
        constexpr int kLanes = lanes<V>;
        for (uint32_t y = y0; y < y1; ++y)
            for (uint32_t x = 0; x < width; x += kLanes) {
                const ptrdiff_t centre = ptrdiff_t(y + kBorder) * planes.stride + x + kBorder;
                V wmax{};
                for (int win = 0; win < RestoreWindows::kCount; ++win) {
                    const int b = windows.begin[win];
                    wmax = vmax(wmax, windowWeight<V>(planes, centre, windows.taps + b, windows.begin[win + 1] - b,
                                                      splat<V>(k)));
                }
                const uint32_t valid = width - x < uint32_t(kLanes) ? width - x : uint32_t(kLanes);
                for (uint32_t l = 0; l < valid; ++l) {
                    const size_t i = size_t(y) * width + x + l;
                    const float n = accum[i].w;
                    const float3 R = xyz(resid[i]);
                    out[i] = n > 0 ? make_float4(xyz(accum[i]) / n - (1.0f - wmax[l]) * R, 1.0f) : make_float4(-R, 1.0f);
                }
            }
    }
};

} // namespace

void AtrousRestorePlanes::build(const float4* resid, const float4* noiseIn, uint32_t width, uint32_t height) {
    // Room after each row for a vector of taps that starts at the last pixel.
    stride = width + 2 * kBorder + kMaxLanes;
    const size_t count = size_t(stride) * (height + 2 * kBorder);
    for (int ch = 0; ch < 3; ++ch)
        for (auto* v : {&energy[ch], &noise[ch], &ratio[ch]})
            if (v->size() != count) v->assign(count, 0.0f);
    const int W = int(width), H = int(height);
    tbb::parallel_for(tbb::blocked_range<int>(0, H + 2 * kBorder, 16), [&](const tbb::blocked_range<int>& rows) {
        for (int py = rows.begin(); py != rows.end(); ++py) {
            const size_t srcRow = size_t(clampIndex(py - kBorder, H)) * width;
            const size_t dstRow = size_t(py) * stride;
            for (int px = 0; px < W + 2 * kBorder; ++px) {
                const size_t s = srcRow + size_t(clampIndex(px - kBorder, W));
                const size_t d = dstRow + size_t(px);
                const float3 r3 = xyz(resid[s]), n3 = xyz(noiseIn[s]);
                for (int ch = 0; ch < 3; ++ch) {
                    const float r = r3[ch], nq = n3[ch];
                    const float e = r * r;
                    energy[ch][d] = e;
                    noise[ch][d] = nq;
                    ratio[ch][d] = e / maxFloat(nq, 1e-30f);
                }
            }
        }
    });
}

void restoreCPU(const float4* accum, const float4* resid, const float4* noise, float4* out, float k, uint32_t width,
                uint32_t height, AtrousRestorePlanes& planes) {
    planes.build(resid, noise, width, height);
    const RestoreWindows windows(planes.stride);
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, height, 4), [&](const tbb::blocked_range<uint32_t>& rows) {
        runWidest(RestoreRows{accum, resid, out, planes, windows, k, width, rows.begin(), rows.end()});
    });
}

} // namespace qv
