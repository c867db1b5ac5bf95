#pragma once
// The ray queries of the path tracing kernels, answered by the CPU ray-query
// structures of a geometry build: the adapter the kernels are instantiated
// with on this backend.
#include "pathtracer/GeometryBuild.h"
#include "pathtracer/RayQuery.h"
#include "shaders/LightSampling.h"

namespace qv {

class SceneTracer {
public:
    SceneTracer(const RayQuery* opaqueAS, const RayQuery* auxAS, const RayQuery* glassAS)
        : op_(opaqueAS), aux_(auxAS), glass_(glassAS) {}

    KernelHit opaque(float3 o, float3 d, float tmax) const { return query(op_, o, d, 0.0f, tmax, kRayMaskAll); }
    KernelHit aux(float3 o, float3 d, float tmax) const {
        return query(aux_, o, d, 0.0f, tmax, kMaskGlass | kMaskLightProxy);
    }
    KernelHit glass(float3 o, float3 d, float tmin, float tmax) const {
        return query(glass_, o, d, tmin, tmax, kMaskGlass);
    }
    bool opaqueOccluded(float3 o, float3 d, float tmax) const {
        if (!op_ || !(tmax > 0.0f)) return false;
        Ray ray{o, d, 0.0f, tmax, kRayMaskAll};
        return op_->occluded(ray);
    }

private:
    static KernelHit query(const RayQuery* as, float3 o, float3 d, float tmin, float tmax, uint32_t mask) {
        KernelHit h;
        if (!as || !(tmax > tmin)) return h;
        RayHit r = as->intersect(Ray{o, d, tmin, tmax, mask});
        if (!r.hit()) return h;
        h.t = r.t;
        h.prim = r.prim;
        h.u = r.u;
        h.v = r.v;
        return h;
    }

    const RayQuery* op_;
    const RayQuery* aux_;
    const RayQuery* glass_;
};

} // namespace qv
