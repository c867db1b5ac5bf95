#pragma once
// The ray queries of the path tracing kernels, answered by the CPU ray-query
// structures of a geometry build: the adapter the kernels are instantiated
// with on this backend.
#include "pathtracer/GeometryBuild.h"
#include "pathtracer/RayQuery.h"
#include "shaders/LightSampling.h"

#include <algorithm>
#include <cmath>

namespace qv {

class SceneTracer {
public:
    // nearestAS, when given, holds the opaque triangles (set 0) followed by
    // the auxiliary sets in their own order, so that one traversal answers
    // both nearest-hit queries of a path segment.
    SceneTracer(const RayQuery* opaqueAS, const RayQuery* auxAS, const RayQuery* glassAS,
                const RayQuery* nearestAS = nullptr)
        : op_(opaqueAS), aux_(auxAS), glass_(glassAS), nearest_(nearestAS),
          nearestAuxFirst_(nearestAS ? nearestAS->firstTriangleOfSet(1) : 0u) {}

    NearestHit nearest(float3 o, float3 d) const {
        NearestHit n;
        if (!nearest_) {
            n.hit = opaque(o, d, BIG);
            KernelHit a = aux(o, d, n.hit.t);
            if (isHit(a) && a.t < n.hit.t) n = NearestHit{a, true};
            return n;
        }
        RayHit r = nearest_->intersect(Ray{o, d, 0.0f, BIG, kRayMaskAll & ~kMaskPlaceholder});
        if (!r.hit()) return n;
        n.aux = r.set != 0;
        n.hit.t = r.t;
        n.hit.prim = n.aux ? r.prim - nearestAuxFirst_ : r.prim;
        n.hit.u = r.u;
        n.hit.v = r.v;
        return n;
    }

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

    // The light grid's bake: many shadow rays of one cell at once.
    void opaqueOccludedMany(const KernelRaySet& rays, const uint8_t* active, uint8_t* blocked) const {
        if (!op_) {
            std::fill(blocked, blocked + rays.count, uint8_t(0));
            return;
        }
        op_->occluded(RayBundle{rays.ox, rays.oy, rays.oz, rays.dx, rays.dy, rays.dz, rays.tmax, rays.count,
                                kRayMaskAll},
                      active, blocked);
    }

    void opaqueNearestMany(const KernelRaySet& rays, uint32_t* prim) const {
        if (!op_) {
            std::fill(prim, prim + rays.count, KERNEL_NO_HIT);
            return;
        }
        op_->nearestPrims(RayBundle{rays.ox, rays.oy, rays.oz, rays.dx, rays.dy, rays.dz, rays.tmax, rays.count,
                                    kRayMaskAll},
                          prim);
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
    const RayQuery* nearest_;
    uint32_t nearestAuxFirst_; // the first auxiliary triangle in nearest_'s numbering
};

} // namespace qv
