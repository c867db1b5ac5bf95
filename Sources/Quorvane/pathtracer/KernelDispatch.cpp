#include "pathtracer/KernelDispatch.h"

#include <tbb/blocked_range2d.h>
#include <tbb/parallel_for.h>

namespace qv {

void runCameraKernel(const GPUUniforms& uniforms, const SceneData& scene, const SceneTracer& tracer,
                     const KernelTextures& textures, const FrameSums& sums, int64_t firstRow, int64_t rows) {
    KernelContext<SceneTracer> ctx{uniforms, scene, tracer, textures};
    // 8 x 8 tiles, like GPU thread groups: neighbouring paths share cache lines
    // of the scene. Each pixel's random sequence depends only on its index and
    // the sample index, so the image does not depend on the thread count.
    tbb::parallel_for(tbb::blocked_range2d<int>(int(firstRow), int(firstRow + rows), 8, 0, int(uniforms.dims.x), 8),
                      [&](const tbb::blocked_range2d<int>& r) {
                          for (int y = r.rows().begin(); y < r.rows().end(); ++y)
                              for (int x = r.cols().begin(); x < r.cols().end(); ++x)
                                  pathTracePixel<false>(ctx, sums, uint32_t(x), uint32_t(y));
                      });
}

} // namespace qv
