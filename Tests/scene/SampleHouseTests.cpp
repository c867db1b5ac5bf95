// The bundled sample house (Resources/house.glb with sample_scene.json), read
// with the project's own loaders: its size and materials, the cut roles and
// storeys, and that every camera and every lamp stands where it should.
#include "scene/CutawayRules.h"
#include "scene/GLBLoader.h"
#include "scene/SceneDescription.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qv {
namespace {

const std::string kResources = std::string(QV_TEST_DATA_DIR) + "/../../Resources";

const LoadedModel& house() {
    static const LoadedModel model = GLBLoader::load(kResources + "/house.glb");
    return model;
}

struct LoadedScene {
    SceneDescription scene;
    std::vector<std::string> log;
};

const LoadedScene& sampleScene() {
    static const LoadedScene loaded = [] {
        LoadedScene s;
        s.scene = SceneDescription::load(kResources + "/sample_scene.json",
                                         [&s](std::string_view line) { s.log.emplace_back(line); });
        return s;
    }();
    return loaded;
}

float3 corner(const LoadedModel& m, size_t tri, int k) { return m.positions[m.indices[3 * tri + k]]; }

bool isGlass(const ModelMaterial& mat) {
    return mat.transmission > 0.01f || (mat.alphaMode == "BLEND" && mat.baseColor[3] < 0.999f);
}

// Nearest hit along a ray over every triangle (both faces), by brute force:
// the house is small enough. Glass (double-sided) stops the ray only when
// `glassStops`. `backFace` tells whether the ray met the side opposite the
// triangle's vertex normals.
struct Hit {
    float t = INFINITY;
    size_t tri = 0;
    bool backFace = false;
};

Hit nearestHit(const LoadedModel& m, float3 o, float3 d, float reach, bool glassStops = false) {
    Hit best;
    best.t = reach;
    bool found = false;
    for (size_t i = 0; i < m.triangleCount(); ++i) {
        const bool glass = isGlass(m.materials[m.triMaterial[i]]);
        if (glass && !glassStops) continue;
        const float3 a = corner(m, i, 0), e1 = corner(m, i, 1) - a, e2 = corner(m, i, 2) - a;
        const float3 p = cross(d, e2);
        const float det = dot(e1, p);
        if (std::fabs(det) < 1e-12f) continue;
        const float inv = 1.0f / det;
        const float3 s = o - a;
        const float u = dot(s, p) * inv;
        if (u < 0 || u > 1) continue;
        const float3 q = cross(s, e1);
        const float v = dot(d, q) * inv;
        if (v < 0 || u + v > 1) continue;
        const float t = dot(e2, q) * inv;
        if (t > 1e-5f && t < best.t) {
            const float3 n = m.normals[m.indices[3 * i]] + m.normals[m.indices[3 * i + 1]] +
                             m.normals[m.indices[3 * i + 2]];
            best = {t, i, !glass && dot(n, d) > 0};
            found = true;
        }
    }
    if (!found) best.t = INFINITY;
    return best;
}

// Closest distance from a point to a triangle (Ericson, Real-Time Collision Detection 5.1.5).
float distanceToTriangle(float3 p, float3 a, float3 b, float3 c) {
    const float3 ab = b - a, ac = c - a, ap = p - a;
    const float d1 = dot(ab, ap), d2 = dot(ac, ap);
    if (d1 <= 0 && d2 <= 0) return length(p - a);
    const float3 bp = p - b;
    const float d3 = dot(ab, bp), d4 = dot(ac, bp);
    if (d3 >= 0 && d4 <= d3) return length(p - b);
    const float vc = d1 * d4 - d3 * d2;
    if (vc <= 0 && d1 >= 0 && d3 <= 0) return length(p - (a + ab * (d1 / (d1 - d3))));
    const float3 cp = p - c;
    const float d5 = dot(ab, cp), d6 = dot(ac, cp);
    if (d6 >= 0 && d5 <= d6) return length(p - c);
    const float vb = d5 * d2 - d1 * d6;
    if (vb <= 0 && d2 >= 0 && d6 <= 0) return length(p - (a + ac * (d2 / (d2 - d6))));
    const float va = d3 * d6 - d5 * d4;
    if (va <= 0 && d4 - d3 >= 0 && d5 - d6 >= 0)
        return length(p - (b + (c - b) * ((d4 - d3) / ((d4 - d3) + (d5 - d6)))));
    const float denom = 1.0f / (va + vb + vc);
    return length(p - (a + ab * (vb * denom) + ac * (vc * denom)));
}

float3 vec3(const std::vector<float>& v) { return {v[0], v[1], v[2]}; }

const float3 kAxes[6] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};

