// The light-visibility grid: cell lookup at the grid's edges, the packing of
// the cell lists, the grid's box and size, the bake on a small house of two
// rooms with a solid wall between them, and the unbiasedness of the lamp
// choice with the baked lists (every lamp keeps exactly one strategy).
#include "pathtracer/GeometryBuild.h"
#include "pathtracer/LightGrid.h"
#include "pathtracer/Renderer.h"
#include "pathtracer/SceneTracer.h"
#include "shaders/ChiSquareHarness.h"
#include "shaders/LightGrid.h"
#include "shaders/LightSampling.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

namespace qv {
namespace {

// ---- Cell lookup ------------------------------------------------------------

struct LookupGrid {
    std::vector<uint4> ranges;
    SceneData s;
};

// A 4 x 3 x 2 grid of 0.5 m cells from (1, 0, -2); cell 5 found no free space.
LookupGrid lookupGrid(uint32_t mode = NEE_CELL) {
    LookupGrid g;
    g.ranges.assign(24, uint4{0, 0, 0, 0});
    g.ranges[5] = uint4{0, 0, 0, CELL_UNKNOWN};
    g.s.grid.origin = float4{1.0f, 0.0f, -2.0f, 0.5f};
    g.s.grid.dims = uint4{4, 3, 2, 24};
    g.s.grid.params = float4{0.1f, 0.2f, 0.03f, 0.1f};
    g.s.grid.mode = uint4{mode, 8, 1, 0};
    g.s.cellRange = g.ranges.data();
    return g;
}

TEST(LightCellLookup, CellsAtTheEdgesAndOutside) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float below = std::nextafter(0.0f, -1.0f);
    struct Case {
        const char* what;
        float3 p;
        int cell;
    } cases[] = {
        {"the minimum corner", {1.0f, 0.0f, -2.0f}, 0},
        {"just below the minimum in x", {std::nextafter(1.0f, 0.0f), 0.1f, -1.9f}, -1},
        {"just below the minimum in y", {1.1f, below, -1.9f}, -1},
        {"just below the minimum in z", {1.1f, 0.1f, std::nextafter(-2.0f, -3.0f)}, -1},
        {"a cell boundary belongs to the upper cell", {1.5f, 0.5f, -1.5f}, 1 + 4 * (1 + 3 * 1)},
        {"inside the last cell", {2.99f, 1.49f, -1.01f}, 3 + 4 * (2 + 3 * 1)},
        {"the maximum corner", {3.0f, 1.5f, -1.0f}, -1},
        {"beyond the grid in x only", {3.2f, 0.1f, -1.9f}, -1},
        {"not a number", {nan, 0.1f, -1.9f}, -1},
        {"a cell without free space", {1.6f, 0.6f, -1.9f}, -1}, // cell 1 + 4 * 1 = 5
        {"the cell next to it", {1.1f, 0.6f, -1.9f}, 4},
    };
    LookupGrid g = lookupGrid();
    for (const Case& c : cases) EXPECT_EQ(lightCellAt(g.s, c.p), c.cell) << c.what;
}

TEST(LightCellLookup, TreeModesAndAMissingGridUseTheTree) {
    const float3 p{1.6f, 0.1f, -1.9f};
    for (uint32_t mode : {NEE_TREE, NEE_RIS_TREE}) EXPECT_EQ(lightCellAt(lookupGrid(mode).s, p), -1) << mode;
    EXPECT_EQ(lightCellAt(lookupGrid(NEE_RIS_CELL).s, p), 1);
    LookupGrid g = lookupGrid();
    g.s.grid.mode.z = 0;
    EXPECT_EQ(lightCellAt(g.s, p), -1);
}

TEST(LightCellLookup, ShadingPointMovesOffItsSurfaceAlongTheNormal) {
    LookupGrid g = lookupGrid();
    // A wall on the boundary x = 2 between cells 1 and 2: each face takes the
    // list of the side it faces.
    const float3 x{2.0f, 0.2f, -1.8f};
    EXPECT_EQ(lightCellOf(g.s, x, float3{-1, 0, 0}), 1);
    EXPECT_EQ(lightCellOf(g.s, x, float3{1, 0, 0}), 2);
    // A floor on the grid's bottom face looks up into the grid.
    EXPECT_EQ(lightCellOf(g.s, float3{1.2f, 0.0f, -1.8f}, float3{0, 1, 0}), 0);
    EXPECT_EQ(lightCellOf(g.s, float3{1.2f, 0.0f, -1.8f}, float3{0, -1, 0}), -1);
}

TEST(LightCellLookup, CellOutsideTheGridOrUnknownKeepsEveryEmissiveRay) {
    LookupGrid g = lookupGrid();
    g.ranges[3].z = 0;
    g.ranges[4].z = 17;
    for (const auto& [cell, prob] : {std::pair{-1, 1.0f}, std::pair{4, 1.0f}, std::pair{3, 0.1f}})
        EXPECT_EQ(emissiveNeeProb(g.s, cell), prob) << cell;
}

// ---- Packing the lists ------------------------------------------------------

TEST(LightGridPacking, VisibilityByteRoundsAndKeepsAnyReachedEmitter) {
    struct Case {
        uint32_t count, valid, q;
    } cases[] = {{0, 32, 0}, {1, 255, 1}, {1, 1000, 1}, {16, 32, 128}, {32, 32, 255},
                 {3, 32, 24}, {254, 255, 254}, {5, 0, 0}};
    for (const Case& c : cases) EXPECT_EQ(visibilityByte(c.count, c.valid), c.q) << c.count << " / " << c.valid;
}

TEST(LightGridPacking, CellsListTheirLampsInOrderWithVisibility) {
    // Three lamps and the emissive slot.
    LightGridCompaction packed(4);
    const std::vector<uint32_t> vis1 = {
        0, 0, 0, 0,      // solid
        16, 0, 32, 3,    // two lamps and an emissive surface from 32 points
        0, 0, 0, 0,      // free but nothing seen
    };
    const std::vector<uint32_t> valid1 = {0, 32, 32};
    packed.append(vis1.data(), valid1.data(), 3);
    const std::vector<uint32_t> vis2 = {1, 1, 255, 0};
    const std::vector<uint32_t> valid2 = {255};
    packed.append(vis2.data(), valid2.data(), 1);

    const std::vector<uint4> ranges = {{0, 0, 0, CELL_UNKNOWN}, {0, 2, 24, 0}, {2, 0, 0, 0}, {2, 3, 0, 0}};
    EXPECT_EQ(packed.cellRange, ranges);
    const std::vector<uint32_t> entries = {0u | 128u << 16, 2u | 255u << 16, 0u | 1u << 16, 1u | 1u << 16,
                                           2u | 255u << 16};
    EXPECT_EQ(packed.cellEntry, entries);
    EXPECT_EQ(std::make_tuple(packed.solidCells, packed.emissiveCells, packed.maxEntries), std::make_tuple(1, 1, 3u));
    // Entries hold 16 bits of light index and 8 of visibility.
    EXPECT_EQ(entries[4] & CELL_ENTRY_LIGHT_MASK, 2u);
    EXPECT_EQ((entries[4] >> CELL_ENTRY_VIS_SHIFT) & 0xFFu, 255u);
}

TEST(LightGridPacking, LampsBeyondSixteenBitsAreLeftToTheTree) {
    LightGridCompaction packed(kLightGridMaxLights + 1);
    std::vector<uint32_t> vis(kLightGridMaxLights + 1, 0u);
    vis[kLightGridMaxLights - 1] = 3;
    const uint32_t valid = 3;
    packed.append(vis.data(), &valid, 1);
    ASSERT_EQ(packed.cellEntry.size(), 1u);
    EXPECT_EQ(packed.cellEntry[0] & CELL_ENTRY_LIGHT_MASK, 65535u);
}

TEST(LightGridPacking, SliceSizeFollowsTheWorkPerCell) {
    EXPECT_EQ(lightBakeSliceCells(32, 39), 40'000'000u / (32u * 39u));
    EXPECT_EQ(lightBakeSliceCells(255, 2450), 40'000'000u / (255u * 2450u));
    EXPECT_EQ(lightBakeSliceCells(255, 2452), 64u) << "above 625,000 slots per cell";
}

// ---- The grid's box and size ------------------------------------------------

TEST(LightGridLayoutTest, DimensionsCoverTheBoxAndGrowTheCellPastTwoMillion) {
    LightGridDims d = dimsFor(0.25f, float3{0, -0.1f, 0}, float3{10, 3, 8.1f});
    EXPECT_EQ(std::make_tuple(d.nx, d.ny, d.nz), std::make_tuple(40, 13, 33));

    LightGridBox big{float3{-50, -0.1f, -50}, float3{50, 10, 50}};
    LightGridLayout l = layoutLightGrid(big, 0.1f);
    EXPECT_LE(l.dims.cells(), kLightGridMaxCells);
    EXPECT_GT(dimsFor(l.cell / kLightGridCellGrowth, big.lo, big.hi).cells(), kLightGridMaxCells);
    EXPECT_GE(l.dims.nx * double(l.cell), 100.0);
    EXPECT_FLOAT_EQ(layoutLightGrid(LightGridBox{{0, 0, 0}, {1, 1, 1}}, 0.25f).cell, 0.25f);
}

// ---- A house of two rooms -----------------------------------------------------

struct HouseMaker {
    LoadedModel model;

