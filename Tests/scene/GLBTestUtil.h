#pragma once
// Shared helpers of the GLB loader tests.
#include "scene/GLBLoader.h"
#include "support/GLBWriter.h"

#include <string>
#include <vector>

namespace qv::test {

struct Loaded {
    LoadedModel model;
    std::vector<std::string> stderrLines;
};

inline Loaded loadWritten(const std::vector<uint8_t>& bytes, const GLBLimits& limits = {}) {
    Loaded out;
    out.model = GLBLoader::loadBytes(
        bytes, [&](std::string_view line) { out.stderrLines.emplace_back(line); }, limits);
    return out;
}

inline Loaded loadWritten(const GLBWriter& w, const GLBLimits& limits = {}) { return loadWritten(w.bytes(), limits); }

// One mesh of independent triangles (three positions each), no indices.
inline int addTriangles(GLBWriter& w, const std::vector<float3>& corners, int material = -1) {
    return w.addMesh({GLBWriter::primitive(w.addPositions(corners), -1, material)});
}

// The unit right triangle in the x-y plane, facing +z: (0,0,0), (1,0,0), (0,1,0).
inline std::vector<float3> unitTriangle() { return {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}; }

inline float3 triangleNormal(const LoadedModel& m, size_t t) {
    const float3 a = m.positions[m.indices[3 * t]], b = m.positions[m.indices[3 * t + 1]],
                 c = m.positions[m.indices[3 * t + 2]];
    return normalize(cross(b - a, c - a));
}

} // namespace qv::test
