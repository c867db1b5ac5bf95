#include "scene/CutawayRules.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>

namespace qv {

namespace {

std::string lowerCased(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

} // namespace

CutRole cutRoleForName(std::string_view roleName) {
    const std::string name = lowerCased(roleName);
    if (name == "roof") return CutRole::roof;
    if (name == "ceil") return CutRole::ceil;
    if (name == "site") return CutRole::site;
    if (name.empty()) return CutRole::fixture;
    return CutRole::structure;
}

CutRole triangleCutRole(const LoadedModel& model, size_t triangle) {
    std::string_view roleName;
    if (triangle < model.triRole.size() && model.triRole[triangle] < model.roleNames.size())
        roleName = model.roleNames[model.triRole[triangle]];
    CutRole role = cutRoleForName(roleName);
    if (role != CutRole::fixture) return role;
    if (triangle < model.triMaterial.size() && model.triMaterial[triangle] < model.materials.size()) {
        const std::string material = lowerCased(model.materials[model.triMaterial[triangle]].name);
        if (material == "roof") return CutRole::roof;
        if (material == "ceil") return CutRole::ceil;
    }
    return CutRole::fixture;
}

StoreyOutcome storeyRule(Cutaway view, CutRole role) {
    switch (view) {
    case Cutaway::whole:
        return StoreyOutcome::keep;
    case Cutaway::noRoof:
        return role == CutRole::roof || role == CutRole::ceil ? StoreyOutcome::hide : StoreyOutcome::keep;
    case Cutaway::firstFloor:
        if (role == CutRole::roof) return StoreyOutcome::hide;
        if (role == CutRole::ceil) return StoreyOutcome::storeyCut;
        return StoreyOutcome::keep;
    case Cutaway::groundFloor:
        switch (role) {
        case CutRole::roof:
        case CutRole::ceil: return StoreyOutcome::hide;
        case CutRole::site: return StoreyOutcome::keep;
        case CutRole::fixture: return StoreyOutcome::storeyCutUpperFittings;
        case CutRole::structure: return StoreyOutcome::storeyCutDownwardFaces;
        }
    }
    return StoreyOutcome::keep;
}

StoreyVerdict applyStoreyOutcome(StoreyOutcome outcome, const float y[3], const float ny[3]) {
    if (outcome == StoreyOutcome::keep) return StoreyVerdict::keep;
    if (outcome == StoreyOutcome::hide) return StoreyVerdict::hideRoofCeiling;
    const float lo = std::min({y[0], y[1], y[2]});
    const float hi = std::max({y[0], y[1], y[2]});
    if (hi > kStoreyAbove) return lo >= kStoreyBelow ? StoreyVerdict::hideAboveCut : StoreyVerdict::clip;
    if (outcome == StoreyOutcome::storeyCutUpperFittings && lo >= kUpperFittingLow) return StoreyVerdict::hideAboveCut;
    if (outcome == StoreyOutcome::storeyCutDownwardFaces && lo >= kSlabUndersideLow &&
        ny[0] + ny[1] + ny[2] < -1.5f)
        return StoreyVerdict::hideAboveCut;
    return StoreyVerdict::keep;
}

bool isFirstFloorLamp(const LightDef& lamp) {
    if (lamp.position.size() < 3) return false;
    const float y = lamp.position[1];
    return !(y < kStoreyHeight); // NaN counts as upstairs
}

std::vector<LightDef> lampsKeptInView(const std::vector<LightDef>& lamps, Cutaway view, int& removed) {
    removed = 0;
    if (view != Cutaway::groundFloor) return lamps;
    std::vector<LightDef> kept;
    kept.reserve(lamps.size());
    for (const LightDef& lamp : lamps) {
        if (isFirstFloorLamp(lamp))
            ++removed;
        else
            kept.push_back(lamp);
    }
    return kept;
}

std::vector<LightDef> lampsInEnabledRooms(const std::vector<LightDef>& lamps,
                                          const std::set<std::string>& disabledRooms) {
    if (disabledRooms.empty()) return lamps;
    std::vector<LightDef> kept;
    kept.reserve(lamps.size());
    for (const LightDef& lamp : lamps)
        if (!disabledRooms.count(lamp.room.value_or(""))) kept.push_back(lamp);
    return kept;
}

float lampFluxForRoom(const LightDef& lamp) {
    float flux = 0;
    if (lamp.lumens) {
        flux = *lamp.lumens;
    } else if (lamp.lumensPerM && lamp.end && lamp.end->size() >= 3 && lamp.position.size() >= 3) {
        const std::vector<float>& e = *lamp.end;
        const float dx = e[0] - lamp.position[0], dy = e[1] - lamp.position[1], dz = e[2] - lamp.position[2];
        flux = *lamp.lumensPerM * std::sqrt(dx * dx + dy * dy + dz * dz);
    }
    return std::isfinite(flux) ? flux : 0.0f;
}

std::string roomDisplayName(std::string_view key) { return key.empty() ? "(no room)" : std::string(key); }

std::vector<RoomInfo> roomList(const std::vector<LightDef>& lamps) {
    std::map<std::string, RoomInfo> byKey;
    for (const LightDef& lamp : lamps) {
        const std::string key = lamp.room.value_or("");
        RoomInfo& room = byKey[key];
        room.key = key;
        room.count += 1;
        room.lumens += lampFluxForRoom(lamp);
    }
    std::vector<RoomInfo> rooms;
    rooms.reserve(byKey.size());
    for (auto& [key, room] : byKey) rooms.push_back(std::move(room));
    // std::string compares bytes, which for UTF-8 is code-point order.
    std::stable_sort(rooms.begin(), rooms.end(), [](const RoomInfo& a, const RoomInfo& b) {
        return roomDisplayName(a.key) < roomDisplayName(b.key);
    });
    return rooms;
}

} // namespace qv
