#pragma once
// The GGX energy tables on which the opaque BSDF's multiple-scattering
// compensation rests, built once when a renderer starts.
#include "shaders/VecMath.h"

#include <vector>

namespace qv {

struct EnergyTables {
    std::vector<float2> dfg;    // DFG_N x DFG_N (T1, T2), entry (mu column x, roughness row y) at y DFG_N + x
    std::vector<float4> dfgAvg; // DFG_N average-albedo coefficients (x + y F0 + z F0^2), w = 0
    double buildSeconds = 0;    // wall time of the build
};

// Generates both tables in parallel over the table cells (oneTBB).
EnergyTables buildEnergyTables();

} // namespace qv
