#pragma once
// Hashing and the per-path random stream: the PCG-RXS-M-XS 32-bit permutation
// over a linear congruential state. Every path owns one 32-bit state that it
// advances in place, so results do not depend on thread scheduling.
#include "shaders/KernelPortability.h"

#include <cstdint>

namespace qv {

constexpr uint32_t PCG_MULTIPLIER = 747796405u;
constexpr uint32_t PCG_INCREMENT = 2891336453u;

// The PCG output permutation of a state s.
QV_KERNEL uint32_t pcgPermute(uint32_t s) {
    uint32_t w = ((s >> ((s >> 28u) + 4u)) ^ s) * 277803737u;
    return (w >> 22u) ^ w;
}

// A well-mixed 32-bit hash of v (one LCG step, then the permutation).
QV_KERNEL uint32_t pcgHash(uint32_t v) { return pcgPermute(v * PCG_MULTIPLIER + PCG_INCREMENT); }

// Advances the stream and returns a uniform float in [0, 1) with 24 random
// bits: the largest value is (2^24 - 1) 2^-24, never 1.
QV_KERNEL float rnd(uint32_t& seed) {
    seed = seed * PCG_MULTIPLIER + PCG_INCREMENT;
    return float(pcgPermute(seed) >> 8u) * 5.9604645e-8f;
}

} // namespace qv
