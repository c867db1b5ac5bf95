#pragma once
// The loaded model and the scene's lamps turned into the path tracer's scene
// arrays: the material table, the opaque triangle set with its per-triangle
// info and emissive-triangle table, the auxiliary set (thin glass first, then
// the proxy meshes of the lamps), the lights and light tree, and three ray
// query structures (opaque, auxiliary, glass only). On the way it applies the
// user's removals (hidden materials, cut-away view, section cut, rooms
// switched off) and adds a large ground plane.
#include "pathtracer/RayQuery.h"
#include "pathtracer/RenderSettings.h"
#include "scene/LoadedModel.h"
#include "scene/LogSink.h"
#include "scene/SceneDescription.h"
#include "scene/TextureSet.h"
#include "shaders/Records.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace qv {

// Ray masks of the auxiliary structure's triangle sets.
inline constexpr uint32_t kMaskGlass = 1;       // thin glass panes
inline constexpr uint32_t kMaskLightProxy = 2;  // lamp fittings
inline constexpr uint32_t kMaskPlaceholder = 4; // the stand-in triangle of an empty set

// Ground albedo when the model has no usable "lawn_grass" material: a
// mid-grey green, linear.
inline constexpr float3 kDefaultGroundAlbedo{0.10f, 0.13f, 0.07f};
inline constexpr float kGroundHalfSize = 3000; // m
inline constexpr float kGroundHeight = -0.09f; // m

struct GeometryBuild {
    // Opaque set: the model's vertices plus the clip and ground vertices.
    std::vector<float3> opPos;            // m
    std::vector<float3> opNrm;            // unit, zero = none
    std::vector<float2> opUV;
    std::vector<uint32_t> opIdx;          // three per triangle
    std::vector<uint2> opInfo;            // x material, y emissive index or NO_EMISSIVE
    // Auxiliary set: glass triangles first, then lamp proxies (or one placeholder).
    std::vector<float3> auxPos;
    std::vector<uint32_t> auxIdx;
    std::vector<uint2> auxInfo;           // x AUX_GLASS / AUX_LIGHT / 2 placeholder, y material or light
    std::vector<GPUMaterial> materials;   // model materials, then the ground material
    std::vector<GPULight> lights;
    std::vector<GPULightNode> nodes;
    std::vector<GPUEmissiveTri> emTris;
    std::vector<float> emCdf;             // running sum of emTris[i].pmf, last entry exactly 1
    std::vector<uint32_t> emGuide;        // CDF_GUIDE_N + 1 search guides of emCdf (empty without emitters)
    GPULightGridParams grid{};            // mode.z = 0: no visibility grid yet

    std::shared_ptr<const RayQuery> opAS;
    std::shared_ptr<const RayQuery> auxAS;
    std::shared_ptr<const RayQuery> glassAS; // the same object as auxAS when there is no glass
    std::shared_ptr<const RayQuery> nearestAS; // opaque, then the auxiliary sets: one query per path segment

    uint32_t glassTriangles = 0;
    uint32_t lightCount = 0;
    uint32_t lightNodes = 0;
    uint32_t emissiveCount = 0;
    uint32_t opaqueTriangles = 0;
    uint32_t auxTriangles = 0;
    int64_t hiddenTriangles = 0;          // by material, cut-away and storey cut
    int64_t clippedTriangles = 0;         // removed by the section cut
    int64_t roofCeilingHidden = 0;        // by the cut-away view
    int64_t storeyHidden = 0;             // above the storey cut
    int64_t storeyClipped = 0;
    int64_t sectionRemoved = 0;
    int64_t sectionCut = 0;
    int lightsOffUpstairs = 0;            // first-floor lamps off in the ground-floor view
    int lightsSkipped = 0;
    double totalLumens = 0;               // lm
    int texturedMaterials = 0;
    int frostedMaterials = 0;
    float3 groundAlbedo = kDefaultGroundAlbedo;
    bool groundFromModel = false;
    float builtLightScale = 1;
    float builtEmissiveNits = 1000;
    double accelSeconds = 0;              // building the three structures
};

// Builds everything above and logs the "geometry: ..." summary (and its
// warnings) to `log`. Throws RayQueryError when a structure cannot be built.
GeometryBuild buildGeometry(const LoadedModel& model, const SceneDescription& scene, const RenderSettings& settings,
                            const TextureSet& textures, const LogSink& log,
                            BuildQuality quality = BuildQuality::high);

// The kernels' view of the build's arrays. Sky, energy tables, light grid and
// stats counters belong to the renderer and are left unset.
SceneData geometrySceneData(const GeometryBuild& g);

// The material record of a model material (glass test, tint, emission,
// texture layer and wraps). `emissiveNits` scales the glTF emissive factor.
GPUMaterial packMaterial(const ModelMaterial& m, float emissiveNits, const TextureSet& textures);
bool isGlassMaterial(const ModelMaterial& m);

// One vertex of a triangle being clipped.
struct ClipVertex {
    float3 position;
    float3 normal;
    float2 uv;
};

// The part of a triangle at or below height h, as a fan of 0, 1 or 2
// triangles with the input's winding; new vertices lie exactly at y = h.
struct ClippedPolygon {
    ClipVertex v[4];
    bool isNew[4] = {};   // made on an edge (the others are input corners)
    int corner[4] = {};   // for input corners, which one (0-2)
    int count = 0;        // 0, 3 or 4 vertices
};
ClippedPolygon clipTriangleBelow(const ClipVertex (&tri)[3], float h);

} // namespace qv
