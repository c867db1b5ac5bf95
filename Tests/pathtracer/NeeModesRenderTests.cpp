// The next-event modes and counters through the whole renderer: in a small
// two-room interior with several lamps the RIS modes render the same image
// mean as the plain tree and cell choices within noise, and the counters add
// up on scenes whose path shapes are known.
#include "RenderTestScenes.h"
#include "pathtracer/Renderer.h"
#include "shaders/Records.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace qv {
namespace {

using namespace testscenes;

constexpr double kZ = 4.0; // standard errors allowed between two estimates

void expectSameMean(const ImageMean& a, const ImageMean& b, const char* what) {
    double tol = kZ * std::hypot(a.se, b.se);
    EXPECT_NEAR(a.mean, b.mean, tol) << what << ": " << a.mean << " +- " << a.se << " against " << b.mean << " +- "
                                     << b.se;
}

// A vertical wall from (x0, z0) to (x1, z1), floor to height h.
void wall(SceneMaker& sm, float x0, float z0, float x1, float z1, float h, uint32_t mat) {
    sm.quad({x0, 0, z0}, {x1, 0, z1}, {x1, h, z1}, {x0, h, z0}, mat);
}

// Two rooms of 2 x 3 m under one ceiling, joined by a doorway in the
// partition; a pendant and a downlight in the room in view, a strip on the
// partition's far side, a pendant in the other room.
SceneMaker twoRooms() {
    SceneMaker sm;
    uint32_t floor = sm.material({0.6f, 0.55f, 0.5f}, 0.7f);
    uint32_t walls = sm.material({0.8f, 0.8f, 0.75f}, 0.9f);
    uint32_t glossy = sm.material({0.5f, 0.5f, 0.55f}, 0.3f);
    sm.rectangle(0, -2, 2, -1.5f, 1.5f, floor);
    sm.rectangle(2.5f, -2, 2, -1.5f, 1.5f, walls, true);
    wall(sm, -2, -1.5f, 2, -1.5f, 2.5f, walls);
    wall(sm, -2, 1.5f, 2, 1.5f, 2.5f, walls);
    wall(sm, -2, -1.5f, -2, 1.5f, 2.5f, walls);
    wall(sm, 2, -1.5f, 2, 1.5f, 2.5f, glossy);
    wall(sm, 0, -1.5f, 0, 0.5f, 2.5f, walls); // the partition; the doorway is z in 0.5 .. 1.5
    LightDef pendant = lampDef("pendant", {1.0f, 1.9f, -0.4f}, 900);
    pendant.radius = 0.12f;
    sm.scene.lights.push_back(pendant);
    LightDef down = lampDef("downlight", {1.3f, 2.45f, 0.9f}, 700);
    down.radius = 0.06f;
    down.coneDeg = 90;
    sm.scene.lights.push_back(down);
    LightDef strip = lampDef("strip", {-0.05f, 1.2f, -1.3f}, 300);
    strip.end = std::vector<float>{-0.05f, 1.2f, 0.3f};
    strip.direction = std::vector<float>{-1, 0, 0};
    strip.width = 0.03f;
    sm.scene.lights.push_back(strip);
    LightDef other = lampDef("pendant", {-1.0f, 1.8f, 0.2f}, 1200);
    other.radius = 0.1f;
    sm.scene.lights.push_back(other);
    sm.finish();
    return sm;
}

RenderSettings interiorSettings(NEEMode mode, uint32_t candidates, uint32_t seed) {
    RenderSettings s = smallSettings(12, 12, 3);
    s.neeMode = mode;
    s.risCandidates = candidates;
    s.seed = seed;
    s.lightGridCell = 0.5f;
    s.lightGridRays = 16;
    return s;
}

struct ModeCase {
    const char* name;
    NEEMode mode;
    uint32_t candidates;
};

TEST(NeeModesRender, RisModesAgreeWithThePlainChoicesInATwoRoomInterior) {
    const SceneMaker sm = twoRooms();
    // From the room's corner toward the doorway: the floor, the partition and
    // the light through the doorway.
    const CameraDef cam = camera({1.8f, 1.6f, -1.3f}, {-0.5f, 0.6f, 0.8f}, 70);
    const Render tree = render(sm, interiorSettings(NEEMode::tree, 8, 1), blackSky(), cam, 64);
    const ImageMean reference = imageMean(*tree.r);
    ASSERT_GT(reference.mean, 0.0);
    const ModeCase cases[] = {
        {"cell lists", NEEMode::cell, 8},
        {"RIS over the tree, one candidate", NEEMode::risTree, 1},
        {"RIS over the tree, four candidates", NEEMode::risTree, 4},
        {"RIS over the cell lists, four candidates", NEEMode::risCell, 4},
        {"RIS over the cell lists, twelve candidates", NEEMode::risCell, 12},
    };
    uint32_t seed = 2;
    for (const ModeCase& c : cases) {
        const Render r = render(sm, interiorSettings(c.mode, c.candidates, seed++), blackSky(), cam, 32);
        if (c.mode == NEEMode::cell || c.mode == NEEMode::risCell) {
            EXPECT_TRUE(r.r->lightGridInstalled()) << c.name << ": the cell modes must run with the grid";
        }
        expectSameMean(imageMean(*r.r), reference, c.name);
    }
}

// ---- Counters -------------------------------------------------------------------

std::vector<uint64_t> counters(const Renderer& r) {
    std::vector<uint64_t> c(STAT_COUNT);
    for (uint32_t i = 0; i < STAT_COUNT; ++i) c[i] = r.statCounter(i);
    return c;
}

// A 10 x 8 render by day with the next-event counters on, and its counters.
struct CountedRender {
    Render rd;
    std::vector<uint64_t> c;
    uint64_t paths = 0;
};
CountedRender countedDayRender(const SceneMaker& sm, const CameraDef& cam, uint32_t maxDepth, int64_t spp) {
    RenderSettings s = smallSettings(10, 8, maxDepth);
    s.debugNeeStats = true;
    CountedRender out;
    out.rd = render(sm, s, EnvironmentPreset::preset(TimeOfDay::day), cam, spp);
    out.c = counters(*out.rd.r);
    out.paths = uint64_t(10 * 8 * spp);
    return out;
}

// A floor under the daylight sun and sky with a pendant beside the view,
// seen from above so that every camera ray meets the floor.
SceneMaker sunlitFloor() {
    SceneMaker sm;
    sm.rectangle(0, -2, 2, -2, 2, sm.material({0.7f, 0.7f, 0.7f}, 0.8f));
    LightDef d = lampDef("pendant", {1.6f, 0.6f, 0.0f}, 1500);
    d.radius = 0.2f;
    sm.scene.lights.push_back(d);
    return sm;
}

TEST(NeeCounters, OneBounceUnderAnOpenSkyCountsEveryVertexAndEveryRayArrives) {
    SceneMaker sm = sunlitFloor();
    sm.finish();
    const CameraDef cam = camera({0, 2.2f, 0.3f}, {0, 0, 0}, 40);
    const CountedRender cr = countedDayRender(sm, cam, 1, 5);
    ASSERT_TRUE(cr.rd.r->sunOn());
    const std::vector<uint64_t>& c = cr.c;
    const uint64_t paths = cr.paths;
    // One scattering vertex per path, the first, with lamp NEE at each.
    EXPECT_EQ(c[STAT_SCATTER_VERTICES], paths);
    for (uint32_t i = STAT_LAMP_NEE_TRIED; i <= STAT_LAMP_UNOCCLUDED; ++i)
        EXPECT_EQ(c[i + STAT_FIRST_VERTEX_OFFSET], c[i]) << "counter " << i;
    EXPECT_EQ(c[STAT_LAMP_NEE_TRIED], paths);
    EXPECT_GT(c[STAT_LAMP_CHOSEN], 0u);
    EXPECT_LE(c[STAT_LAMP_CHOSEN], c[STAT_LAMP_NEE_TRIED]);
    EXPECT_LE(c[STAT_LAMP_BSDF_NONZERO], c[STAT_LAMP_CHOSEN]);
    // Nothing stands between the floor and the lamp, the sun or the sky.
    EXPECT_EQ(c[STAT_LAMP_UNOCCLUDED], c[STAT_LAMP_BSDF_NONZERO]);
    EXPECT_GT(c[STAT_SUN_RAYS], 0u);
    EXPECT_LE(c[STAT_SUN_RAYS], paths);
    EXPECT_EQ(c[STAT_SUN_UNOCCLUDED], c[STAT_SUN_RAYS]);
    EXPECT_GT(c[STAT_SKY_RAYS], 0u);
    EXPECT_LE(c[STAT_SKY_RAYS], paths);
    EXPECT_EQ(c[STAT_SKY_UNOCCLUDED], c[STAT_SKY_RAYS]);
    EXPECT_EQ(c[STAT_EMISSIVE_RAYS], 0u) << "the scene has no emissive surface";
}

TEST(NeeCounters, DeeperPathsUnderAShadingSlabStayWithinTheirTotals) {
    SceneMaker sm = sunlitFloor();
    // A slab over half the floor, an emissive panel under it and a low wall
    // that hides the panel from part of the floor.
    sm.rectangle(1.2f, -2, 0, -2, 2, sm.material({0.5f, 0.5f, 0.5f}, 0.9f));
    sm.rectangle(1.1f, -1.5f, -0.5f, -0.5f, 0.5f, sm.material({0.5f, 0.5f, 0.5f}, 0.6f, 0, {0.4f, 0.35f, 0.3f}), true);
    wall(sm, -0.2f, -2, -0.2f, 2, 0.6f, sm.material({0.5f, 0.5f, 0.5f}, 0.9f));
    sm.finish();
    const CameraDef cam = camera({0.5f, 2.2f, 0.3f}, {0.3f, 0, 0}, 50);
    const CountedRender cr = countedDayRender(sm, cam, 4, 4);
    const std::vector<uint64_t>& c = cr.c;
    const uint64_t paths = cr.paths;
    EXPECT_EQ(c[STAT_LAMP_NEE_TRIED + STAT_FIRST_VERTEX_OFFSET], paths) << "every camera ray meets a surface";
    EXPECT_GT(c[STAT_SCATTER_VERTICES], paths) << "paths go on past their first vertex";
    EXPECT_LE(c[STAT_SCATTER_VERTICES], paths * 4u);
    EXPECT_EQ(c[STAT_LAMP_NEE_TRIED], c[STAT_SCATTER_VERTICES]);
    for (uint32_t i = STAT_LAMP_NEE_TRIED; i < STAT_LAMP_UNOCCLUDED; ++i) {
        EXPECT_LE(c[i + 1], c[i]) << "counter " << i + 1;
        EXPECT_LE(c[i + STAT_FIRST_VERTEX_OFFSET], c[i]) << "counter " << i + STAT_FIRST_VERTEX_OFFSET;
    }
    // The slab shades part of the floor from the sun and sky, the low wall
    // part of it from the panel.
    for (uint32_t traced : {STAT_EMISSIVE_RAYS, STAT_SUN_RAYS, STAT_SKY_RAYS}) {
        EXPECT_GT(c[traced + 1], 0u) << "counter " << traced + 1;
        EXPECT_LT(c[traced + 1], c[traced]) << "counter " << traced + 1;
        EXPECT_LE(c[traced], c[STAT_SCATTER_VERTICES]) << "counter " << traced;
    }
}

TEST(NeeCounters, CountOnlyWhenAskedAndRestartWithTheAccumulation) {
    SceneMaker sm = sunlitFloor();
    sm.finish();
    const CameraDef cam = camera({0, 2.2f, 0.3f}, {0, 0, 0}, 40);
    RenderSettings s = smallSettings(8, 8, 3);
    Render rd = render(sm, s, EnvironmentPreset::preset(TimeOfDay::day), cam, 2);
    for (uint32_t i = STAT_LAMP_NEE_TRIED; i < STAT_COUNT; ++i) EXPECT_EQ(rd.r->statCounter(i), 0u) << i;
    s.debugNeeStats = true;
    rd.r->setSettings(s);
    rd.r->resetAccumulation();
    rd.r->encodeSamples(1);
    const uint64_t one = rd.r->statCounter(STAT_SCATTER_VERTICES);
    EXPECT_GE(one, 64u);
    rd.r->encodeSamples(2);
    EXPECT_GT(rd.r->statCounter(STAT_SCATTER_VERTICES), one) << "totals add up over dispatches";
    rd.r->resetAccumulation();
    EXPECT_EQ(rd.r->statCounter(STAT_SCATTER_VERTICES), 0u);
}

} // namespace
} // namespace qv