    uint32_t material(const std::string& name, float3 emissive = {}) {
        ModelMaterial m;
        m.name = name;
        m.metallic = 0;
        m.emissive = emissive;
        model.materials.push_back(m);
        return uint32_t(model.materials.size() - 1);
    }
    void triangle(float3 a, float3 b, float3 c, uint32_t mat) {
        uint32_t n = uint32_t(model.positions.size());
        model.positions.insert(model.positions.end(), {a, b, c});
        float3 nrm = normalize(cross(b - a, c - a));
        model.normals.insert(model.normals.end(), {nrm, nrm, nrm});
        model.uvs.insert(model.uvs.end(), {float2{0, 0}, float2{1, 0}, float2{0, 1}});
        model.indices.insert(model.indices.end(), {n, n + 1, n + 2});
        model.triMaterial.push_back(mat);
        model.triRole.push_back(0);
    }
    // An axis-aligned box; `inward` faces its inside (a room), else its outside (a solid).
    void box(float3 lo, float3 hi, uint32_t mat, bool inward) {
        float3 c[8];
        for (int i = 0; i < 8; ++i) c[i] = float3{(i & 1) ? hi.x : lo.x, (i & 2) ? hi.y : lo.y, (i & 4) ? hi.z : lo.z};
        // Faces with outward winding (counter-clockwise seen from outside).
        const int faces[6][4] = {{0, 4, 6, 2}, {1, 3, 7, 5}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 2, 3, 1}, {4, 5, 7, 6}};
        for (const auto& f : faces) {
            if (inward) {
                triangle(c[f[0]], c[f[2]], c[f[1]], mat);
                triangle(c[f[0]], c[f[3]], c[f[2]], mat);
            } else {
                triangle(c[f[0]], c[f[1]], c[f[2]], mat);
                triangle(c[f[0]], c[f[2]], c[f[3]], mat);
            }
        }
    }
    void finish() {
        model.boundsMin = model.coreBoundsMin = model.positions[0];
        model.boundsMax = model.coreBoundsMax = model.positions[0];
        for (float3 p : model.positions) {
            model.boundsMin = model.coreBoundsMin = min(model.coreBoundsMin, p);
            model.boundsMax = model.coreBoundsMax = max(model.coreBoundsMax, p);
        }
    }
};

