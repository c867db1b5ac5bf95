#include "scene/LoadedModel.h"

#include <algorithm>
#include <cmath>

namespace qv {

bool LoadedModel::isUnderRoof(float3 point) const {
    if (indices.size() < 3 || !isFinite(point)) return false;
    if (point.x < boundsMin.x || point.x > boundsMax.x || point.z < boundsMin.z || point.z > boundsMax.z) return false;
    if (!(point.y < boundsMax.y)) return false;

    const float above = point.y + 0.05f;
    const float px = point.x, pz = point.z;
    for (size_t t = 0; t + 2 < indices.size(); t += 3) {
        const float3 a = positions[indices[t]], b = positions[indices[t + 1]], c = positions[indices[t + 2]];
        if (std::fmax(a.y, std::fmax(b.y, c.y)) <= above) continue;
        if (px < std::fmin(a.x, std::fmin(b.x, c.x)) || px > std::fmax(a.x, std::fmax(b.x, c.x))) continue;
        if (pz < std::fmin(a.z, std::fmin(b.z, c.z)) || pz > std::fmax(a.z, std::fmax(b.z, c.z))) continue;
        // Barycentric coordinates of (px, pz) in the triangle's x-z projection.
        const float det = (b.z - c.z) * (a.x - c.x) + (c.x - b.x) * (a.z - c.z);
        if (std::fabs(det) <= 1e-12f) continue; // seen edge-on from above: a wall
        const float l0 = ((b.z - c.z) * (px - c.x) + (c.x - b.x) * (pz - c.z)) / det;
        const float l1 = ((c.z - a.z) * (px - c.x) + (a.x - c.x) * (pz - c.z)) / det;
        const float l2 = 1.0f - l0 - l1;
        if (l0 < 0 || l1 < 0 || l2 < 0) continue;
        if (l0 * a.y + l1 * b.y + l2 * c.y > above) return true;
    }
    return false;
}

float3 LoadedModel::robustCentre() const {
    if (indices.empty()) return {};
    // At most about 65536 corners: the median of a regular subsample.
    const size_t step = std::max<size_t>(indices.size(), 65536) / 65536;
    std::vector<float> axis[3];
    for (auto& values : axis) values.reserve(indices.size() / step + 1);
    for (size_t i = 0; i < indices.size(); i += step) {
        const float3 p = positions[indices[i]];
        for (int k = 0; k < 3; ++k) axis[k].push_back(p[k]);
    }
    float3 centre;
    for (int k = 0; k < 3; ++k) {
        auto& values = axis[k];
        auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
        std::nth_element(values.begin(), middle, values.end());
        centre[k] = std::clamp(*middle, -10000.0f, 10000.0f);
    }
    return centre;
}

} // namespace qv