// The house's footprint (the walls' outer faces), metres.
bool insideFootprint(float3 p) { return p.x > 0 && p.x < 13 && p.z > 0 && p.z < 10; }

// --- the model ---------------------------------------------------------------

TEST(SampleHouseModel, LoadsCleanlyWithinTheTriangleBudget) {
    const LoadedModel& m = house();
    EXPECT_TRUE(m.warnings.empty()) << m.warnings.front();
    EXPECT_EQ(m.droppedTriangles, 0);
    EXPECT_GE(m.triangleCount(), 30000u);
    EXPECT_LE(m.triangleCount(), 200000u);
    // Every vertex has a unit normal.
    size_t bad = 0;
    for (const float3& n : m.normals) bad += std::fabs(length(n) - 1.0f) > 1e-3f;
    EXPECT_EQ(bad, 0u);
    // Metres, +Y up: a two-storey house with its roof ridge about 9 m up, the garden around it.
    EXPECT_NEAR(m.coreBoundsMin.y, -0.07f, 0.05f);
    EXPECT_GT(m.coreBoundsMax.y, 8.5f);
    EXPECT_LT(m.coreBoundsMax.y, 10.0f);
    EXPECT_GT(m.boundsMax.x - m.boundsMin.x, m.coreBoundsMax.x - m.coreBoundsMin.x);
}

TEST(SampleHouseModel, WindingAgreesWithNormals) {
    const LoadedModel& m = house();
    size_t against = 0;
    for (size_t i = 0; i < m.triangleCount(); ++i) {
        const float3 g = cross(corner(m, i, 1) - corner(m, i, 0), corner(m, i, 2) - corner(m, i, 0));
        const float3 n = m.normals[m.indices[3 * i]] + m.normals[m.indices[3 * i + 1]] + m.normals[m.indices[3 * i + 2]];
        if (dot(g, g) > 1e-14f && dot(g, n) <= 0) ++against;
    }
    EXPECT_EQ(against, 0u);
}

TEST(SampleHouseModel, HasEveryKindOfMaterial) {
    const LoadedModel& m = house();
    ASSERT_GE(m.materials.size(), 11u); // ten of the file's own plus __default
    std::map<std::string, int> kinds;
    std::set<uint32_t> used(m.triMaterial.begin(), m.triMaterial.end());
    for (uint32_t i : used) {
        const ModelMaterial& mat = m.materials[i];
        if (isGlass(mat) && mat.ior > 1.4f && mat.ior < 1.6f) ++kinds["glass"];
        if (isGlass(mat) && mat.transmissionRoughness > 0.1f) ++kinds["frosted glass"];
        if (mat.metallic >= 0.99f && mat.roughness <= 0.05f) ++kinds["mirror"];
        if (!isGlass(mat) && mat.metallic == 0 && mat.roughness <= 0.15f) ++kinds["glossy dielectric"];
        if (mat.metallic == 0 && mat.roughness >= 0.85f) ++kinds["rough dielectric"];
        if (mat.baseColorTexture) ++kinds["textured"];
        if (std::max({mat.emissive.x, mat.emissive.y, mat.emissive.z}) > 0) ++kinds["emissive"];
    }
    for (const char* kind : {"glass", "frosted glass", "mirror", "glossy dielectric", "rough dielectric",
                             "textured", "emissive"})
        EXPECT_GT(kinds[kind], 0) << kind;
    EXPECT_GE(used.size(), 10u);
    EXPECT_EQ(used.count(static_cast<uint32_t>(m.materials.size() - 1)), 0u) << "a primitive fell back to __default";
    // The textures decoded, and the ground plane takes its colour from the lawn.
    ASSERT_FALSE(m.textures.empty());
    for (const auto& t : m.textures) {
        ASSERT_TRUE(t.has_value());
        EXPECT_EQ(t->image.width, 512);
    }
    EXPECT_TRUE(std::any_of(m.materials.begin(), m.materials.end(),
                            [](const ModelMaterial& mat) { return mat.name == "lawn_grass"; }));
}

