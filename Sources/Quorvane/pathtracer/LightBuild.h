#pragma once
// Scene lamps (lumens and kelvin) turned into photometric analytic emitters,
// a proxy mesh per emitter so that camera and bounce rays see the fitting,
// and the light tree over them. The radiance of each emitter is set so that
// its luminous flux is exactly the lumens the scene file gives:
//   sphere  I = flux / (4 pi),          L = flux / (4 pi^2 r^2)
//   disc    I = flux (p + 1) / (2 pi),  L = I / A   (intensity I cos^p)
//   quad    I = flux / pi,              L = flux / (pi A)   (Lambertian)
#include "scene/LogSink.h"
#include "scene/SceneDescription.h"
#include "shaders/Records.h"

#include <cstdint>
#include <vector>

namespace qv {

struct LightBuild {
    std::vector<GPULight> lights;      // in light-tree order once the tree is built
    std::vector<float3> positions;     // proxy mesh vertices (m)
    std::vector<uint32_t> indices;     // proxy triangles, three per triangle
    std::vector<uint32_t> triLight;    // per proxy triangle: its light's index in `lights`
    std::vector<GPULightNode> nodes;   // node 0 the root; empty without lights
    double totalLumens = 0;            // lm, over the built lights
    int skipped = 0;                   // definitions that were skipped

    // Builds every usable lamp and the tree. Never fails: a bad definition is
    // repaired or skipped with a "warning: " line to `log`.
    static LightBuild build(const std::vector<LightDef>& lamps, const LogSink& log);

    // Append one light and its proxy. Colours are linear with luminance 1 for
    // the given flux to come out in lumens.
    void addSphere(float3 centre, float radius, float lumens, float3 color);
    void addDisc(float3 centre, float3 normal, float radius, float lumens, float exponent, float3 color);
    void addQuad(float3 start, float3 end, float3 normal, float width, float lumens, float3 color);

    // Builds `nodes`, reorders `lights`, stores their tree paths and remaps `triLight`.
    void buildTree();

    static constexpr int kDiscSegments = 24;
    static constexpr float kDiscOffset = 0.005f; // m, off the surface the disc is mounted on
    static constexpr float kQuadOffset = 0.002f; // m
    static constexpr float kMinRadius = 0.005f;  // m
    static constexpr float kMinWidth = 0.002f;   // m
    static constexpr float kMaxLumens = 1000000;
};

// The disc's cosine exponent for a cone angle: intensity falls to half at half
// the cone angle; 1 (Lambertian) for a cone of 0 or less, or 179 degrees or more.
float discExponentForCone(float coneDeg);

struct TriangleMesh {
    std::vector<float3> positions;
    std::vector<uint32_t> indices; // outward winding
};

// The icosahedron on the unit sphere with each triangle split into four per
// subdivision (midpoints pushed out to the sphere).
TriangleMesh icosphere(int subdivisions);
// The icosphere of 2 subdivisions scaled so that every face plane lies at
// distance 1 or more from the origin: it encloses the unit sphere.
const TriangleMesh& enclosingIcosphere();

} // namespace qv
