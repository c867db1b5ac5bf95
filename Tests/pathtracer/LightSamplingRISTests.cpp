// Lamp next-event estimation by resampled importance sampling at a single
// shading point: for every candidate count and branch (tree, cell list,
// defensive tree branch, empty list) its mean equals the plain estimator's
// within noise, also when half the directions are shadowed; the cell mode
// outside the grid is exactly the plain tree choice; and the lamp counters
// count each step of the funnel once.
#include "pathtracer/EnergyTables.h"
#include "pathtracer/LightBuild.h"
#include "shaders/BSDF.h"
#include "shaders/KernelHelpers.h"
#include "shaders/LightSamplingRIS.h"
#include "shaders/PathTrace.h"
#include "shaders/Random.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>
#include <vector>

namespace qv {
namespace {

constexpr double kZ = 4.0; // standard errors allowed between two estimates

// Shadow rays toward +x are blocked by an opaque wall; nothing else is there.
struct HalfShadowed {
    KernelHit opaque(float3, float3, float) const { return {}; }
    KernelHit aux(float3, float3, float) const { return {}; }
    KernelHit glass(float3, float3, float, float) const { return {}; }
    bool opaqueOccluded(float3, float3 d, float) const { return d.x > 0.0f; }
};

uint32_t entryOf(uint32_t light, uint32_t vis) { return light | (vis << CELL_ENTRY_VIS_SHIFT); }

// Lamps around a receiver at the origin (a pendant, a tilted downlight, an
// under-cabinet strip, a lamp below the floor and one facing the ceiling,
// which the receiver cannot use) and three lamps of the next room, with three
// hand-made grid cells.
struct LampRoom {
    LightBuild b;
    std::vector<uint4> ranges;
    std::vector<uint32_t> entries;
    std::array<uint32_t, STAT_COUNT> counters{};
    SceneData s;

