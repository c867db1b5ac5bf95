#pragma once
// Sine and cosine of an angle given in turns, for the samplers: every
// sampled azimuth is 2 pi times a number in [0, 1), so the argument needs no
// costly reduction, and a short polynomial pair, inlined and free of branches,
// replaces a library call per sample. Absolute error below 2e-7 (about one
// unit in the last place of a float near 1), far below any sampling noise.
#include "shaders/KernelPortability.h"
#include "shaders/VecMath.h"

#include <cmath>

namespace qv {

struct SinCos {
    float s, c;
};

// sin and cos of 2 pi t, for any finite t.
QV_KERNEL SinCos sinCosTurns(float t) {
    // Reduce to the nearest quarter turn q and a remainder of at most an
    // eighth of a turn either side: x = 2 pi (t - q / 4) in [-pi/4, pi/4].
    float q = std::floor(t * 4.0f + 0.5f);
    float x = (t - q * 0.25f) * 6.28318530717958648f;
    int quadrant = int(q - 4.0f * std::floor(q * 0.25f)); // q mod 4, also for negative q
    float x2 = x * x;
    // Taylor series to x^9 and x^8: truncation below 4e-9 on [-pi/4, pi/4].
    float s = x * (1.0f + x2 * (-1.6666667e-1f + x2 * (8.3333333e-3f + x2 * (-1.9841270e-4f + x2 * 2.7557319e-6f))));
    float c = 1.0f + x2 * (-0.5f + x2 * (4.1666667e-2f + x2 * (-1.3888889e-3f + x2 * 2.4801587e-5f)));
    // Add the quarter turns: sin(x + q pi/2), cos(x + q pi/2) are
    // (s, c), (c, -s), (-s, -c), (-c, s) for q mod 4 = 0, 1, 2, 3.
    const bool odd = (quadrant & 1) != 0;
    float rs = odd ? c : s;
    float rc = odd ? s : c;
    if (quadrant >= 2) rs = -rs;
    if (quadrant == 1 || quadrant == 2) rc = -rc;
    return SinCos{rs, rc};
}

} // namespace qv
