#pragma once
// The QA counters of next-event estimation (stats counters 2 to 16): how many
// scattering vertices, lamp choices and shadow rays there were and how many of
// the rays arrived. They count only when the dispatch asks for them
// (SceneData::dbgOn, FLAG_NEE_STATS); otherwise each call is one predictable
// branch. Increments are relaxed atomics: only the totals matter.
#include "shaders/KernelHelpers.h"
#include "shaders/KernelPortability.h"
#include "shaders/Records.h"

#include <cstdint>

namespace qv {

QV_KERNEL void countNeeStat(const SceneData& s, uint32_t index) {
    if (s.dbgOn && s.dbg) atomicAddCounter(s.dbg + index, 1u);
}

// A lamp next-event-estimation event (STAT_LAMP_*), counted once more at its
// first-vertex twin when the vertex is the path's first scattering vertex.
QV_KERNEL void countLampStat(const SceneData& s, uint32_t index, bool firstVertex) {
    if (!(s.dbgOn && s.dbg)) return;
    atomicAddCounter(s.dbg + index, 1u);
    if (firstVertex) atomicAddCounter(s.dbg + index + STAT_FIRST_VERTEX_OFFSET, 1u);
}

} // namespace qv
