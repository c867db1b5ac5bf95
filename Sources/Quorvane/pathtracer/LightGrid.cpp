#include "pathtracer/LightGrid.h"

#include "pathtracer/RendererError.h"
#include "pathtracer/SceneTracer.h"
#include "scene/TextFormat.h"

#include <tbb/task_arena.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <new>

namespace qv {

namespace {

double secondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

int64_t cellsAlong(float lo, float hi, float cell) {
    double n = std::ceil((double(hi) - double(lo)) / double(cell));
    if (!(n > 0)) return 0;
    // Beyond any grid that could be baked; keeps the product finite.
    return int64_t(std::min(n, 1e12));
}

} // namespace

LightGridDims dimsFor(float cell, float3 lo, float3 hi) {
    return LightGridDims{cellsAlong(lo.x, hi.x, cell), cellsAlong(lo.y, hi.y, cell), cellsAlong(lo.z, hi.z, cell)};
}

std::optional<LightGridBox> lightGridBounds(const GeometryBuild& g, float3 coreMin, float3 coreMax) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    float3 lo{inf, inf, inf}, hi{-inf, -inf, -inf};
    auto widen = [&](float3 p) {
        if (!isFinite(p)) return;
        lo = min(lo, p);
        hi = max(hi, p);
    };
    for (const GPULight& L : g.lights) widen(xyz(L.posType));
    for (const GPUEmissiveTri& et : g.emTris)
        for (int k = 0; k < 3; ++k) widen(g.opPos[g.opIdx[size_t(et.tri) * 3 + size_t(k)]]);
    if (!(lo.x <= hi.x)) return std::nullopt;
    // Lamps light the rooms around them and the ground outside.
    lo.x -= 2.0f;
    lo.z -= 2.0f;
    hi.x += 2.0f;
    hi.z += 2.0f;
    lo.y = std::fmin(lo.y, -0.1f);
    hi.y += 0.5f;
    const float3 margin = splat3(0.75f);
    lo = max(lo, coreMin - margin);
    hi = min(hi, coreMax + margin);
    if (!(lo.x < hi.x && lo.y < hi.y && lo.z < hi.z)) return std::nullopt;
    return LightGridBox{lo, hi};
}

LightGridLayout layoutLightGrid(const LightGridBox& box, float cell) {
    LightGridLayout layout{box.lo, cell, dimsFor(cell, box.lo, box.hi)};
    while (double(layout.dims.nx) * double(layout.dims.ny) * double(layout.dims.nz) > double(kLightGridMaxCells)) {
        layout.cell *= kLightGridCellGrowth;
        layout.dims = dimsFor(layout.cell, box.lo, box.hi);
    }
    return layout;
}

