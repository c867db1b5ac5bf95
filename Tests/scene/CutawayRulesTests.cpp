// Cut-away roles, the storey rule on a small house built here, the first-floor
// lamp filter and the room list.
#include "scene/CutawayRules.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace qv {
namespace {

TEST(CutawayRoles, RoleNamesMapCaseInsensitively) {
    const std::pair<const char*, CutRole> table[] = {
        {"roof", CutRole::roof},       {"Roof", CutRole::roof},      {"CEIL", CutRole::ceil},
        {"site", CutRole::site},       {"", CutRole::fixture},       {"wall", CutRole::structure},
        {"roofing", CutRole::structure}, {"ceiling", CutRole::structure}, {"floor", CutRole::structure},
    };
    for (const auto& [name, role] : table) EXPECT_EQ(cutRoleForName(name), role) << "'" << name << "'";
}

TEST(CutawayRoles, RuleTableByRoleAndView) {
    using O = StoreyOutcome;
    const CutRole roles[] = {CutRole::roof, CutRole::ceil, CutRole::site, CutRole::fixture, CutRole::structure};
    const Cutaway views[] = {Cutaway::whole, Cutaway::noRoof, Cutaway::firstFloor, Cutaway::groundFloor};
    const O expected[5][4] = {
        {O::keep, O::hide, O::hide, O::hide},
        {O::keep, O::hide, O::storeyCut, O::hide},
        {O::keep, O::keep, O::keep, O::keep},
        {O::keep, O::keep, O::keep, O::storeyCutUpperFittings},
        {O::keep, O::keep, O::keep, O::storeyCutDownwardFaces},
    };
    for (int r = 0; r < 5; ++r)
        for (int v = 0; v < 4; ++v)
            EXPECT_EQ(storeyRule(views[v], roles[r]), expected[r][v]) << "role " << r << " view " << toString(views[v]);
    EXPECT_EQ(static_cast<int>(O::storeyCut), 0);
    EXPECT_EQ(static_cast<int>(O::hide), 4);
}

// A two-storey house, one or two triangles per part, each with its own role.
struct SmallHouse {
    LoadedModel model;
    std::map<std::string, std::vector<size_t>> parts; // part name -> triangles

    uint16_t role(const std::string& name) {
        if (name.empty()) return 0;
        for (size_t i = 0; i < model.roleNames.size(); ++i)
            if (model.roleNames[i] == name) return static_cast<uint16_t>(i);
        model.roleNames.push_back(name);
        return static_cast<uint16_t>(model.roleNames.size() - 1);
    }
    uint32_t material(const std::string& name) {
        for (size_t i = 0; i < model.materials.size(); ++i)
            if (model.materials[i].name == name) return static_cast<uint32_t>(i);
        model.materials.push_back(ModelMaterial{});
        model.materials.back().name = name;
        return static_cast<uint32_t>(model.materials.size() - 1);
    }
    void add(const std::string& part, const std::string& roleName, const std::string& materialName, float3 a,
             float3 b, float3 c, float normalY) {
        uint32_t n = static_cast<uint32_t>(model.positions.size());
        model.positions.insert(model.positions.end(), {a, b, c});
        float3 nrm = normalY == 0 ? float3{1, 0, 0} : float3{0, normalY, 0};
        model.normals.insert(model.normals.end(), {nrm, nrm, nrm});
        model.uvs.resize(model.positions.size());
        model.indices.insert(model.indices.end(), {n, n + 1, n + 2});
        model.triRole.push_back(role(roleName));
        model.triMaterial.push_back(material(materialName));
        parts[part].push_back(model.triangleCount() - 1);
    }
    void flat(const std::string& part, const std::string& roleName, const std::string& mat, float y, float ny) {
        add(part, roleName, mat, {0, y, 0}, {1, y, 0}, {0, y, 1}, ny);
    }
    void upright(const std::string& part, const std::string& roleName, const std::string& mat, float y0, float y1) {
        add(part, roleName, mat, {0, y0, 0}, {0, y0, 1}, {0, y1, 0}, 0);
    }

    SmallHouse() {
        upright("wall", "wall", "plaster", 0, 5);
        flat("slab underside", "floor", "plaster", 2.75f, -1);
        flat("slab top", "floor", "oak", 2.75f, 1);
        upright("upper wall", "wall", "plaster", 2.8f, 5.2f);
        flat("roof", "roof", "tiles", 6, 1);
        flat("roof by material", "", "Roof", 6.1f, -1);
        flat("ground ceiling", "ceil", "white", 2.7f, -1);
        flat("upper ceiling", "ceil", "white", 5.5f, -1);
        flat("ceiling by material", "", "CEIL", 2.72f, -1);
        upright("pendant", "", "brass", 2.67f, 2.78f);
        upright("sofa", "", "fabric", 0.1f, 0.9f);
        upright("tall cupboard", "", "oak", 0, 3.5f);
        upright("tree", "site", "leaves", 0, 9);
    }