    LampRoom() {
        b.addSphere({0.6f, 2.2f, 0.1f}, 0.1f, 800, {1.0f, 0.9f, 0.8f});
        b.addDisc({-1.0f, 2.4f, 0.5f}, normalize(float3{0.3f, -1, 0}), 0.08f, 600, 2, {1, 1, 1});
        b.addQuad({-0.5f, 0.9f, -0.6f}, {0.7f, 0.9f, -0.6f}, {0, -1, 0}, 0.03f, 400, {0.9f, 1.0f, 1.0f});
        b.addSphere({0.2f, -1.0f, 0.0f}, 0.1f, 700, {1, 1, 1});
        b.addDisc({0.0f, 2.5f, -1.0f}, {0, 1, 0}, 0.1f, 900, 1, {1, 1, 1});
        b.addSphere({6.0f, 2.0f, 0.0f}, 0.1f, 500, {1, 1, 1});
        b.addSphere({7.0f, 2.0f, 2.0f}, 0.1f, 500, {1, 1, 1});
        b.addSphere({7.5f, 1.5f, -2.0f}, 0.2f, 900, {1, 1, 1});
        b.buildTree();
        // The tree reorders the lamps; find each by its centre.
        auto at = [&](float x, float y) {
            for (uint32_t i = 0; i < b.lights.size(); ++i)
                if (std::fabs(b.lights[i].posType.x - x) < 0.2f && std::fabs(b.lights[i].posType.y - y) < 0.2f)
                    return i;
            ADD_FAILURE() << "no lamp at " << x << ", " << y;
            return 0u;
        };
        // Cell 0 lists the room's lamps (the strip half visible) and one of the
        // next room; cell 1 only the next room's, so the room's own lamps come
        // through the defensive branch alone; cell 2 lists nothing.
        entries = {entryOf(at(0.6f, 2.2f), 255), entryOf(at(-1.0f, 2.4f), 200), entryOf(at(0.1f, 0.9f), 128),
                   entryOf(at(6.0f, 2.0f), 10),  entryOf(at(7.0f, 2.0f), 255), entryOf(at(7.5f, 1.5f), 60)};
        ranges = {uint4{0, 4, 0, 0}, uint4{4, 2, 0, 0}, uint4{6, 0, 0, 0}};
        s.lights = b.lights.data();
        s.nodes = b.nodes.data();
        s.cellRange = ranges.data();
        s.cellEntry = entries.data();
        s.grid.params = float4{0.1f, 0.2f, 0.03f, 0.1f};
        s.grid.mode = uint4{NEE_CELL, 8, 1, 0};
        s.dbg = counters.data();
    }
};

const EnergyTables& tables() {
    static const EnergyTables t = buildEnergyTables();
    return t;
}

struct Receiver {
    std::string name;
    float3 base;
    float metallic, rough;
    float3 view; // toward the viewer (world)
};
const Receiver kReceivers[] = {
    {"matte floor", {0.7f, 0.7f, 0.7f}, 0.0f, 0.8f, normalize(float3{0.2f, 1.0f, 0.3f})},
    {"glossy floor", {0.8f, 0.6f, 0.4f}, 0.5f, 0.25f, normalize(float3{-0.9f, 0.5f, -0.1f})},
};

struct Estimate {
    double mean = 0, se = 0, variance = 0;
};

// The luminance of n lamp NEE estimates at the receiver on the floor.
Estimate lampEstimate(const SceneData& s, const Receiver& rc, uint32_t mode, uint32_t M, int cell, int n,
                      uint32_t seed, bool firstVertex = true) {
    SceneData sd = s;
    sd.grid.mode.x = mode;
    sd.grid.mode.y = M;
    GPUUniforms u{};
    const PathSwitches sw = pathSwitches(u);
    const HalfShadowed tr;
    const KernelTextures tex{};
    const KernelContext<HalfShadowed> k{u, sd, tr, tex};
    const float3 ng{0, 1, 0};
    const Basis frame = makeBasis(ng);
    const float3 v = toLocal(frame, rc.view);
    const BSDF b = makeBSDF(tables().dfg.data(), tables().dfgAvg.data(), rc.base, rc.metallic, rc.rough, v.z);
    const OpaqueScatter sc{b, v, float3{0, 0, 0}, ng};
    double sum = 0, sumSq = 0;
    for (int i = 0; i < n; ++i) {
        float3 L{};
        bool bad = false;
        lampNee(k, sw, sc, frame, ng, cell, L, float3{1, 1, 1}, false, firstVertex, seed, bad);
        EXPECT_FALSE(bad);
        double y = luminance(L);
        sum += y;
        sumSq += y * y;
    }
    Estimate e;
    e.mean = sum / n;
    e.variance = std::max(sumSq / n - e.mean * e.mean, 0.0);
    e.se = std::sqrt(e.variance / n);
    return e;
}

struct RISCase {
    const char* name;
    uint32_t mode;
    uint32_t M;
    int cell;
};
const RISCase kCases[] = {
    {"tree, one candidate", NEE_RIS_TREE, 1, -1},
    {"tree, six candidates", NEE_RIS_TREE, 6, -1},
    {"cell list, one candidate", NEE_RIS_CELL, 1, 0},
    {"cell list, five candidates", NEE_RIS_CELL, 5, 0},
    {"cell list, twelve candidates of which eight are drawn", NEE_RIS_CELL, 12, 0},
    {"cell without the room's lamps", NEE_RIS_CELL, 4, 1},
    {"cell with an empty list", NEE_RIS_CELL, 3, 2},
};

TEST(RISLampNee, MeanEqualsThePlainChoiceForEveryBranchAndCandidateCount) {
    const LampRoom room;
    const int n = 20000;
    for (const Receiver& rc : kReceivers) {
        // The plain estimators the RIS modes must agree with: the tree, and the
        // cell choice in each cell.
        const Estimate tree = lampEstimate(room.s, rc, NEE_TREE, 1, -1, 4 * n, 101);
        Estimate cells[3];
        for (int c = 0; c < 3; ++c) cells[c] = lampEstimate(room.s, rc, NEE_CELL, 1, c, 4 * n, 202 + uint32_t(c));
        ASSERT_GT(tree.mean, 0.0);
        // The cells estimate the same integral as the tree.
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(cells[c].mean, tree.mean, kZ * std::hypot(cells[c].se, tree.se)) << rc.name << ", cell " << c;
        uint32_t seed = 7;
        for (const RISCase& rcase : kCases) {
            const Estimate& plain = rcase.cell < 0 ? tree : cells[rcase.cell];
            const Estimate ris = lampEstimate(room.s, rc, rcase.mode, rcase.M, rcase.cell, n, seed++);
            EXPECT_NEAR(ris.mean, plain.mean, kZ * std::hypot(ris.se, plain.se))
                << rc.name << ", " << rcase.name << ": relative difference " << ris.mean / plain.mean - 1
                << ", standard error " << ris.se / plain.mean;
        }
    }
}

TEST(RISLampNee, CellModeOutsideTheGridIsThePlainTreeChoice) {
    const LampRoom room;
    for (const Receiver& rc : kReceivers) {
        const Estimate ris = lampEstimate(room.s, rc, NEE_RIS_CELL, 8, -1, 500, 31);
        const Estimate tree = lampEstimate(room.s, rc, NEE_TREE, 8, -1, 500, 31);
        EXPECT_EQ(ris.mean, tree.mean) << rc.name;
        EXPECT_EQ(ris.variance, tree.variance) << rc.name;
    }
    EXPECT_TRUE(risLampMode(NEE_RIS_TREE, -1));
    EXPECT_TRUE(risLampMode(NEE_RIS_CELL, 0));
    EXPECT_FALSE(risLampMode(NEE_RIS_CELL, -1));
    EXPECT_FALSE(risLampMode(NEE_CELL, 3));
    EXPECT_FALSE(risLampMode(NEE_TREE, -1));
}

// Resampling toward the unshadowed contribution lowers the variance per sample
// (by 10 to 20 percent here, where half the directions are shadowed, which the
// target cannot know): the candidates' BSDF values and distances tell the
// lamps' shares apart better than the choice probabilities alone.
TEST(RISLampNee, MoreCandidatesLowerTheVariance) {
    const LampRoom room;
    const Receiver& matte = kReceivers[0];
    const Estimate one = lampEstimate(room.s, matte, NEE_RIS_TREE, 1, -1, 20000, 5);
    const Estimate eight = lampEstimate(room.s, matte, NEE_RIS_TREE, 8, -1, 20000, 6);
    EXPECT_LT(eight.variance, 0.9 * one.variance) << "variance with 8 candidates " << eight.variance << ", with 1 "
                                                  << one.variance;
}

// ---- Counters ----------------------------------------------------------------------

TEST(LampNeeCounters, EachStepOfTheFunnelIsCountedOnceAndOnlyWhenAsked) {
    for (uint32_t mode : {NEE_CELL, NEE_RIS_CELL}) {
        LampRoom room;
        const int n = 4000;
        // Off: nothing counts.
        lampEstimate(room.s, kReceivers[0], mode, 4, 0, n, 3);
        for (uint32_t c : room.counters) EXPECT_EQ(c, 0u);
        // On, at the first vertex and then at a later one.
        room.s.dbgOn = true;
        lampEstimate(room.s, kReceivers[0], mode, 4, 0, n, 3);
        lampEstimate(room.s, kReceivers[0], mode, 4, 0, n, 4, false);
        const auto& c = room.counters;
        SCOPED_TRACE(mode == NEE_CELL ? "plain cell choice" : "RIS over the cell");
        EXPECT_EQ(c[STAT_LAMP_NEE_TRIED], uint32_t(2 * n));
        EXPECT_EQ(c[STAT_LAMP_NEE_TRIED + STAT_FIRST_VERTEX_OFFSET], uint32_t(n));
        for (uint32_t i = STAT_LAMP_NEE_TRIED; i < STAT_LAMP_UNOCCLUDED; ++i) {
            EXPECT_LE(c[i + 1], c[i]) << "counter " << i + 1;
            EXPECT_LE(c[i + 1 + STAT_FIRST_VERTEX_OFFSET], c[i + STAT_FIRST_VERTEX_OFFSET]) << "counter " << i + 5;
            EXPECT_LE(c[i + STAT_FIRST_VERTEX_OFFSET], c[i]) << "first-vertex counter " << i + 4;
        }
        // Half the directions are shadowed: some rays arrive, not all.
        EXPECT_GT(c[STAT_LAMP_UNOCCLUDED], 0u);
        EXPECT_LT(c[STAT_LAMP_UNOCCLUDED], c[STAT_LAMP_BSDF_NONZERO]);
        // No other family is counted by lamp NEE.
        for (uint32_t i = STAT_EMISSIVE_RAYS; i < STAT_COUNT; ++i) EXPECT_EQ(c[i], 0u) << "counter " << i;
        EXPECT_EQ(c[STAT_NONFINITE_SAMPLE] + c[STAT_DROPPED_SAMPLE], 0u);
    }
}

} // namespace
} // namespace qv
