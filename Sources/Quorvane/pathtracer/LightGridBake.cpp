// The light grid's bake loop, compiled with the floating-point freedoms a GPU
// compiler takes (like the camera kernel's dispatch).
#include "pathtracer/LightGrid.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

namespace qv {

void runLightGridBake(const SceneData& scene, const SceneTracer& tracer, const GPULightBakeParams& bp,
                      uint32_t* vis, uint32_t* valid, const std::atomic<bool>* cancel) {
    // One task per cell: its points' shadow rays toward a lamp start within
    // the cell and head the same way, so they trace well as packets. Each
    // cell's counts depend only on its index, not on the thread count.
    tbb::parallel_for(tbb::blocked_range<uint32_t>(0, bp.range.y, 4), [&](const tbb::blocked_range<uint32_t>& r) {
        if (cancel && cancel->load(std::memory_order_relaxed)) return;
        for (uint32_t c = r.begin(); c < r.end(); ++c) lightGridBakeCell(scene, tracer, bp, c, vis, valid);
    });
}

} // namespace qv
