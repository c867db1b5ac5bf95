#pragma once
// Lamp next-event estimation by resampled importance sampling (RIS), the QA
// modes NEE_RIS_TREE and NEE_RIS_CELL. M candidates (a lamp and a point on it,
// drawn from the same sources as the plain choice) are weighted by their
// unshadowed contribution, one is kept and only it gets a shadow ray:
//
//   <L> = f(y) Le(y) cos(y) T(y) mL(y) / target(y) * wSum / (M branchP),
//   wSum = sum_i target(x_i) / src(x_i),
//
// with target = luminance(cheap BSDF value times Le) times cos, src the
// candidate's discrete probability PD times its point density, and branchP
// the probability of the branch (list or defensive) that drew the candidates.
// The MIS weight mL uses the plain strategy's density branchP src (the light
// choice pmf times the point pdf), which is what a BSDF-sampled hit on the
// lamp computes, so the two weights still sum to one and the estimate stays
// unbiased whatever the candidate count.
//
// These modes cut the variance per sample by 10 to 20 percent against the cell
// lists but cost more time than they save; they exist for QA only.
#include "shaders/KernelHelpers.h"
#include "shaders/KernelPortability.h"
#include "shaders/LightSampling.h"
#include "shaders/Random.h"
#include "shaders/Records.h"
#include "shaders/VecMath.h"

#include <cstdint>

namespace qv {

// The most candidates the list branch draws in its single pass over a cell
// list; larger candidate counts are accounted for by scaling wSum by M / Mc.
constexpr uint32_t RIS_LIST_MAX_CANDIDATES = 8;

// A lamp and a point on it picked for next-event estimation, by either the
// plain choice or RIS.
struct LampPick {
    int light = -1;   // chosen light, -1 = none
    LightSample ls;   // the point on it (pdf 0 when point sampling failed)
    float misPdf = 0; // the plain strategy's solid-angle density of this point (choice pmf times point pdf)
    float scale = 0;  // the estimator's factor in place of 1 / density (RIS: wSum / (target M branchP))
};

// Whether a vertex in grid cell `cell` samples lamps by RIS: always in the
// tree mode; in the cell mode only inside the grid (elsewhere the plain tree
// choice is used).
QV_KERNEL bool risLampMode(uint32_t mode, int cell) {
    return mode == NEE_RIS_TREE || (mode == NEE_RIS_CELL && cell >= 0);
}

// A streaming reservoir of one candidate.
struct RISReservoir {
    int light = -1;
    LightSample ls;
    float target = 0; // the kept candidate's target
    float src = 0;    // its PD times point pdf
    float wSum = 0;   // sum of target / src over every candidate seen
};

// One candidate: light li chosen with discrete probability pd. Two uniform
// numbers are drawn for the point whether or not there is a light.
// Scatter provides the shading point x, its facing geometric normal ng and
// float3 target(float3 l): a cheap BSDF value toward the local direction l
// that is positive wherever the exact BSDF is.
template <class Scatter>
QV_KERNEL void risCandidate(const SceneData& s, const Scatter& sc, const Basis& frame, int li, float pd,
                            RISReservoir& res, uint32_t& seed) {
    float2 r{rnd(seed), rnd(seed)};
    if (li < 0 || !(pd > 0.0f)) return;
    LightSample ls = sampleLight(s.lights[li], sc.x, r);
    if (!isValid(ls) || !(dot(ls.dir, sc.ng) > 0.0f)) return;
    float3 l = toLocal(frame, ls.dir);
    float target = luminance(sc.target(l) * ls.Le) * l.z;
    if (!(target > 0.0f)) return;
    float src = pd * ls.pdf;
    float w = target / src;
    if (!(w > 0.0f) || badFloat(w)) return;
    res.wSum += w;
    if (rnd(seed) * res.wSum < w) {
        res.light = li;
        res.ls = ls;
        res.target = target;
        res.src = src;
    }
}

// Picks a lamp and a point by RIS at a vertex where risLampMode holds, with
// normal n for the light choice and grid cell `cell` (-1 in the tree mode).
template <class Scatter>
QV_KERNEL LampPick risPickLamp(const SceneData& s, const Scatter& sc, const Basis& frame, float3 n, int cell,
                               uint32_t& seed) {
    const uint32_t M = s.grid.mode.y > 1u ? s.grid.mode.y : 1u;
    RISReservoir res;
    float branchP = 1.0f;
    if (cell < 0) {
        // Tree: M independent descents.
        for (uint32_t m = 0; m < M; ++m) {
            LightChoice c = selectLight(s, sc.x, n, seed);
            risCandidate(s, sc, frame, c.index, c.pmf, res, seed);
        }
    } else if (rnd(seed) < s.grid.params.x) {
        // Defensive branch: one tree candidate for the lamps the list lacks.
        // wSum times M makes the division by M below give its own weight.
        branchP = s.grid.params.x;
        LightChoice c = selectLight(s, sc.x, n, seed);
        bool unlisted = c.index >= 0 && !cellLists(s, cell, uint32_t(c.index));
        if (unlisted) risCandidate(s, sc, frame, c.index, c.pmf, res, seed);
        res.wSum *= float(M);
    } else {
        // List branch: Mc independent draws from the list's distribution in
        // one pass, each reservoir with its own uniform number.
        branchP = 1.0f - s.grid.params.x;
        const uint32_t Mc = M < RIS_LIST_MAX_CANDIDATES ? M : RIS_LIST_MAX_CANDIDATES;
        Reservoir draws[RIS_LIST_MAX_CANDIDATES];
        float u[RIS_LIST_MAX_CANDIDATES] = {};
        for (uint32_t j = 0; j < Mc; ++j) u[j] = rnd(seed);
        const uint4 range = s.cellRange[cell];
        for (uint32_t k = 0; k < range.y; ++k) {
            uint32_t entry = s.cellEntry[range.x + k];
            int li = int(entry & CELL_ENTRY_LIGHT_MASK);
            float w = cellEntryWeight(s, entry, sc.x, n);
            for (uint32_t j = 0; j < Mc; ++j) reservoirUpdate(draws[j], li, w, u[j]);
        }
        const float total = draws[0].wsum;
        for (uint32_t j = 0; j < Mc; ++j) {
            float pd = draws[j].chosen >= 0 && total > 0.0f ? draws[j].chosenWeight / total : 0.0f;
            risCandidate(s, sc, frame, draws[j].chosen, pd, res, seed);
        }
        res.wSum *= float(M) / float(Mc);
    }
    LampPick pick;
    if (res.light < 0 || !(res.wSum > 0.0f)) return pick;
    pick.light = res.light;
    pick.ls = res.ls;
    pick.misPdf = branchP * res.src;
    pick.scale = res.wSum / (res.target * float(M) * branchP);
    return pick;
}

} // namespace qv