    std::map<std::string, StoreyVerdict> verdicts(Cutaway view) const {
        std::map<std::string, StoreyVerdict> out;
        for (const auto& [part, tris] : parts) {
            size_t t = tris.front();
            float y[3], ny[3];
            for (int k = 0; k < 3; ++k) {
                uint32_t v = model.indices[3 * t + k];
                y[k] = model.positions[v].y;
                ny[k] = model.normals[v].y;
            }
            out[part] = applyStoreyOutcome(storeyRule(view, triangleCutRole(model, t)), y, ny);
        }
        return out;
    }
};

TEST(CutawayViews, EachViewRemovesExactlyItsRoles) {
    using V = StoreyVerdict;
    SmallHouse house;
    // Parts not listed for a view are kept whole.
    const std::map<Cutaway, std::map<std::string, V>> changed = {
        {Cutaway::whole, {}},
        {Cutaway::noRoof,
         {{"roof", V::hideRoofCeiling}, {"roof by material", V::hideRoofCeiling},
          {"ground ceiling", V::hideRoofCeiling}, {"upper ceiling", V::hideRoofCeiling},
          {"ceiling by material", V::hideRoofCeiling}}},
        {Cutaway::firstFloor,
         {{"roof", V::hideRoofCeiling}, {"roof by material", V::hideRoofCeiling},
          {"upper ceiling", V::hideAboveCut}}},
        {Cutaway::groundFloor,
         {{"wall", V::clip}, {"slab underside", V::hideAboveCut}, {"upper wall", V::hideAboveCut},
          {"roof", V::hideRoofCeiling}, {"roof by material", V::hideRoofCeiling},
          {"ground ceiling", V::hideRoofCeiling}, {"upper ceiling", V::hideRoofCeiling},
          {"ceiling by material", V::hideRoofCeiling}, {"pendant", V::hideAboveCut},
          {"tall cupboard", V::clip}}},
    };
    for (const auto& [view, expected] : changed) {
        for (const auto& [part, verdict] : house.verdicts(view)) {
            auto it = expected.find(part);
            V want = it == expected.end() ? V::keep : it->second;
            EXPECT_EQ(static_cast<int>(verdict), static_cast<int>(want)) << toString(view) << ": " << part;
        }
    }
}

TEST(CutawayViews, ModelWithoutRolesIsOnlyCutByTheGroundFloorView) {
    SmallHouse house;
    for (uint16_t& r : house.model.triRole) r = 0;
    for (ModelMaterial& m : house.model.materials) m.name = "paint";
    for (Cutaway view : {Cutaway::noRoof, Cutaway::firstFloor})
        for (const auto& [part, verdict] : house.verdicts(view))
            EXPECT_EQ(verdict, StoreyVerdict::keep) << toString(view) << ": " << part;
    auto ground = house.verdicts(Cutaway::groundFloor);
    EXPECT_EQ(ground["wall"], StoreyVerdict::clip);
    EXPECT_EQ(ground["tree"], StoreyVerdict::clip) << "without the site role the tree is cut too";
    EXPECT_EQ(ground["roof"], StoreyVerdict::hideAboveCut);
    EXPECT_EQ(ground["sofa"], StoreyVerdict::keep);
    EXPECT_EQ(ground["slab top"], StoreyVerdict::hideAboveCut) << "untagged fittings at 2.66 m or above go";
}

TEST(CutawayViews, StoreyCutThresholds) {
    const float up[3] = {1, 1, 1};
    const float down[3] = {-1, -1, -1};
    const float tilted[3] = {-0.5f, -0.5f, -0.5f}; // summing to exactly -1.5 is not "looking down"
    struct Case {
        StoreyOutcome outcome;
        float y[3];
        const float* ny;
        StoreyVerdict want;
    };
    const Case cases[] = {
        {StoreyOutcome::storeyCut, {0, 1, 2.8001f}, up, StoreyVerdict::keep},
        {StoreyOutcome::storeyCut, {0, 1, 2.8002f}, up, StoreyVerdict::clip},
        {StoreyOutcome::storeyCut, {2.7999f, 3, 3}, up, StoreyVerdict::hideAboveCut},
        {StoreyOutcome::storeyCut, {2.7998f, 3, 3}, up, StoreyVerdict::clip},
        {StoreyOutcome::storeyCut, {2.7f, 2.7f, 2.7f}, down, StoreyVerdict::keep},
        {StoreyOutcome::storeyCutUpperFittings, {2.66f, 2.7f, 2.7f}, up, StoreyVerdict::hideAboveCut},
        {StoreyOutcome::storeyCutUpperFittings, {2.65f, 2.7f, 2.7f}, up, StoreyVerdict::keep},
        {StoreyOutcome::storeyCutDownwardFaces, {2.7f, 2.7f, 2.7f}, down, StoreyVerdict::hideAboveCut},
        {StoreyOutcome::storeyCutDownwardFaces, {2.69f, 2.7f, 2.7f}, down, StoreyVerdict::keep},
        {StoreyOutcome::storeyCutDownwardFaces, {2.75f, 2.75f, 2.75f}, up, StoreyVerdict::keep},
        {StoreyOutcome::storeyCutDownwardFaces, {2.75f, 2.75f, 2.75f}, tilted, StoreyVerdict::keep},
        {StoreyOutcome::keep, {9, 9, 9}, down, StoreyVerdict::keep},
        {StoreyOutcome::hide, {0, 0, 0}, up, StoreyVerdict::hideRoofCeiling},
    };
    for (const Case& c : cases)
        EXPECT_EQ(applyStoreyOutcome(c.outcome, c.y, c.ny), c.want)
            << static_cast<int>(c.outcome) << " at " << c.y[0] << ", " << c.y[1] << ", " << c.y[2];
}

LightDef lampAt(std::vector<float> position, std::optional<std::string> room = {}) {
    LightDef lamp;
    lamp.position = std::move(position);
    lamp.room = std::move(room);
    return lamp;
}

TEST(CutawayLamps, GroundFloorViewSwitchesOffTheStoreyAbove) {
    const std::vector<LightDef> lamps = {
        lampAt({0, 2.8f, 0}), lampAt({0, 2.79f, 0}), lampAt({0, 5}), lampAt({0, NAN, 0}), lampAt({1, 4.5f, 1}),
    };
    int removed = -1;
    std::vector<LightDef> kept = lampsKeptInView(lamps, Cutaway::groundFloor, removed);
    EXPECT_EQ(removed, 3);
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_FLOAT_EQ(kept[0].position[1], 2.79f);
    EXPECT_EQ(kept[1].position.size(), 2u) << "a short position stays";
    for (Cutaway view : {Cutaway::whole, Cutaway::noRoof, Cutaway::firstFloor}) {
        EXPECT_EQ(lampsKeptInView(lamps, view, removed).size(), lamps.size());
        EXPECT_EQ(removed, 0);
    }
}

TEST(CutawayRooms, RoomsAreGroupedAndSortedByDisplayName) {
    LightDef strip = lampAt({0, 2, 0}, "Kitchen"), kitchen = strip, loose = lampAt({0, 2, 0}),
             bath = lampAt({0, 2, 0}, "Bath"), unknown = bath;
    strip.end = std::vector<float>{3, 2, 4};
    strip.lumensPerM = 100;
    kitchen.lumens = 800;
    loose.lumens = 600;
    bath.lumens = INFINITY;
    std::vector<RoomInfo> rooms = roomList({kitchen, loose, bath, strip, unknown});
    ASSERT_EQ(rooms.size(), 3u);
    EXPECT_EQ(roomDisplayName(rooms[0].key), "(no room)");
    // A non-finite flux and a missing one count 0; the strip gives 100 lm/m over its 5 m.
    const std::tuple<std::string, int, float> expected[] = {{"", 1, 600}, {"Bath", 2, 0}, {"Kitchen", 2, 800 + 100 * 5}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(rooms[i].key, std::get<0>(expected[i]));
        EXPECT_EQ(rooms[i].count, std::get<1>(expected[i])) << rooms[i].key;
        EXPECT_FLOAT_EQ(rooms[i].lumens, std::get<2>(expected[i])) << rooms[i].key;
    }
}

TEST(CutawayRooms, DisabledRoomsDropTheirLamps) {
    const std::vector<LightDef> lamps = {lampAt({0, 1, 0}, "Kitchen"), lampAt({0, 1, 0}), lampAt({0, 1, 0}, "Bath")};
    std::vector<LightDef> kept = lampsInEnabledRooms(lamps, {"Kitchen", ""});
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].room.value_or(""), "Bath");
    EXPECT_EQ(lampsInEnabledRooms(lamps, {}).size(), 3u);
}

} // namespace
} // namespace qv
