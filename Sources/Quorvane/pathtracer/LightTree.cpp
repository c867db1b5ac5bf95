#include "pathtracer/LightTree.h"

#include "shaders/KernelHelpers.h"

#include <algorithm>
#include <cmath>

namespace qv {

namespace {

struct Prim {
    float3 lo, hi, c;
    float flux; // peak intensity, cd
    NormalCone cone;
    uint32_t index; // into the input order
};

// v rotated by `angle` about the unit axis k (Rodrigues).
float3 rotate(float3 v, float3 k, float angle) {
    float c = std::cos(angle), s = std::sin(angle);
    return v * c + cross(k, v) * s + k * (dot(k, v) * (1 - c));
}

struct TreeBuilder {
    std::vector<Prim>& prims;
    std::vector<GPULightNode> nodes;
    std::vector<uint32_t> order;          // input indices in output order
    std::vector<uint32_t> pathBits, depthOf; // per input index

    uint32_t build(size_t begin, size_t end, uint32_t depth, uint32_t bits) {
        const uint32_t nodeIndex = static_cast<uint32_t>(nodes.size());
        nodes.emplace_back();
        float3 lo = prims[begin].lo, hi = prims[begin].hi;
        float3 clo = prims[begin].c, chi = prims[begin].c;
        double flux = 0;
        NormalCone cone = prims[begin].cone;
        for (size_t i = begin; i < end; ++i) {
            lo = min(lo, prims[i].lo);
            hi = max(hi, prims[i].hi);
            clo = min(clo, prims[i].c);
            chi = max(chi, prims[i].c);
            flux += prims[i].flux;
            if (i > begin) cone = coneUnion(cone, prims[i].cone);
        }
        GPULightNode node;
        const bool omni = cone.halfAngle >= PI;
        node.bmin = make_float4(lo, static_cast<float>(flux));
        node.bmax = make_float4(hi, omni ? -1.0f : std::cos(cone.halfAngle));
        node.axis = make_float4(omni ? float3{0, 1, 0} : cone.axis, 0);

        const size_t count = end - begin;
        if (count <= kMaxLightsPerLeaf || depth > kMaxLightTreeDepth) {
            node.info = uint4{static_cast<uint32_t>(order.size()), static_cast<uint32_t>(count), 1, 0};
            for (size_t i = begin; i < end; ++i) {
                order.push_back(prims[i].index);
                pathBits[prims[i].index] = bits;
                depthOf[prims[i].index] = depth;
            }
            nodes[nodeIndex] = node;
            return nodeIndex;
        }
        // Median split along the longest side of the centres' box.
        const float3 ext = chi - clo;
        const int axis = ext.x >= ext.y && ext.x >= ext.z ? 0 : (ext.y >= ext.z ? 1 : 2);
        std::stable_sort(prims.begin() + static_cast<std::ptrdiff_t>(begin),
                         prims.begin() + static_cast<std::ptrdiff_t>(end),
                         [axis](const Prim& a, const Prim& b) { return a.c[axis] < b.c[axis]; });
        const size_t mid = begin + count / 2;
        const uint32_t left = build(begin, mid, depth + 1, bits);
        const uint32_t right = build(mid, end, depth + 1, bits | (1u << depth));
        node.info = uint4{left, right, 0, 0};
        nodes[nodeIndex] = node;
        return nodeIndex;
    }
};

} // namespace

NormalCone coneUnion(NormalCone a, NormalCone b) {
    if (a.halfAngle >= PI || b.halfAngle >= PI) return NormalCone{{0, 1, 0}, PI};
    const float thetaD = std::acos(clampf(dot(a.axis, b.axis), -1, 1));
    if (a.halfAngle >= thetaD + b.halfAngle) return a;
    if (b.halfAngle >= thetaD + a.halfAngle) return b;
    const float thetaO = (a.halfAngle + thetaD + b.halfAngle) / 2;
    if (thetaO >= PI) return NormalCone{{0, 1, 0}, PI};
    float3 k = cross(a.axis, b.axis);
    // Opposite axes: any perpendicular turns one toward the other.
    k = length(k) > 1e-7f ? normalize(k) : makeBasis(a.axis).t;
    return NormalCone{normalize(rotate(a.axis, k, thetaO - a.halfAngle)), thetaO};
}

std::vector<GPULightNode> buildLightTree(std::vector<GPULight>& lights, std::vector<uint32_t>& newIndexOfOld) {
    newIndexOfOld.assign(lights.size(), 0);
    if (lights.empty()) return {};
    std::vector<Prim> prims;
    prims.reserve(lights.size());
    for (size_t i = 0; i < lights.size(); ++i) {
        const GPULight& L = lights[i];
        const float3 c = xyz(L.posType);
        float3 half;
        if (L.posType.w == LIGHT_QUAD) {
            const float3 u = xyz(L.uArea), v = xyz(L.vExp);
            half = {std::fabs(u.x) + std::fabs(v.x), std::fabs(u.y) + std::fabs(v.y), std::fabs(u.z) + std::fabs(v.z)};
        } else {
            half = splat3(L.normalRadius.w);
        }
        Prim p;
        p.lo = c - half;
        p.hi = c + half;
        p.c = c;
        p.flux = L.radiance.w;
        p.cone = L.posType.w == LIGHT_SPHERE ? NormalCone{{0, 1, 0}, PI} : NormalCone{xyz(L.normalRadius), 0};
        p.index = static_cast<uint32_t>(i);
        prims.push_back(p);
    }
    TreeBuilder builder{prims, {}, {}, std::vector<uint32_t>(lights.size()), std::vector<uint32_t>(lights.size())};
    builder.order.reserve(lights.size());
    builder.build(0, prims.size(), 0, 0);

    std::vector<GPULight> reordered;
    reordered.reserve(lights.size());
    for (uint32_t oldIndex : builder.order) {
        newIndexOfOld[oldIndex] = static_cast<uint32_t>(reordered.size());
        GPULight L = lights[oldIndex];
        L.extra.z = asFloatBits(builder.pathBits[oldIndex]);
        L.extra.w = asFloatBits(builder.depthOf[oldIndex]);
        reordered.push_back(L);
    }
    lights = std::move(reordered);
    return std::move(builder.nodes);
}

} // namespace qv
