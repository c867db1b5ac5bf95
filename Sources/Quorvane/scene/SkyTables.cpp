#include "scene/SkyTables.h"

#include "shaders/KernelHelpers.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>

namespace qv {

namespace {

constexpr double kTwoPiSquared = 19.739208802178716; // the (theta, phi) area of the sphere's map

double texelLuminance(const float4& t) { return 0.2126 * t.x + 0.7152 * t.y + 0.0722 * t.z; }

} // namespace

SkyTables SkyTables::build(const float4* env, uint32_t W, uint32_t H) {
    SkyTables t;
    const size_t n = size_t(W) * H;
    t.rowCdf.assign(H, 1.0f);
    t.colCdf.assign(n, 1.0f);
    t.pdf.assign(n, 0.0f);
    if (n == 0) return t;

    // Per row: the weights w = sin(theta) max(luminance, 0) in the upper half,
    // their running sums as the column distribution, and the row total.
    std::vector<double> weight(n, 0.0), rowSum(H, 0.0);
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, H), [&](const tbb::blocked_range<uint32_t>& r) {
        for (uint32_t y = r.begin(); y != r.end(); ++y) {
            double theta = (y + 0.5) / H * M_PI;
            if (theta > M_PI / 2) continue;
            double s = std::sin(theta), sum = 0;
            for (uint32_t x = 0; x < W; ++x) {
                double w = s * std::max(texelLuminance(env[size_t(y) * W + x]), 0.0);
                if (!std::isfinite(w)) w = 0; // a broken texel is never sampled
                weight[size_t(y) * W + x] = w;
                sum += w;
            }
            rowSum[y] = sum;
            float* cdf = &t.colCdf[size_t(y) * W];
            if (sum <= 0) {
                for (uint32_t x = 0; x < W; ++x) cdf[x] = float(double(x + 1) / W);
            } else {
                double run = 0;
                for (uint32_t x = 0; x < W; ++x) {
                    run += weight[size_t(y) * W + x];
                    cdf[x] = float(std::min(run / sum, 1.0));
                }
            }
        }
    });
    double total = 0;
    for (double s : rowSum) total += s;

    const double area = double(W) * H / kTwoPiSquared;
    if (total > 0) {
        double run = 0;
        for (uint32_t y = 0; y < H; ++y) {
            run += rowSum[y];
            t.rowCdf[y] = float(std::min(run / total, 1.0));
        }
        t.rowCdf[H - 1] = 1.0f;
        for (size_t i = 0; i < n; ++i) t.pdf[i] = float(weight[i] / total * area);
    } else {
        // A black sky: every texel of the upper half equally likely.
        const uint32_t half = H / 2;
        for (uint32_t y = 0; y < H; ++y)
            t.rowCdf[y] = half > 0 ? float(std::min(double(y + 1) / half, 1.0)) : 1.0f;
        for (uint32_t y = 0; y < H; ++y)
            for (uint32_t x = 0; x < W; ++x) t.colCdf[size_t(y) * W + x] = float(double(x + 1) / W);
        const size_t upper = n / 2;
        for (size_t i = 0; i < upper; ++i) t.pdf[i] = float(area / double(upper));
    }
    t.rowGuide.assign(CDF_GUIDE_N + 1, 0u);
    buildCdfGuide(t.rowCdf.data(), H, t.rowGuide.data());
    t.colGuide.assign(size_t(H) * (CDF_GUIDE_N + 1), 0u);
    tbb::parallel_for(uint32_t(0), H, [&](uint32_t y) {
        buildCdfGuide(&t.colCdf[size_t(y) * W], W, &t.colGuide[size_t(y) * (CDF_GUIDE_N + 1)]);
    });
    return t;
}

} // namespace qv