LightDef pendantAt(float3 p) {
    LightDef d;
    d.kind = "pendant";
    d.position = {p.x, p.y, p.z};
    d.lumens = 800;
    return d;
}

// Two rooms, x in [0, 3.5] and [4.5, 8], 3 m high, 4 m deep, split by a solid
// block 1 m thick (the gaps around it are too thin for any test point to see
// through); a pendant in each room and a small glowing panel on the
// left room's ceiling.
struct TwoRooms {
    LoadedModel model;
    SceneDescription scene;
    RenderSettings settings;
};

TwoRooms twoRooms() {
    HouseMaker h;
    const uint32_t wall = h.material("wall");
    const uint32_t glow = h.material("panel", float3{1, 1, 1});
    h.box({0, 0, 0}, {8, 3, 4}, wall, true);
    // The block stops a centimetre short of the floor, ceiling and outer
    // walls: a face it shared with them could be found first from inside.
    h.box({3.5f, 0.01f, 0.01f}, {4.5f, 2.99f, 3.99f}, wall, false);
    // The panel faces down, 2 cm below the ceiling.
    h.triangle({1.0f, 2.98f, 1.0f}, {1.4f, 2.98f, 1.0f}, {1.0f, 2.98f, 1.4f}, glow);
    h.finish();
    TwoRooms r;
    r.model = std::move(h.model);
    r.scene.lights = {pendantAt({1.8f, 2.0f, 2.0f}), pendantAt({6.2f, 2.0f, 2.0f})};
    r.settings.lightGridCell = 0.5f;
    r.settings.lightGridRays = 32;
    return r;
}