uint32_t lightBakeSliceCells(uint32_t points, uint32_t slots) {
    uint64_t perCell = std::max<uint64_t>(uint64_t(points) * uint64_t(slots), 1);
    if (perCell > 625'000) return 64;
    return uint32_t(kLightBakeSliceWork / perCell);
}

uint32_t visibilityByte(uint32_t count, uint32_t valid) {
    if (count == 0 || valid == 0) return 0;
    double q = std::round(double(count) / double(valid) * 255.0);
    return uint32_t(std::clamp(q, 1.0, 255.0));
}

void LightGridCompaction::append(const uint32_t* vis, const uint32_t* valid, uint32_t count) {
    const uint32_t lights = slots - 1;
    for (uint32_t c = 0; c < count; ++c) {
        if (valid[c] == 0) {
            cellRange.push_back(uint4{0, 0, 0, CELL_UNKNOWN});
            ++solidCells;
            continue;
        }
        const uint32_t* row = vis + size_t(c) * slots;
        const uint32_t first = uint32_t(cellEntry.size());
        for (uint32_t li = 0; li < lights; ++li)
            if (row[li] > 0)
                cellEntry.push_back(li | (visibilityByte(row[li], valid[c]) << CELL_ENTRY_VIS_SHIFT));
        const uint32_t n = uint32_t(cellEntry.size()) - first;
        const uint32_t e = visibilityByte(row[lights], valid[c]);
        cellRange.push_back(uint4{first, n, e, 0});
        if (e > 0) ++emissiveCells;
        maxEntries = std::max(maxEntries, n);
    }
}

std::string lightGridSummary(const LightGrid& grid, std::string_view suffix) {
    const GPULightGridParams& p = grid.params;
    const int64_t cells = int64_t(p.dims.w);
    const int64_t open = cells - grid.solidCells;
    const double meanEntries = open > 0 ? double(grid.cellEntry.size()) / double(open) : 0.0;
    const double solid = cells > 0 ? 100.0 * double(grid.solidCells) / double(cells) : 0.0;
    const double emissive = cells > 0 ? 100.0 * double(grid.emissiveCells) / double(cells) : 0.0;
    return strprintf("light grid: %d x %d x %d cells of %.2f m, %d points each, %.1f lights per cell on average "
                     "(max %d of %d), %.0f%% of cells solid, emissive seen from %.0f%%, baked in %.2f s%.*s",
                     int(p.dims.x), int(p.dims.y), int(p.dims.z), double(p.origin.w), int(grid.points), meanEntries,
                     int(grid.maxEntries), int(grid.lightCount), solid, emissive, grid.seconds, int(suffix.size()),
                     suffix.data());
}

bool wantsLightGrid(const GeometryBuild& g, const RenderSettings& settings) {
    const bool cellMode = settings.neeMode == NEEMode::cell || settings.neeMode == NEEMode::risCell;
    return cellMode && (g.lightCount > 0 || g.emissiveCount > 0) && settings.lightGridRays > 0 &&
           settings.lightGridCell > 0 && std::isfinite(settings.lightGridCell);
}

std::optional<LightGrid> bakeLightGrid(const GeometryBuild& g, float3 coreMin, float3 coreMax,
                                       const RenderSettings& settings, const std::atomic<bool>* cancel) {
    if (!wantsLightGrid(g, settings)) return std::nullopt;
    const auto t0 = std::chrono::steady_clock::now();
    std::optional<LightGridBox> box = lightGridBounds(g, coreMin, coreMax);
    if (!box) return std::nullopt;
    const LightGridLayout layout = layoutLightGrid(*box, settings.lightGridCell);
    const uint32_t total = uint32_t(layout.dims.cells());
    if (total == 0) return std::nullopt;

    const uint32_t points = uint32_t(std::min<int64_t>(settings.lightGridRays, kLightGridMaxPoints));
    const uint32_t lights = std::min(g.lightCount, kLightGridMaxLights);
    const uint32_t slots = lights + 1;
    const uint32_t sliceCells = std::max(lightBakeSliceCells(points, slots), 1u);

    SceneData s = geometrySceneData(g);
    s.grid.origin = make_float4(layout.lo, layout.cell);
    s.grid.dims = uint4{uint32_t(layout.dims.nx), uint32_t(layout.dims.ny), uint32_t(layout.dims.nz), total};
    SceneTracer tracer(g.opAS.get(), g.auxAS.get(), g.glassAS.get());
    auto cancelled = [&] { return cancel && cancel->load(std::memory_order_relaxed); };

    LightGridCompaction packed(slots);
    std::vector<uint32_t> vis, valid;
    try {
        packed.cellRange.reserve(total);
        for (uint32_t first = 0; first < total; first += std::min(sliceCells, total - first)) {
            const uint32_t count = std::min(sliceCells, total - first);
            vis.assign(size_t(count) * slots, 0u);
            valid.assign(count, 0u);
            GPULightBakeParams bp{uint4{first, count, points, slots}, uint4{lights, g.emissiveCount, settings.seed, 0}};
            runLightGridBake(s, tracer, bp, vis.data(), valid.data(), cancel);
            if (cancelled()) return std::nullopt;
            packed.append(vis.data(), valid.data(), count);
        }
    } catch (const std::bad_alloc&) {
        throw RendererError("could not allocate the light grid");
    } catch (const RendererError&) {
        throw;
    } catch (const std::exception& e) {
        throw RendererError(std::string("light grid bake failed: ") + e.what());
    }

    LightGrid grid;
    grid.params.origin = s.grid.origin;
    grid.params.dims = s.grid.dims;
    grid.params.params = float4{settings.lightGridEps, settings.lightGridVisFloor, settings.lightGridOffset,
                                settings.emissiveRoulette};
    grid.params.mode = uint4{static_cast<uint32_t>(settings.neeMode), settings.risCandidates, 1u, 0u};
    grid.cellRange = std::move(packed.cellRange);
    grid.cellEntry = std::move(packed.cellEntry);
    if (grid.cellEntry.empty()) grid.cellEntry.push_back(0u);
    grid.solidCells = packed.solidCells;
    grid.emissiveCells = packed.emissiveCells;
    grid.maxEntries = packed.maxEntries;
    grid.lightCount = g.lightCount;
    grid.points = points;
    grid.requestedCell = settings.lightGridCell;
    grid.seconds = secondsSince(t0);
    return grid;
}

// ---- Background bake ---------------------------------------------------------

LightGridJob::LightGridJob(std::shared_ptr<const GeometryBuild> geometry, float3 coreMin, float3 coreMax,
                           const RenderSettings& settings, uint64_t token)
    : geometry_(std::move(geometry)), token_(token) {
    thread_ = std::thread([this, coreMin, coreMax, settings] {
        std::optional<LightGrid> grid;
        std::exception_ptr error;
        try {
            // An arena of its own: a thread waiting on the renderer's own
            // parallel loops never picks up bake work, and the reverse.
            tbb::task_arena arena;
            arena.execute([&] { grid = bakeLightGrid(*geometry_, coreMin, coreMax, settings, &cancel_); });
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard<std::mutex> lock(mutex_);
        result_ = std::move(grid);
        error_ = error;
        finished_ = true;
        done_.notify_all();
    });
}

LightGridJob::~LightGridJob() {
    cancel_.store(true, std::memory_order_relaxed);
    if (thread_.joinable()) thread_.join();
}

bool LightGridJob::finished() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return finished_;
}

bool LightGridJob::waitFor(double seconds) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return done_.wait_for(lock, std::chrono::duration<double>(std::max(seconds, 0.0)), [&] { return finished_; });
}

std::optional<LightGrid> LightGridJob::take() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!finished_) return std::nullopt;
    if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
    return std::exchange(result_, std::nullopt);
}

} // namespace qv
