#pragma once
// Nearest-hit and occlusion queries against triangle meshes. One structure is
// built over one or more triangle sets; each set carries a mask, and a ray
// only sees the sets whose mask shares a bit with the ray's mask. The
// triangles of all sets are numbered in set order, so a structure built from
// (glass, proxies) reports glass triangles first. The backend lives in one
// source file; nothing else sees its types.
#include "shaders/VecMath.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>

namespace qv {

// A structure that could not be allocated or built; what() is the sentence.
class RayQueryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline constexpr uint32_t kRayMaskAll = 0xFFFFFFFFu;
inline constexpr uint32_t kNoHit = 0xFFFFFFFFu;
inline constexpr float kMissDistance = 1.0e30f;

// How much build time buys trace speed: `fast` for edits while the view
// moves, `high` (surface-area heuristic with spatial splits) for stills.
enum class BuildQuality { fast, high };

// One triangle set, borrowed for the build only (the structure keeps copies).
struct TriangleSet {
    std::span<const float3> positions;  // metres
    std::span<const uint32_t> indices;  // three per triangle, into positions
    uint32_t mask = kRayMaskAll;        // rays whose mask shares no bit skip this set
};

struct Ray {
    float3 origin;
    float3 direction;                   // need not be unit length; t is in its units
    float tMin = 0;
    float tMax = kMissDistance;
    uint32_t mask = kRayMaskAll;
};

// Many rays by coordinate: ray i starts at (ox, oy, oz)[i] and runs along
// (dx, dy, dz)[i] from 0 to tmax[i].
struct RayBundle {
    const float *ox = nullptr, *oy = nullptr, *oz = nullptr;
    const float *dx = nullptr, *dy = nullptr, *dz = nullptr;
    const float* tmax = nullptr;
    size_t count = 0;
    uint32_t mask = kRayMaskAll;
};

struct RayHit {
    float t = kMissDistance;            // distance along the direction, kMissDistance on a miss
    uint32_t prim = kNoHit;             // triangle index over all sets in order, kNoHit on a miss
    uint32_t set = kNoHit;              // index of the set the triangle belongs to
    float u = 0, v = 0;                 // barycentrics of the triangle's vertices 1 and 2
    float3 ng;                          // unnormalised geometric normal, (v1 - v0) x (v2 - v0)

    bool hit() const { return prim != kNoHit; }
};

// An immutable acceleration structure; queries may run from many threads at once.
class RayQuery {
public:
    // Throws RayQueryError "could not allocate acceleration structure" or
    // "acceleration structure build failed: <backend text>". Indices out of
    // range fail the build as well. Empty sets (and no sets) are allowed.
    static RayQuery build(std::span<const TriangleSet> sets, BuildQuality quality);

    RayQuery(RayQuery&&) noexcept;
    RayQuery& operator=(RayQuery&&) noexcept;
    ~RayQuery();

    // The nearest hit with tMin <= t <= tMax among the sets the mask selects.
    RayHit intersect(const Ray& ray) const;
    // Whether any triangle the mask selects lies on the ray within [tMin, tMax].
    bool occluded(const Ray& ray) const;
    // The same for many rays: blocked[i] = 1 when ray i is occluded, else 0.
    // Only rays with active[i] != 0 (all when active is null) and tmax > 0
    // are traced; the rest get 0. Rays that start close together and head
    // the same way are traced as packets, about twice as fast as one by one.
    void occluded(const RayBundle& rays, const uint8_t* active, uint8_t* blocked) const;
    // The nearest hit of each ray, as intersect gives it: prim[i] is the hit
    // triangle's index over all sets, kNoHit on a miss.
    void nearestPrims(const RayBundle& rays, uint32_t* prim) const;

    size_t triangleCount() const;
    size_t setCount() const;
    // Index of the first triangle of set s in the combined numbering.
    uint32_t firstTriangleOfSet(size_t s) const;
    // Wall-clock seconds the build took (including the copies of the arrays).
    double buildSeconds() const;
    BuildQuality quality() const;

private:
    struct Impl;
    explicit RayQuery(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace qv