GeometryBuild geometryOf(const TwoRooms& r) {
    return buildGeometry(r.model, r.scene, r.settings, TextureSet::placeholder(), [](std::string_view) {});
}

// The index of the lamp whose centre is nearest p.
uint32_t lampNear(const GeometryBuild& g, float3 p) {
    uint32_t best = 0;
    for (uint32_t i = 1; i < g.lightCount; ++i)
        if (length(xyz(g.lights[i].posType) - p) < length(xyz(g.lights[best].posType) - p)) best = i;
    return best;
}

SceneData sceneWith(const GeometryBuild& g, const LightGrid& grid) {
    SceneData s = geometrySceneData(g);
    s.grid = grid.params;
    s.cellRange = grid.cellRange.data();
    s.cellEntry = grid.cellEntry.data();
    return s;
}

std::vector<uint32_t> listedLamps(const SceneData& s, int cell) {
    std::vector<uint32_t> out;
    const uint4 r = s.cellRange[cell];
    for (uint32_t k = 0; k < r.y; ++k) out.push_back(s.cellEntry[r.x + k] & CELL_ENTRY_LIGHT_MASK);
    return out;
}

// Baked once for the tests below and kept for the life of the program.
struct BakedRooms {
    TwoRooms rooms = twoRooms();
    GeometryBuild geometry = geometryOf(rooms);
    LightGrid grid = *bakeLightGrid(geometry, rooms.model.coreBoundsMin, rooms.model.coreBoundsMax, rooms.settings);
};

class TwoRoomGrid : public ::testing::Test {
protected:
    static const BakedRooms& baked() {
        static const BakedRooms* b = new BakedRooms;
        return *b;
    }
    const TwoRooms* rooms_ = &baked().rooms;
    const GeometryBuild* geometry_ = &baked().geometry;
    const LightGrid* grid_ = &baked().grid;
    const SceneData s = sceneWith(*geometry_, *grid_);
};

TEST_F(TwoRoomGrid, BoxCoversTheLampsAndStaysNearTheHouse) {
    std::optional<LightGridBox> box =
        lightGridBounds(*geometry_, rooms_->model.coreBoundsMin, rooms_->model.coreBoundsMax);
    ASSERT_TRUE(box);
    // Emitters x 1.0..6.2 and z 1.0..2.0 widened by 2 m, clipped to the
    // house (0..8 by 0..4) widened by 0.75 m; from the ground to 0.5 m above
    // the panel at 2.98 m.
    const std::pair<float, float> sides[] = {{box->lo.x, -0.75f}, {box->hi.x, 8.2f},  {box->lo.y, -0.1f},
                                             {box->hi.y, 3.48f},  {box->lo.z, -0.75f}, {box->hi.z, 4.0f}};
    for (const auto& [got, want] : sides) EXPECT_FLOAT_EQ(got, want);
    const GPULightGridParams& p = grid_->params;
    EXPECT_EQ(p.origin, (float4{-0.75f, -0.1f, -0.75f, 0.5f}));
    EXPECT_EQ(p.dims, (uint4{18, 8, 10, 18 * 8 * 10}));
    EXPECT_EQ(p.params, (float4{0.1f, 0.2f, 0.03f, 0.1f}));
    EXPECT_EQ(p.mode, (uint4{NEE_CELL, 8, 1, 0}));
    EXPECT_EQ(grid_->cellRange.size(), size_t(p.dims.w));
}

