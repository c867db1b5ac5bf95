#pragma once
// A bounding-volume hierarchy over the analytic lights, which next-event
// estimation descends in O(log n): every node holds the bounds, the summed
// peak intensity and the normal cone of the lights below it. Leaves hold at
// most four lights; a light's path from the root is stored in its record
// (bit k set = right child at depth k) so that the probability of choosing it
// can be recomputed without a search.
#include "shaders/Records.h"

#include <cstdint>
#include <vector>

namespace qv {

// A cone of directions: unit axis and half-angle (radians, pi or more = every direction).
struct NormalCone {
    float3 axis{0, 1, 0};
    float halfAngle = 0;
};

// The smallest cone holding both (the union rule of Conty and Kulla 2018).
NormalCone coneUnion(NormalCone a, NormalCone b);

// Builds the tree over `lights`, reorders them into leaf order, writes each
// light's path bits (extra.z) and leaf depth (extra.w) as uint bits, and
// returns the nodes (node 0 the root; none without lights). `newIndexOfOld`
// receives, for each light's index before the call, its index after it.
std::vector<GPULightNode> buildLightTree(std::vector<GPULight>& lights, std::vector<uint32_t>& newIndexOfOld);

inline constexpr uint32_t kMaxLightsPerLeaf = 4;
inline constexpr uint32_t kMaxLightTreeDepth = 29; // deeper ranges become leaves: paths fit 30 bits

} // namespace qv