// Triangles per cut role, and what the storey views make of them.
TEST(SampleHouseModel, CutRolesAndStoreys) {
    const LoadedModel& m = house();
    std::map<CutRole, size_t> perRole;
    std::map<Cutaway, std::map<StoreyVerdict, size_t>> verdicts;
    size_t clippedFixtures = 0;
    for (size_t i = 0; i < m.triangleCount(); ++i) {
        const CutRole role = triangleCutRole(m, i);
        ++perRole[role];
        float y[3], ny[3];
        for (int k = 0; k < 3; ++k) {
            y[k] = corner(m, i, k).y;
            ny[k] = m.normals[m.indices[3 * i + k]].y;
        }
        for (Cutaway view : {Cutaway::noRoof, Cutaway::firstFloor, Cutaway::groundFloor}) {
            const StoreyVerdict v = applyStoreyOutcome(storeyRule(view, role), y, ny);
            ++verdicts[view][v];
            if (view == Cutaway::groundFloor && role == CutRole::fixture && v == StoreyVerdict::clip) ++clippedFixtures;
        }
    }
    for (CutRole role : {CutRole::roof, CutRole::ceil, CutRole::site, CutRole::fixture, CutRole::structure})
        EXPECT_GT(perRole[role], 0u) << static_cast<int>(role);
    // Taking the roof off hides the roof and both ceilings; the first-floor view
    // keeps the ground floor's ceiling and drops the first floor's.
    EXPECT_EQ(verdicts[Cutaway::noRoof][StoreyVerdict::hideRoofCeiling], perRole[CutRole::roof] + perRole[CutRole::ceil]);
    EXPECT_EQ(verdicts[Cutaway::firstFloor][StoreyVerdict::hideRoofCeiling], perRole[CutRole::roof]);
    EXPECT_GT(verdicts[Cutaway::firstFloor][StoreyVerdict::hideAboveCut], 0u);
    EXPECT_GT(verdicts[Cutaway::firstFloor][StoreyVerdict::keep], perRole[CutRole::site]);
    // The ground-floor view clips walls and stairs at 2.8 m, but every piece of
    // furniture and every fitting belongs wholly to one storey.
    EXPECT_GT(verdicts[Cutaway::groundFloor][StoreyVerdict::clip], 0u);
    EXPECT_EQ(clippedFixtures, 0u);
}

// --- the scene contract --------------------------------------------------------

TEST(SampleHouseScene, LoadsWithoutWarnings) {
    const LoadedScene& s = sampleScene();
    EXPECT_TRUE(s.log.empty()) << s.log.front();
    EXPECT_EQ(s.scene.version, 1);
    EXPECT_GE(s.scene.cameras.size(), 4u);
    ASSERT_TRUE(s.scene.defaultCamera.has_value());
    EXPECT_TRUE(std::any_of(s.scene.cameras.begin(), s.scene.cameras.end(),
                            [&](const CameraDef& c) { return c.name == *s.scene.defaultCamera; }));
    ASSERT_TRUE(s.scene.site.has_value());
    EXPECT_TRUE(s.scene.site->utcOffsetHours.has_value());
    EXPECT_TRUE(s.scene.northDeg.has_value());
    EXPECT_TRUE(s.scene.renderDefaults.has_value());
    std::set<TimeOfDay> times;
    for (const CameraDef& c : s.scene.cameras)
        if (c.time) times.insert(*c.time);
    EXPECT_EQ(times.size(), 3u) << "cameras for day, dusk and night";
}

TEST(SampleHouseScene, CamerasStandInsideRoomsWithAClearView) {
    const LoadedModel& m = house();
    int interior = 0, exterior = 0;
    for (const CameraDef& cam : sampleScene().scene.cameras) {
        SCOPED_TRACE(cam.name);
        const float3 eye = cam.eye, target = cam.target;
        for (int k = 0; k < 3; ++k) {
            EXPECT_GE(eye[k], m.boundsMin[k]);
            EXPECT_LE(eye[k], k == 1 ? 40.0f : m.boundsMax[k]);
        }
        if (insideFootprint(eye)) {
            ++interior;
            EXPECT_TRUE(m.isUnderRoof(eye));
            // Enclosed by a room: every axis ray meets the front of a surface or a window.
            for (const float3& axis : kAxes) {
                const Hit h = nearestHit(m, eye, axis, 20.0f, true);
                ASSERT_TRUE(std::isfinite(h.t)) << "open towards " << axis.x << "," << axis.y << "," << axis.z;
                EXPECT_FALSE(h.backFace) << "inside a solid, seen along " << axis.x << "," << axis.y << "," << axis.z;
                EXPECT_GT(h.t, 0.15f) << "pressed against a surface";
            }
        } else {
            ++exterior;
            EXPECT_FALSE(m.isUnderRoof(eye));
        }
        // Nothing in the first metre and a half of the view.
        const Hit ahead = nearestHit(m, eye, normalize(target - eye), 1.5f);
        EXPECT_FALSE(std::isfinite(ahead.t)) << "blocked after " << ahead.t << " m";
    }
    EXPECT_GE(interior, 4);
    EXPECT_GE(exterior, 1);
}