TEST_F(TwoRoomGrid, EachRoomListsOnlyItsOwnLamp) {
    const uint32_t left = lampNear(*geometry_, {1.8f, 2, 2}), right = lampNear(*geometry_, {6.2f, 2, 2});
    ASSERT_NE(left, right);
    const float3 leftPoints[] = {{0.5f, 0.4f, 0.5f}, {2.5f, 1.2f, 3.2f}, {3.2f, 2.6f, 1.0f}};
    const float3 rightPoints[] = {{5.0f, 0.4f, 0.5f}, {6.5f, 1.2f, 3.2f}, {7.7f, 2.6f, 1.0f}};
    // The left room sees its ceiling panel; from the right it is behind the wall.
    for (bool isLeft : {true, false})
        for (float3 p : isLeft ? leftPoints : rightPoints) {
            SCOPED_TRACE(::testing::Message() << p.x << ", " << p.y << ", " << p.z);
            int cell = lightCellAt(s, p);
            ASSERT_GE(cell, 0);
            EXPECT_EQ(listedLamps(s, cell), std::vector<uint32_t>{isLeft ? left : right});
            EXPECT_EQ(s.cellRange[cell].z > 0u, isLeft);
            EXPECT_FLOAT_EQ(emissiveNeeProb(s, cell), isLeft ? 1.0f : 0.1f);
        }
    // A cell in the open middle of a room sees its lamp from every point.
    const uint32_t entry = s.cellEntry[s.cellRange[lightCellAt(s, {1.0f, 1.2f, 2.2f})].x];
    EXPECT_EQ(entry >> CELL_ENTRY_VIS_SHIFT, 255u);
}

TEST_F(TwoRoomGrid, CellInsideTheWallIsUnknownAndUsesTheTree) {
    // Cell x in [3.75, 4.25] lies wholly inside the block [3.5, 4.5].
    const float3 p{4.0f, 1.2f, 2.2f};
    const GPULightGridParams& g = grid_->params;
    const uint32_t cx = uint32_t((p.x - g.origin.x) / g.origin.w), cy = uint32_t((p.y - g.origin.y) / g.origin.w),
                   cz = uint32_t((p.z - g.origin.z) / g.origin.w);
    const uint32_t index = cx + g.dims.x * (cy + g.dims.y * cz);
    EXPECT_EQ(grid_->cellRange[index], (uint4{0, 0, 0, CELL_UNKNOWN}));
    EXPECT_EQ(lightCellAt(s, p), -1);
    EXPECT_GT(grid_->solidCells, 0);
    for (uint32_t li = 0; li < geometry_->lightCount; ++li)
        EXPECT_EQ(lightChoicePmf(s, li, p, {0, 1, 0}, lightCellAt(s, p)), lightSelectPmf(s, li, p, {0, 1, 0}));
}

TEST_F(TwoRoomGrid, BakeInBundlesCountsExactlyLikeOnePointPerInvocation) {
    SceneTracer tracer(geometry_->opAS.get(), geometry_->auxAS.get(), geometry_->glassAS.get());
    const uint32_t slots = geometry_->lightCount + 1;
    // Cells in both rooms, in the wall and at the floor; R with and without a remainder after the strata.
    for (uint32_t R : {5u, 30u}) {
        const uint32_t first = 300, count = 700;
        GPULightBakeParams bp{uint4{first, count, R, slots}, uint4{geometry_->lightCount, geometry_->emissiveCount, 7, 0}};
        std::vector<uint32_t> visA(size_t(count) * slots), validA(count), visB(visA.size()), validB(count);
        for (uint32_t c = 0; c < count; ++c) {
            for (uint32_t k = 0; k < R + 2; ++k) lightGridBake(s, tracer, bp, k, c, visA.data(), validA.data());
            lightGridBakeCell(s, tracer, bp, c, visB.data(), validB.data());
        }
        EXPECT_EQ(validA, validB) << "R = " << R;
        EXPECT_EQ(visA, visB) << "R = " << R;
        uint64_t seen = 0;
        for (uint32_t v : visA) seen += v;
        EXPECT_GT(seen, 0u);
    }
}

