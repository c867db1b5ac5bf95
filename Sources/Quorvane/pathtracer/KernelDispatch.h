#pragma once
// Runs the camera kernel over a band of rows on all cores. This translation
// unit alone is compiled with fast floating-point math, as GPU kernels are:
// the kernels test for non-finite values on bit patterns, so the fast-math
// assumptions cannot remove their guards.
#include "pathtracer/SceneTracer.h"
#include "shaders/CameraRays.h"

#include <cstdint>

namespace qv {

void runCameraKernel(const GPUUniforms& uniforms, const SceneData& scene, const SceneTracer& tracer,
                     const KernelTextures& textures, const FrameSums& sums, int64_t firstRow, int64_t rows);

} // namespace qv