// Rooms by storey; the first-floor lamps are exactly those the ground-floor view switches off.
const std::map<std::string, bool> kRoomOnFirstFloor = {
    {"Hall", false},    {"Kitchen", false}, {"Dining", false}, {"Living", false},   {"Exterior", false},
    {"Landing", true},  {"Bath", true},     {"Study", true},   {"Bedroom", true},   {"Bedroom 2", true},
};

TEST(SampleHouseScene, LampsCoverEveryKindAndSitInRooms) {
    const LoadedModel& m = house();
    const std::vector<LightDef> lamps = sampleScene().scene.lightList();
    ASSERT_GE(lamps.size(), 12u);
    std::set<std::string> kinds;
    for (const LightDef& lamp : lamps) {
        const std::string id = lamp.id.value_or("?");
        SCOPED_TRACE(id);
        ASSERT_TRUE(lamp.kind && lamp.room && lamp.kelvin);
        kinds.insert(*lamp.kind);
        const float flux = lampFluxForRoom(lamp);
        EXPECT_GE(flux, 150.0f);
        EXPECT_LE(flux, 2000.0f);
        EXPECT_GE(*lamp.kelvin, 2200.0f);
        EXPECT_LE(*lamp.kelvin, 5000.0f);
        const float3 p = vec3(lamp.position);
        const auto storey = kRoomOnFirstFloor.find(*lamp.room);
        if (storey != kRoomOnFirstFloor.end()) {
            EXPECT_EQ(isFirstFloorLamp(lamp), storey->second);
        }
        if (*lamp.room == "Exterior") {
            EXPECT_FALSE(m.isUnderRoof(p) && insideFootprint(p));
        } else {
            EXPECT_TRUE(insideFootprint(p));
            EXPECT_TRUE(m.isUnderRoof(p));
        }
        // Where the light build puts the emitter: a sphere about the position,
        // a disc 5 mm and a strip 2 mm along the direction.
        float3 dir = lamp.direction ? normalize(vec3(*lamp.direction)) : float3{0, -1, 0};
        const bool sphere = *lamp.kind == "pendant" ||
                            ((*lamp.kind == "wall" || *lamp.kind == "exterior" || *lamp.kind == "vanity") &&
                             !lamp.direction);
        const float3 centre = sphere ? p : p + dir * (*lamp.kind == "strip" ? 0.002f : 0.005f);
        const float radius = *lamp.kind == "strip" ? lamp.width.value_or(0.012f) / 2 : lamp.radius.value_or(0.045f);
        // A fitting (untagged geometry, or the bollard posts of the garden) within
        // a quarter metre; nothing cuts into the emitter except what lies behind a disc.
        float nearestFitting = INFINITY;
        int intrusions = 0;
        float closestIntrusion = INFINITY;
        for (size_t i = 0; i < m.triangleCount(); ++i) {
            const float3 a = corner(m, i, 0), b = corner(m, i, 1), c = corner(m, i, 2);
            const float d = distanceToTriangle(centre, a, b, c);
            if (d > 0.6f) continue;
            const CutRole role = triangleCutRole(m, i);
            if (role == CutRole::fixture || role == CutRole::site) nearestFitting = std::min(nearestFitting, d);
            const bool behindDisc = !sphere && dot((a + b + c) / 3.0f - centre, dir) < 0;
            if (d < radius + 0.002f && !behindDisc) {
                ++intrusions;
                closestIntrusion = std::min(closestIntrusion, d);
            }
        }
        EXPECT_EQ(intrusions, 0) << "geometry " << closestIntrusion << " m from the emitter";
        EXPECT_LT(nearestFitting, radius + 0.25f) << "no fitting at the lamp";
    }
    for (const char* kind : {"pendant", "strip", "wall", "exterior", "vanity", "downlight"})
        EXPECT_EQ(kinds.count(kind), 1u) << kind;
}

TEST(SampleHouseScene, RoomsHaveTheirOwnLamps) {
    const std::vector<RoomInfo> rooms = roomList(sampleScene().scene.lightList());
    std::map<std::string, float> lumens;
    for (const RoomInfo& r : rooms) lumens[r.key] = r.lumens;
    for (const auto& [room, upstairs] : kRoomOnFirstFloor) EXPECT_GT(lumens[room], 300.0f) << room;
    // A lived-in room at night: of the order of 100 lm per square metre.
    EXPECT_GT(lumens["Living"] / (7.2f * 5.4f), 80.0f);
    EXPECT_GT(lumens["Kitchen"] / (7.1f * 3.9f), 80.0f);
}

} // namespace
} // namespace qv