// Every lamp keeps exactly one strategy at a point of a baked cell: the
// probabilities of all lamps plus that of choosing none sum to one, the
// lost mass is the defensive branch's picks of listed lamps, and the
// frequencies of chooseLight follow lightChoicePmf.
TEST_F(TwoRoomGrid, LampChoiceWithTheBakedListsIsUnbiased) {
    const float eps = s.grid.params.x;
    struct Receiver {
        float3 x, n;
    } receivers[] = {{{1.0f, 0.0f, 2.2f}, {0, 1, 0}}, {{3.5f, 1.4f, 1.3f}, {-1, 0, 0}}, {{6.2f, 1.0f, 3.9f}, {0, 0, -1}}};
    for (const Receiver& r : receivers) {
        SCOPED_TRACE(::testing::Message() << "receiver at " << r.x.x << ", " << r.x.y << ", " << r.x.z);
        const int cell = lightCellOf(s, r.x, r.n);
        ASSERT_GE(cell, 0);
        const uint32_t count = geometry_->lightCount;
        std::vector<double> prob(count + 1, 0.0);
        double total = 0, listedTree = 0;
        for (uint32_t i = 0; i < count; ++i) {
            total += prob[i] = lightChoicePmf(s, i, r.x, r.n, cell);
            const double tree = lightSelectPmf(s, i, r.x, r.n);
            if (cellLists(s, cell, i)) listedTree += tree;
            if (tree > 0) {
                EXPECT_GT(prob[i], 0.0) << "lamp " << i << " must stay reachable";
            }
        }
        prob[count] = eps * listedTree;
        EXPECT_NEAR(total + prob[count], 1.0, 1e-6);

        const int64_t n = 100000;
        std::vector<int64_t> observed(count + 1, 0);
        uint32_t seed = 77;
        for (int64_t k = 0; k < n; ++k) {
            LightChoice c = chooseLight(s, r.x, r.n, cell, seed);
            if (c.index < 0 || !(c.pmf > 0)) {
                ++observed[count];
                continue;
            }
            ++observed[size_t(c.index)];
            EXPECT_NEAR(c.pmf, lightChoicePmf(s, uint32_t(c.index), r.x, r.n, cell), 1e-6f);
        }
        double chi2 = 0;
        int dof = -1;
        for (size_t i = 0; i <= count; ++i) {
            const double expected = prob[i] * double(n);
            if (expected == 0) {
                EXPECT_EQ(observed[i], 0);
                continue;
            }
            chi2 += (double(observed[i]) - expected) * (double(observed[i]) - expected) / expected;
            ++dof;
        }
        if (dof > 0) {
            EXPECT_GT(test::gammaQ(0.5 * dof, 0.5 * chi2), 0.01 / 3) << "dof " << dof;
        }
    }
}

TEST(LightGridSummaryLine, ReportsTheGridInItsFixedFormat) {
    LightGrid g;
    g.params.origin = float4{0, 0, 0, 0.25f};
    g.params.dims = uint4{62, 26, 55, 62 * 26 * 55};
    g.cellEntry.assign(348299, 0u);
    g.solidCells = 8866;
    g.emissiveCells = 44330;
    g.maxEntries = 16;
    g.lightCount = 38;
    g.points = 32;
    g.seconds = 1.234;
    EXPECT_EQ(lightGridSummary(g, ""),
              "light grid: 62 x 26 x 55 cells of 0.25 m, 32 points each, 4.4 lights per cell on average (max 16 of "
              "38), 10% of cells solid, emissive seen from 50%, baked in 1.23 s");
    const std::string withSuffix = lightGridSummary(g, ", in the background");
    EXPECT_EQ(withSuffix.substr(withSuffix.size() - 34), "baked in 1.23 s, in the background");
}

