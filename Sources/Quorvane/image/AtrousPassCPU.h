#pragma once
// The a-trous filter pass laid out for CPU vector units (16 lanes with
// AVX-512, 8 otherwise). It computes the per-pixel algorithm of denoiseAtrous
// (shaders/Atrous.h) to within float rounding, but over structure-of-arrays
// planes with the tap loop outside the pixel loop, so each tap is one
// contiguous run of pixels across a row, and with the five stop weights
// folded into one exponential:
//   w = k x 2^(npow log2(n0.nq) - log2(e) (dz/sz + (|dl| + a |dch|)/sL + |du|/sU + dcoh/sW)).
// Where a run's normal power is one power of two 2^m (fully coherent pixels,
// the default 64), (n0.nq)^npow is m squarings instead.
#include "shaders/Atrous.h"

#include <cstdint>
#include <vector>

namespace qv {

// Pass-invariant planes of the guide: the unit normal seen as a tap, the
// normal seen as a centre (divided by the coherence), the coherence
// min(|n|, 1), the normal power sigmas.y x coherence^16, and the depth.
struct AtrousGuidePlanes {
    std::vector<float> nx, ny, nz, cx, cy, cz, coherence, normalPower, depth;
    void build(const float4* guide, uint32_t width, uint32_t height, float normalSigma);
};

// Per-pass planes of the source colour.
struct AtrousColourPlanes {
    std::vector<float> r, g, b, variance, luminance, ur, ug, ub, pv, sd;
};

// One pass i (step 2^i): src is the AoS colour buffer, the guide planes are
// built once per filter, the colour planes are scratch.
// Writes dst (irradiance, variance) and noise component 1 - (i & 1).
void atrousPassCPU(const float4* src, float4* dst, const AtrousGuidePlanes& guidePlanes,
                   AtrousColourPlanes& planes, float4* noise, const GPUDenoiseParams& P);

} // namespace qv
