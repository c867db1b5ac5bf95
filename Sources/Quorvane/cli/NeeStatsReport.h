#pragma once
// The light-sampling statistics lines a still prints with --debug-nee-stats,
// from the path tracer's next-event-estimation counters (STAT_* 2 to 16).
#include "shaders/Records.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace qv {

// Three lines, beginning "nee-stats: vertices ", "nee-stats: first vertex lamp
// NEE " and "nee-stats: emissive ": the lamp funnel (attempts, choices, non-zero
// BSDF, unoccluded shadow rays) over all vertices and at the first vertex, and
// the shadow rays to emissive surfaces, the sun and the sky with the share
// that arrived. A share of nothing prints as 0.0%.
std::vector<std::string> neeStatsLines(const std::array<uint64_t, STAT_COUNT>& counters);

} // namespace qv