// ---- In the renderer --------------------------------------------------------

std::vector<std::string> gridLines(const std::vector<std::string>& lines) {
    std::vector<std::string> out;
    for (const std::string& l : lines)
        if (l.starts_with("light grid: ")) out.push_back(l);
    return out;
}

TEST(LightGridInRenderer, ForegroundAndBackgroundBakesAgreeAndLogOneLine) {
    TwoRooms rooms = twoRooms();
    std::vector<std::string> fgLines, bgLines;
    Renderer fg(rooms.settings, [&](std::string_view l) { fgLines.emplace_back(l); });
    fg.setAsyncLightGrid(false);
    fg.load(rooms.model, rooms.scene);
    EXPECT_FALSE(fg.lightGridInBackground());
    ASSERT_TRUE(fg.lightGridInstalled());
    EXPECT_TRUE(fg.installPendingLightGrid());
    EXPECT_GT(fg.lightGridSeconds(), 0.0);

    Renderer bg(rooms.settings, [&](std::string_view l) { bgLines.emplace_back(l); });
    bg.setAsyncLightGrid(true);
    bg.load(rooms.model, rooms.scene);
    EXPECT_TRUE(bg.lightGridInBackground());
    ASSERT_TRUE(bg.waitForLightGrid(60.0));
    EXPECT_TRUE(bg.lightGridInstalled());
    EXPECT_EQ(bg.cellRange(), fg.cellRange());
    EXPECT_EQ(bg.cellEntry(), fg.cellEntry());
    EXPECT_EQ(bg.lightGrid().dims, fg.lightGrid().dims);

    ASSERT_EQ(gridLines(fgLines).size(), 1u);
    ASSERT_EQ(gridLines(bgLines).size(), 1u);
    const std::string fgLine = gridLines(fgLines)[0], bgLine = gridLines(bgLines)[0];
    EXPECT_EQ(fgLine.rfind("light grid: 18 x 8 x 10 cells of 0.50 m, 32 points each, ", 0), 0u) << fgLine;
    EXPECT_NE(bgLine.find(" s, in the background"), std::string::npos) << bgLine;
}

TEST(LightGridInRenderer, ReloadDuringABackgroundBakeInstallsOnlyTheNewGrid) {
    TwoRooms rooms = twoRooms();
    Renderer r(rooms.settings, nullptr);
    r.setAsyncLightGrid(true);
    r.load(rooms.model, rooms.scene);
    // Reload with one lamp: the first bake is dropped, the second installed.
    rooms.scene.lights.pop_back();
    r.load(rooms.model, rooms.scene);
    ASSERT_TRUE(r.waitForLightGrid(60.0));
    for (const uint32_t e : r.cellEntry()) EXPECT_EQ(e & CELL_ENTRY_LIGHT_MASK, 0u);
}

TEST(LightGridInRenderer, TreeModeBuildsNoGrid) {
    TwoRooms rooms = twoRooms();
    rooms.settings.neeMode = NEEMode::tree;
    std::vector<std::string> lines;
    Renderer r(rooms.settings, [&](std::string_view l) { lines.emplace_back(l); });
    r.setAsyncLightGrid(true);
    r.load(rooms.model, rooms.scene);
    EXPECT_FALSE(r.lightGridInBackground());
    EXPECT_FALSE(r.lightGridInstalled());
    EXPECT_FALSE(r.waitForLightGrid(0.0));
    EXPECT_EQ(r.lightGrid().mode.z, 0u);
    EXPECT_TRUE(gridLines(lines).empty());
    GeometryBuild g = geometryOf(rooms);
    EXPECT_FALSE(bakeLightGrid(g, rooms.model.coreBoundsMin, rooms.model.coreBoundsMax, rooms.settings));
    RenderSettings noRays = twoRooms().settings;
    noRays.lightGridRays = 0;
    EXPECT_FALSE(bakeLightGrid(g, rooms.model.coreBoundsMin, rooms.model.coreBoundsMax, noRays));
}

} // namespace
} // namespace qv
