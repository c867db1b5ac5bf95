#pragma once
// The detail restore's last stage laid out for CPU vector units. It computes
// the per-pixel algorithm of denoiseRestore2 (shaders/Atrous.h) over
// structure-of-arrays planes padded by two replicated pixels on every side,
// so the clamped taps of its five windows are plain loads, with a run of
// pixels across a row in the vector lanes.
#include "shaders/Atrous.h"

#include <cstdint>
#include <vector>

namespace qv {

// Per channel: the residual energy R^2, its expected noise NZ and their
// ratio R^2 / max(NZ, 1e-30), on the padded grid.
struct AtrousRestorePlanes {
    uint32_t stride = 0; // floats per padded row
    std::vector<float> energy[3], noise[3], ratio[3];
    void build(const float4* resid, const float4* noise, uint32_t width, uint32_t height);
};

// out = x - (1 - wmax) R per pixel with samples, -R (the filtered value)
// without. resid is the (crease-corrected) residual, noise holds NZ, k is the
// restore strength; planes are scratch.
void restoreCPU(const float4* accum, const float4* resid, const float4* noise, float4* out, float k, uint32_t width,
                uint32_t height, AtrousRestorePlanes& planes);

} // namespace qv
