#pragma once
// The light-visibility grid's host side: lays a box of cells over the house,
// bakes which lamps each cell sees (shaders/LightGrid.h) on all cores, packs
// the per-cell lists that next-event estimation chooses lamps from, and can
// do all of that on a thread of its own while rendering goes on.
#include "pathtracer/GeometryBuild.h"
#include "pathtracer/RenderSettings.h"
#include "pathtracer/SceneTracer.h"
#include "shaders/LightGrid.h"
#include "shaders/Records.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace qv {

inline constexpr int64_t kLightGridMaxCells = 2'000'000;
inline constexpr float kLightGridCellGrowth = 1.25f;
inline constexpr uint32_t kLightGridMaxPoints = 255;
// Cell entries hold a 16-bit light index: lamps beyond are never listed and
// stay reachable through the defensive tree branch.
inline constexpr uint32_t kLightGridMaxLights = 65536;
// Work of one bake slice: cells x points x slots stays near this.
inline constexpr uint64_t kLightBakeSliceWork = 40'000'000;

struct LightGridDims {
    int64_t nx = 0, ny = 0, nz = 0;
    int64_t cells() const { return nx * ny * nz; }
};

// Cells per axis covering [lo, hi] with cubes of side `cell` (m).
LightGridDims dimsFor(float cell, float3 lo, float3 hi);

struct LightGridBox {
    float3 lo, hi; // m
};

// The box the grid covers: the lamp centres and emissive triangle vertices,
// widened by 2 m across, reaching down to the ground and 0.5 m up, clipped to
// the model's core box widened by 0.75 m. Nothing when that box is empty.
std::optional<LightGridBox> lightGridBounds(const GeometryBuild& g, float3 coreMin, float3 coreMax);

struct LightGridLayout {
    float3 lo;         // grid minimum corner (m)
    float cell = 0;    // cell size (m), grown until the grid has at most kLightGridMaxCells
    LightGridDims dims;
};
LightGridLayout layoutLightGrid(const LightGridBox& box, float cell);

// Cells per bake slice for R points and `slots` counters per cell.
uint32_t lightBakeSliceCells(uint32_t points, uint32_t slots);

// `count` of `valid` rays reached the emitter: the fraction as round(255 f),
// at least 1 so that an emitter any ray reached stays listed.
uint32_t visibilityByte(uint32_t count, uint32_t valid);

// The packed cell lists, appended one bake slice at a time in cell order.
struct LightGridCompaction {
    explicit LightGridCompaction(uint32_t slotCount) : slots(slotCount) {}
    // vis: count x slots counters (lamps, then the emissive slot); valid: count counters.
    void append(const uint32_t* vis, const uint32_t* valid, uint32_t count);

    uint32_t slots;
    std::vector<uint4> cellRange;   // per cell: first entry, entry count, emissive visibility, CELL_UNKNOWN or 0
    std::vector<uint32_t> cellEntry; // light index | visibility << 16
    int64_t solidCells = 0;         // no sample point in free space
    uint32_t maxEntries = 0;        // longest list
    int64_t emissiveCells = 0;      // cells that saw an emissive surface
};

// A finished grid: the parameters every dispatch reads and the cell lists.
struct LightGrid {
    GPULightGridParams params{}; // mode.z = 1
    std::vector<uint4> cellRange;
    std::vector<uint32_t> cellEntry;
    double seconds = 0;          // bake and packing, wall clock
    int64_t solidCells = 0;
    int64_t emissiveCells = 0;
    uint32_t maxEntries = 0;
    uint32_t lightCount = 0;     // lamps in the scene
    uint32_t points = 0;         // sample points per cell
    float requestedCell = 0;     // the cell size asked for (m), before any growth
};

// The report line of a grid; `suffix` ends it.
std::string lightGridSummary(const LightGrid& grid, std::string_view suffix);

// Whether a grid is built at all: there are lamps or emissive triangles, the
// bake has points and a cell size, and next-event estimation uses cells.
bool wantsLightGrid(const GeometryBuild& g, const RenderSettings& settings);

// Bakes and packs the grid on all cores of the current task arena. Nothing
// when no grid applies (or `cancel` was set during the bake). Throws
// RendererError "could not allocate the light grid" or "light grid bake
// failed: <text>".
std::optional<LightGrid> bakeLightGrid(const GeometryBuild& g, float3 coreMin, float3 coreMax,
                                       const RenderSettings& settings, const std::atomic<bool>* cancel = nullptr);

// Runs the bake kernel over one slice (bp.range) on all cores of the current
// task arena, one task per cell; stops early once `cancel` is set.
void runLightGridBake(const SceneData& scene, const SceneTracer& tracer, const GPULightBakeParams& bp,
                      uint32_t* vis, uint32_t* valid, const std::atomic<bool>* cancel);

// A bake on a thread of its own, sharing the geometry so that a reload
// cannot pull it away. Destroying the job cancels the bake and joins.
class LightGridJob {
public:
    LightGridJob(std::shared_ptr<const GeometryBuild> geometry, float3 coreMin, float3 coreMax,
                 const RenderSettings& settings, uint64_t token);
    ~LightGridJob();
    LightGridJob(const LightGridJob&) = delete;
    LightGridJob& operator=(const LightGridJob&) = delete;

    // The geometry build this bake belongs to.
    uint64_t token() const { return token_; }
    bool finished() const;
    // Blocks up to `seconds`; true when the bake has finished.
    bool waitFor(double seconds) const;
    // Once finished: the grid (nothing when none applies); rethrows a failed bake's error.
    std::optional<LightGrid> take();

private:
    std::shared_ptr<const GeometryBuild> geometry_;
    uint64_t token_;
    std::atomic<bool> cancel_{false};
    mutable std::mutex mutex_;
    mutable std::condition_variable done_;
    bool finished_ = false;
    std::optional<LightGrid> result_;
    std::exception_ptr error_;
    std::thread thread_;
};

} // namespace qv
