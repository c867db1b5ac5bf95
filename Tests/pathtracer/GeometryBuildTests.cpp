// The geometry build on small models made here: material packing, cuts,
// emissive table, ground plane, lamps, and ray queries into the three
// structures (opaque, auxiliary with glass and proxies, glass only).
#include "pathtracer/GeometryBuild.h"
#include "shaders/KernelHelpers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>
#include <vector>

namespace qv {
namespace {

struct ModelMaker {
    LoadedModel model;

    template <class Edit = void (*)(ModelMaterial&)>
    uint32_t material(const std::string& name, Edit edit = [](ModelMaterial&) {}) {
        ModelMaterial m;
        m.name = name;
        m.metallic = 0;
        edit(m);
        model.materials.push_back(m);
        return static_cast<uint32_t>(model.materials.size() - 1);
    }
    uint16_t role(const std::string& name) {
        if (name.empty()) return 0;
        for (size_t i = 0; i < model.roleNames.size(); ++i)
            if (model.roleNames[i] == name) return static_cast<uint16_t>(i);
        model.roleNames.push_back(name);
        return static_cast<uint16_t>(model.roleNames.size() - 1);
    }
    void triangle(float3 a, float3 b, float3 c, uint32_t mat, const std::string& roleName = "",
                  float3 normal = {0, 0, 0}) {
        uint32_t n = static_cast<uint32_t>(model.positions.size());
        model.positions.insert(model.positions.end(), {a, b, c});
        if (length(normal) == 0) normal = normalize(cross(b - a, c - a));
        model.normals.insert(model.normals.end(), {normal, normal, normal});
        model.uvs.insert(model.uvs.end(), {float2{0, 0}, float2{1, 0}, float2{0, 1}});
        model.indices.insert(model.indices.end(), {n, n + 1, n + 2});
        model.triMaterial.push_back(mat);
        model.triRole.push_back(role(roleName));
    }
    // A square at height y over [x0, x0 + s] x [z0, z0 + s], facing up (or down).
    void floorSquare(float y, float x0, float z0, float s, uint32_t mat, const std::string& roleName = "",
                     bool down = false) {
        float3 a{x0, y, z0}, b{x0 + s, y, z0}, c{x0 + s, y, z0 + s}, d{x0, y, z0 + s};
        if (down) {
            triangle(a, b, c, mat, roleName);
            triangle(a, c, d, mat, roleName);
        } else {
            triangle(a, c, b, mat, roleName);
            triangle(a, d, c, mat, roleName);
        }
    }
    // A vertical square in the plane x = x0 from y0 to y1, z in [z0, z0 + 1].
    void wallSquare(float x0, float y0, float y1, float z0, uint32_t mat, const std::string& roleName = "") {
        triangle({x0, y0, z0}, {x0, y0, z0 + 1}, {x0, y1, z0 + 1}, mat, roleName);
        triangle({x0, y0, z0}, {x0, y1, z0 + 1}, {x0, y1, z0}, mat, roleName);
    }
};

struct Built {
    GeometryBuild g;
    std::vector<std::string> lines;
};

Built build(const LoadedModel& model, const SceneDescription& scene = {}, const RenderSettings& settings = {}) {
    Built b;
    b.g = buildGeometry(model, scene, settings, TextureSet::placeholder(),
                        [&](std::string_view line) { b.lines.emplace_back(line); });
    return b;
}

LightDef lampAt(const char* kind, std::vector<float> position, std::optional<std::string> room = {}) {
    LightDef d;
    d.kind = kind;
    d.position = std::move(position);
    d.room = std::move(room);
    return d;
}

TEST(GeometryRays, OpaqueGlassAndProxiesAreHitInTheirStructures) {
    ModelMaker m;
    const uint32_t floor = m.material("floor");
    const uint32_t pane = m.material("window", [](ModelMaterial& x) { x.transmission = 1; });
    m.floorSquare(0, -5, -5, 10, floor);
    m.wallSquare(3, 0.5f, 2, 0, pane);
    SceneDescription scene;
    scene.lights = {lampAt("pendant", {0, 2, 0}), lampAt("downlight", {-2, 2.6f, 0})};
    Built b = build(m.model, scene);
    const GeometryBuild& g = b.g;
    ASSERT_EQ(g.glassTriangles, 2u);
    EXPECT_EQ(g.lightCount, 2u);
    EXPECT_EQ(g.auxTriangles, 2u + 320u + 24u);
    EXPECT_NE(g.glassAS.get(), g.auxAS.get());

    // Straight down onto the floor, past nothing else.
    RayHit floorHit = g.opAS->intersect(Ray{{1, 3, 1}, {0, -1, 0}});
    ASSERT_TRUE(floorHit.hit());
    EXPECT_NEAR(floorHit.t, 3.0f, 1e-5f);
    EXPECT_EQ(g.opInfo[floorHit.prim].x, floor);

    // Toward the pane along +x: the auxiliary and glass structures both see it.
    Ray toPane{{0, 1, 0.5f}, {1, 0, 0}};
    RayHit glassHit = g.auxAS->intersect(toPane);
    ASSERT_TRUE(glassHit.hit());
    EXPECT_EQ(std::make_tuple(g.auxInfo[glassHit.prim].x, g.auxInfo[glassHit.prim].y), std::make_tuple(AUX_GLASS, pane));
    EXPECT_NEAR(glassHit.t, 3.0f, 1e-5f);
    RayHit glassOnly = g.glassAS->intersect(toPane);
    ASSERT_TRUE(glassOnly.hit());
    EXPECT_EQ(glassOnly.prim, glassHit.prim) << "the glass structure numbers triangles like the auxiliary one";
    EXPECT_FALSE(g.opAS->intersect(toPane).hit()) << "glass is not in the opaque set";

    // Up into the pendant's proxy: its light is the sphere at (0, 2, 0).
    Ray up{{0, 1, 0}, {0, 1, 0}};
    RayHit proxy = g.auxAS->intersect(up);
    ASSERT_TRUE(proxy.hit());
    ASSERT_EQ(g.auxInfo[proxy.prim].x, AUX_LIGHT);
    const GPULight& pendant = g.lights[g.auxInfo[proxy.prim].y];
    EXPECT_EQ(pendant.posType.w, LIGHT_SPHERE);
    EXPECT_NEAR(length(xyz(pendant.posType) - float3{0, 2, 0}), 0.0f, 1e-6f);
    EXPECT_GT(proxy.t, 1 - 0.12f * 1.06f);
    EXPECT_LT(proxy.t, 1 - 0.12f);
    EXPECT_FALSE(g.glassAS->intersect(up).hit());
    Ray upGlassMask = up;
    upGlassMask.mask = kMaskGlass;
    EXPECT_FALSE(g.auxAS->intersect(upGlassMask).hit()) << "a glass-only mask skips the proxies";
    upGlassMask.mask = kMaskLightProxy;
    EXPECT_TRUE(g.auxAS->occluded(upGlassMask));

    // The downlight's fan faces down and sits 5 mm below its mounting point.
    RayHit fan = g.auxAS->intersect(Ray{{-2, 1, 0.01f}, {0, 1, 0}});
    ASSERT_TRUE(fan.hit());
    EXPECT_EQ(g.auxInfo[fan.prim].x, AUX_LIGHT);
    EXPECT_NEAR(fan.t, 1.6f - 0.005f, 1e-5f);
    EXPECT_LT(fan.ng.y, 0.0f);
    EXPECT_EQ(b.lines.back(),
              "geometry: 4 opaque tris, 346 glass/light-proxy tris, 2 lights (1400 lm, 1 tree nodes), 0 emissive tris");
}

TEST(GeometryRays, WithoutGlassOrLightsTheAuxiliarySetIsOnePlaceholder) {
    ModelMaker m;
    m.floorSquare(0, 0, 0, 1, m.material("floor"));
    Built b = build(m.model);
    const GeometryBuild& g = b.g;
    ASSERT_EQ(std::make_tuple(g.glassTriangles, g.auxTriangles), std::make_tuple(0u, 1u));
    EXPECT_EQ(std::make_tuple(g.auxInfo[0].x, g.auxInfo[0].y), std::make_tuple(2u, 0u));
    EXPECT_EQ(g.auxPos[0].y, -10000.0f);
    EXPECT_EQ(g.glassAS.get(), g.auxAS.get());
    EXPECT_TRUE(g.nodes.empty());
    EXPECT_FALSE(g.auxAS->intersect(Ray{{0.5f, 5, 0.5f}, {0, -1, 0}}).hit());
    EXPECT_EQ(g.grid.mode.z, 0u) << "no visibility grid until it is baked";
}

TEST(GeometryGround, GroundPlaneSurvivesEveryCutAndTakesLawnGrass) {
    ModelMaker m;
    const uint32_t grass = m.material("Lawn_GRASS", [](ModelMaterial& x) {
        x.baseColor[0] = 0.2f, x.baseColor[1] = 1.5f, x.baseColor[2] = 0.0f;
    });
    m.floorSquare(3, 0, 0, 1, grass, "roof");
    RenderSettings s;
    s.cutaway = Cutaway::groundFloor;
    s.clipAbove = 1.0f;
    s.hideMaterials = {"lawn_grass"};
    Built b = build(m.model, {}, s);
    const GeometryBuild& g = b.g;
    ASSERT_EQ(g.opaqueTriangles, 2u) << "only the ground is left";
    EXPECT_EQ(g.opInfo[0].x, 1u);
    EXPECT_TRUE(g.groundFromModel);
    EXPECT_EQ(g.groundAlbedo, (float3{0.2f, 0.98f, 0.01f}));
    ASSERT_EQ(g.materials.size(), 2u);
    EXPECT_EQ(std::make_tuple(g.materials[1].params.x, g.materials[1].params.w), std::make_tuple(0.95f, 2.0f));
    RayHit ground = g.opAS->intersect(Ray{{2000, 10, -2500}, {0, -1, 0}});
    ASSERT_TRUE(ground.hit());
    EXPECT_NEAR(ground.t, 10.09f, 1e-4f);
    EXPECT_GT(ground.ng.y, 0.0f) << "the ground faces up";

    ModelMaker glassy;
    glassy.material("lawn_grass", [](ModelMaterial& x) { x.transmission = 0.5f; });
    glassy.material("lawn_grass", [](ModelMaterial& x) { x.emissive = {1, 1, 1}; });
    glassy.floorSquare(0, 0, 0, 1, 0);
    Built other = build(glassy.model);
    EXPECT_FALSE(other.g.groundFromModel);
    EXPECT_EQ(other.g.groundAlbedo, kDefaultGroundAlbedo);
}

// One triangle per part of a two-storey house; the ground-floor view takes
// off the roof, every ceiling and everything above 2.8 m.
ModelMaker house() {
    ModelMaker m;
    const uint32_t plaster = m.material("plaster"), roofMat = m.material("Roof"), brass = m.material("brass");
    m.wallSquare(0, 0, 5, 0, plaster, "wall");                           // 2 tris, clipped
    m.floorSquare(2.75f, 1, 0, 1, plaster, "floor", true);                // 2 tris, slab underside: hidden
    m.floorSquare(2.75f, 3, 0, 1, plaster, "floor");                      // 2 tris, slab top: kept
    m.floorSquare(6, 0, 0, 1, plaster, "roof");                           // 2 tris, roof
    m.floorSquare(6.1f, 0, 2, 1, roofMat);                                // 2 tris, roof by material
    m.floorSquare(5.5f, 0, 4, 1, plaster, "ceil", true);                  // 2 tris, upper ceiling
    m.wallSquare(5, 2.67f, 2.78f, 0, brass);                              // 2 tris, pendant body
    m.wallSquare(6, 0, 9, 0, plaster, "site");                            // 2 tris, never cut
    m.floorSquare(4, 8, 8, 1, plaster, "wall");                           // 2 tris, upstairs floor
    return m;
}

TEST(GeometryCutaway, GroundFloorViewCutsAndReports) {
    ModelMaker m = house();
    SceneDescription scene;
    scene.lights = {lampAt("pendant", {0, 2.8f, 0}), lampAt("pendant", {0, 2.79f, 0}), lampAt("pendant", {0, 4, 0})};
    RenderSettings s;
    s.cutaway = Cutaway::groundFloor;
    Built b = build(m.model, scene, s);
    const GeometryBuild& g = b.g;
    EXPECT_EQ(std::make_tuple(g.hiddenTriangles, g.lightsOffUpstairs, g.lightCount), std::make_tuple(12, 2, 1u));
    // The wall: one triangle keeps a quad (two triangles), the other a triangle.
    EXPECT_EQ(g.opaqueTriangles, 3u + 2u + 2u + 2u);
    size_t atCut = 0;
    for (size_t v = m.model.positions.size(); v < g.opPos.size() - 4; ++v) {
        EXPECT_EQ(g.opPos[v].y, 2.8f) << "clip vertex " << v;
        ++atCut;
    }
    EXPECT_EQ(atCut, 4u);
    for (size_t t = 0; t < g.opaqueTriangles - 2; ++t)
        for (int k = 0; k < 3; ++k)
            if (g.opInfo[t].x == 0 && g.opPos[g.opIdx[3 * t + k]].x == 0) {
                EXPECT_LE(g.opPos[g.opIdx[3 * t + k]].y, 2.8f);
            }
    EXPECT_EQ(b.lines.back(),
              "geometry: 9 opaque tris, 320 glass/light-proxy tris, 1 lights (600 lm, 1 tree nodes), 0 emissive tris, "
              "cut-away ground-floor: 6 roof/ceiling tris hidden, storey cut at y=2.80 (6 tris above it hidden, 2 "
              "clipped, 2 first-floor light(s) off)");
}

TEST(GeometryCutaway, EachViewRemovesExactlyItsRoles) {
    ModelMaker m = house();
    struct Case {
        Cutaway view;
        int64_t roofCeiling, storeyHidden, clipped;
        uint32_t opaque;
    };
    // 18 model triangles plus 2 ground triangles.
    const Case cases[] = {
        {Cutaway::whole, 0, 0, 0, 20},
        {Cutaway::noRoof, 6, 0, 0, 14},
        {Cutaway::firstFloor, 4, 2, 0, 14},
        {Cutaway::groundFloor, 6, 6, 2, 9},
    };
    for (const Case& c : cases) {
        RenderSettings s;
        s.cutaway = c.view;
        Built b = build(m.model, {}, s);
        EXPECT_EQ(std::make_tuple(b.g.roofCeilingHidden, b.g.storeyHidden, b.g.storeyClipped, b.g.opaqueTriangles),
                  std::make_tuple(c.roofCeiling, c.storeyHidden, c.clipped, c.opaque))
            << toString(c.view);
    }
    RenderSettings hideRoof;
    hideRoof.hideRoof = true;
    EXPECT_EQ(build(m.model, {}, hideRoof).g.roofCeilingHidden, 6);
}

TEST(GeometryCutaway, ViewOfAModelWithoutRoofWarns) {
    ModelMaker m;
    m.floorSquare(0, 0, 0, 1, m.material("floor"));
    RenderSettings s;
    s.cutaway = Cutaway::noRoof;
    Built b = build(m.model, {}, s);
    ASSERT_EQ(b.lines.size(), 2u);
    EXPECT_EQ(b.lines[0], "geometry: 4 opaque tris, 1 glass/light-proxy tris, 0 lights (0 lm, 0 tree nodes), 0 emissive "
                          "tris, cut-away no-roof: 0 roof/ceiling tris hidden");
    EXPECT_EQ(b.lines[1], "warning: cut-away no-roof: the model has no roof or ceiling (no node role or material "
                          "named roof / ceil)");
}

TEST(GeometrySection, SectionCutRemovesClipsAndDropsLampsAbove) {
    ModelMaker m;
    const uint32_t wall = m.material("wall");
    m.wallSquare(0, 0, 3, 0, wall);      // crosses 1.5: cut
    m.floorSquare(2, 0, 0, 1, wall);     // above: removed
    m.floorSquare(1, 0, 0, 1, wall);     // below: whole
    SceneDescription scene;
    scene.lights = {lampAt("pendant", {0, 2, 0}), lampAt("pendant", {0, 1, 0}), lampAt("pendant", {0, 9})};
    RenderSettings s;
    s.clipAbove = 1.5f;
    Built b = build(m.model, scene, s);
    EXPECT_EQ(std::make_tuple(b.g.sectionRemoved, b.g.sectionCut, b.g.clippedTriangles, b.g.lightCount),
              std::make_tuple(2, 2, 2, 1u));
    ASSERT_EQ(b.lines.size(), 4u);
    EXPECT_EQ(b.lines[0], "section: 1 light(s) above y=1.5 removed");
    EXPECT_EQ(b.lines[1], "warning: light 1 (no id) skipped: position must be 3 finite numbers");
    EXPECT_EQ(b.lines[2], "geometry: 7 opaque tris, 320 glass/light-proxy tris, 1 lights (600 lm, 1 tree nodes), 0 "
                          "emissive tris, section at y=1.500 (2 tris removed, 2 cut)");
    EXPECT_EQ(b.lines.back(), "warning: 1 scene light(s) skipped - see the warnings above")
        << "the lamp with a short position is skipped by the light build";
    for (size_t t = 0; t < b.g.opaqueTriangles - 2; ++t)
        for (int k = 0; k < 3; ++k) EXPECT_LE(b.g.opPos[b.g.opIdx[3 * t + k]].y, 1.5f);
}

TEST(GeometryClip, ClippedPolygonKeepsWindingAndInterpolates) {
    const ClipVertex tri[3] = {{{0, 0, 0}, {0, 0, 1}, {0, 0}},
                               {{2, 0, 0}, {0, 0, 1}, {1, 0}},
                               {{0, 4, 0}, {0, 1, 0}, {0, 1}}};
    ClippedPolygon quad = clipTriangleBelow(tri, 1);
    ASSERT_EQ(quad.count, 4);
    EXPECT_EQ(std::make_tuple(quad.isNew[0], quad.corner[1], quad.isNew[2], quad.v[2].position.y),
              std::make_tuple(false, 1, true, 1.0f));
    EXPECT_NEAR(quad.v[2].position.x, 1.5f, 1e-6f);
    EXPECT_NEAR(quad.v[2].uv.x, 0.75f, 1e-6f);
    EXPECT_NEAR(quad.v[2].uv.y, 0.25f, 1e-6f);
    EXPECT_NEAR(length(quad.v[2].normal), 1.0f, 1e-6f);
    // Fan (0, 1, 2) keeps the input's winding normal (+z).
    EXPECT_GT(cross(quad.v[1].position - quad.v[0].position, quad.v[2].position - quad.v[0].position).z, 0.0f);
    EXPECT_EQ(clipTriangleBelow(tri, 3.9f).count, 4);
    EXPECT_EQ(clipTriangleBelow(tri, -0.5f).count, 0);
    const ClipVertex upside[3] = {tri[2], tri[0], tri[1]};
    ClippedPolygon one = clipTriangleBelow(upside, 1);
    EXPECT_EQ(one.count, 4);
    const ClipVertex high[3] = {{{0, 2, 0}, {}, {}}, {{1, 2, 0}, {}, {}}, {{0, 0, 0}, {}, {}}};
    ClippedPolygon tip = clipTriangleBelow(high, 1);
    ASSERT_EQ(tip.count, 3);
    EXPECT_EQ(tip.v[0].normal, float3{}) << "a zero normal stays zero";
}

TEST(GeometryMaterials, PackingRules) {
    ModelMaterial opaque;
    opaque.baseColor[0] = 1.2f, opaque.baseColor[1] = 0.5f, opaque.baseColor[2] = -1, opaque.baseColor[3] = 0.7f;
    opaque.roughness = 1.5f;
    opaque.metallic = -0.2f;
    opaque.ior = 1.33f;
    opaque.doubleSided = true;
    opaque.baseColorTexture = 3;
    TextureSet tex = TextureSet::placeholder();
    tex.layerOfTexture[3] = 5;
    tex.wrapOfTexture[3] = float2{2, 1};
    // Base colour clamped to [0, 0.98]; roughness and metallic to [0, 1]; the
    // texture's layer and wrap repeat counts.
    GPUMaterial a = packMaterial(opaque, 1000, tex);
    EXPECT_EQ(std::make_tuple(a.baseColor.x, a.baseColor.z, a.baseColor.w), std::make_tuple(0.98f, 0.0f, 0.7f));
    EXPECT_EQ(a.params, (float4{1.0f, 0.0f, 1.33f, 2.0f}));
    EXPECT_EQ(std::make_tuple(a.extra.x, a.extra.z, a.extra.w, a.emission.w), std::make_tuple(5.0f, 2.0f, 1.0f, 0.0f));

    ModelMaterial glass = opaque;
    glass.alphaMode = "BLEND";
    glass.baseColor[0] = 0.2f, glass.baseColor[1] = 0.8f, glass.baseColor[2] = 0.4f, glass.baseColor[3] = 0.25f;
    glass.transmissionRoughness = 0.3f;
    glass.emissive = {0.5f, 0.5f, 0.5f};
    ASSERT_TRUE(isGlassMaterial(glass));
    GPUMaterial b = packMaterial(glass, 1000, tex);
    const float lum = 0.2126f * 0.2f + 0.7152f * 0.8f + 0.0722f * 0.4f;
    EXPECT_NEAR(b.baseColor.x, lum + (0.2f - lum) * 0.25f, 1e-6f);
    EXPECT_NEAR(b.baseColor.y, lum + (0.8f - lum) * 0.25f, 1e-6f);
    EXPECT_EQ(b.extra.x, -1.0f) << "glass never samples a texture";
    EXPECT_EQ(std::make_tuple(b.params.w, b.extra.y, b.emission.x), std::make_tuple(3.0f, 0.3f, 500.0f));
    glass.baseColor[3] = 0.9995f;
    EXPECT_FALSE(isGlassMaterial(glass));
    glass.transmission = 0.02f;
    EXPECT_TRUE(isGlassMaterial(glass));
}

TEST(GeometryEmissive, TableWeightsFlipsAndSides) {
    ModelMaker m;
    const uint32_t panel = m.material("panel", [](ModelMaterial& x) {
        x.emissive = {1, 1, 1};
        x.doubleSided = true;
    });
    const uint32_t dim = m.material("dim", [](ModelMaterial& x) { x.emissive = {0.5f, 0.5f, 0.5f}; });
    const uint32_t plain = m.material("plain");
    // Normals pointing against the winding: EM_FLIP.
    // Winding normal (1,0,0) x (0,0,1) = (0,-1,0); the vertex normals point up.
    m.triangle({0, 3, 0}, {1, 3, 0}, {0, 3, 1}, panel, "", {0, 1, 0});
    m.triangle({0, 2, 0}, {0, 2, 1}, {2, 2, 0}, dim);                // area 1, one-sided
    m.triangle({0, 1, 0}, {1e-6f, 1, 0}, {0, 1, 1e-6f}, dim);        // degenerate: no emission
    m.triangle({0, 0, 0}, {0, 0, 1}, {1, 0, 0}, plain);
    Built b = build(m.model);
    const GeometryBuild& g = b.g;
    ASSERT_EQ(g.emissiveCount, 2u);
    EXPECT_EQ(std::make_tuple(g.emTris[0].tri, g.emTris[0].flags, g.emTris[1].flags),
              std::make_tuple(0u, EM_FLIP | EM_TWO_SIDED, 0u));
    EXPECT_EQ(std::make_tuple(g.opInfo[0].y, g.opInfo[1].y, g.opInfo[2].y, g.opInfo[3].y),
              std::make_tuple(0u, 1u, NO_EMISSIVE, NO_EMISSIVE));
    // Weights: 2 x 0.5 m2 x 1 against 1 x 1 m2 x 0.5.
    EXPECT_NEAR(g.emTris[0].pmf, 2.0f / 3.0f, 1e-6f);
    EXPECT_NEAR(g.emTris[1].pmf, 1.0f / 3.0f, 1e-6f);
    EXPECT_NEAR(g.emCdf[0], 2.0f / 3.0f, 1e-6f);
    EXPECT_EQ(g.emCdf[1], 1.0f);

    RenderSettings oneSided;
    oneSided.emissiveOneSided = true;
    Built one = build(m.model, {}, oneSided);
    EXPECT_EQ(one.g.emTris[0].flags, EM_FLIP);
    EXPECT_NEAR(one.g.emTris[0].pmf, 0.5f, 1e-6f);

    RenderSettings dark;
    dark.emissiveNits = 0;
    Built none = build(m.model, {}, dark);
    EXPECT_EQ(std::make_tuple(none.g.emissiveCount, none.g.emCdf.size()), std::make_tuple(0u, size_t(0)));
    for (const uint2& info : none.g.opInfo) EXPECT_EQ(info.y, NO_EMISSIVE);
}

TEST(GeometryFilters, HiddenMaterialsRoomsAndLightScale) {
    ModelMaker m;
    const uint32_t sofa = m.material("Sofa"), wall = m.material("wall");
    m.floorSquare(0.5f, 0, 0, 1, sofa);
    m.floorSquare(0, 0, 0, 1, wall);
    SceneDescription scene;
    scene.lights = {lampAt("pendant", {0, 2, 0}, "Kitchen"), lampAt("pendant", {3, 2, 0}, "Bath"),
                    lampAt("pendant", {6, 2, 0})};
    RenderSettings s;
    s.hideMaterials = {"SOFA", "chair"};
    s.disabledRooms = {"Kitchen", ""};
    s.lightScale = 2;
    Built b = build(m.model, scene, s);
    EXPECT_EQ(std::make_tuple(b.g.hiddenTriangles, b.g.opaqueTriangles), std::make_tuple(2, 4u));
    ASSERT_EQ(b.g.lightCount, 1u);
    EXPECT_NEAR(b.g.lights[0].posType.x, 3.0f, 1e-6f);
    EXPECT_NEAR(b.g.lights[0].radiance.w, 2 * 600 / (4 * PI), 1e-3f);
    EXPECT_EQ(b.g.builtLightScale, 2.0f);
    ASSERT_EQ(b.lines.size(), 2u);
    EXPECT_EQ(b.lines[0], "warning: --hide-material: no material named 'chair'");
    EXPECT_EQ(b.lines[1], "geometry: 4 opaque tris, 320 glass/light-proxy tris, 1 lights (600 lm, 1 tree nodes), "
                          "0 emissive tris, 2 tris hidden (Sofa)");

    RenderSettings nothing;
    nothing.hideMaterials = {"Chair"};
    nothing.sceneLights = false;
    Built c = build(m.model, scene, nothing);
    EXPECT_EQ(c.g.lightCount, 0u);
    ASSERT_EQ(c.lines.size(), 3u);
    EXPECT_EQ(c.lines[2], "warning: hiding chair removed no triangles");
}

} // namespace
} // namespace qv
