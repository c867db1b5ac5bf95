#pragma once
// What each cut-away view removes. Every triangle gets a cut role from its
// node role or, failing that, its material name; a rule table maps role and
// view to an outcome, and the outcome with the triangle's vertex heights and
// normals decides whether it stays, goes, or is clipped at the storey height.
// Lamps are grouped into rooms by their `room` key, and the ground-floor view
// switches off the lamps of the storey above.
#include "scene/Cutaway.h"
#include "scene/LoadedModel.h"
#include "scene/SceneDescription.h"

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

// Height of the first floor above the model origin (model y, metres). The
// comparisons leave a tenth of a millimetre of slack either side of it.
inline constexpr float kStoreyHeight = 2.8f;
inline constexpr float kStoreyAbove = 2.8001f;
inline constexpr float kStoreyBelow = 2.7999f;
// Fittings hanging this high are counted with the storey above.
inline constexpr float kUpperFittingLow = 2.66f;
// Downward faces this high are the underside of the first-floor slab.
inline constexpr float kSlabUndersideLow = 2.7f;

// What the rule table says for a (role, view) pair, in the order of their numbers 0-4.
enum class StoreyOutcome { storeyCut, storeyCutUpperFittings, storeyCutDownwardFaces, keep, hide };

// What happens to one triangle.
enum class StoreyVerdict {
    keep,            // stays whole
    hideRoofCeiling, // removed by the view (counted as roof/ceiling hidden)
    hideAboveCut,    // removed by the storey cut (counted as hidden above it)
    clip,            // crosses the storey height: clipped at kStoreyHeight
};

// The role of a node role name, compared lower-cased: "roof", "ceil", "site";
// the empty name (no role) is `fixture`, any other name is `structure`.
CutRole cutRoleForName(std::string_view roleName);

// The role of one triangle: its node role, or for an untagged triangle its
// material's lower-cased name "roof" or "ceil" (else `fixture`).
CutRole triangleCutRole(const LoadedModel& model, size_t triangle);

// The rule table.
StoreyOutcome storeyRule(Cutaway view, CutRole role);

// Applies an outcome to a triangle with vertex heights y[3] and the y
// components of its vertex normals ny[3].
StoreyVerdict applyStoreyOutcome(StoreyOutcome outcome, const float y[3], const float ny[3]);

// Whether a lamp belongs to the first floor: a position of at least three
// numbers whose y is 2.8 m or more, or not a number.
bool isFirstFloorLamp(const LightDef& lamp);

// The lamps a view keeps, in order; `removed` receives the number switched off.
std::vector<LightDef> lampsKeptInView(const std::vector<LightDef>& lamps, Cutaway view, int& removed);

// The lamps whose room (empty when absent) is not among the disabled rooms.
std::vector<LightDef> lampsInEnabledRooms(const std::vector<LightDef>& lamps,
                                          const std::set<std::string>& disabledRooms);

// One room of the lamp list.
struct RoomInfo {
    std::string key;   // the lamps' `room`, empty for lamps without one
    int count = 0;     // number of lamps
    float lumens = 0;  // their total flux, lm
};

// A lamp's flux as the room list counts it: `lumens` when given, else
// `lumens_per_m` times the distance from position to end, else 0; a
// non-finite result counts 0.
float lampFluxForRoom(const LightDef& lamp);

// The name a room is shown by: its key, or "(no room)" for the empty key.
std::string roomDisplayName(std::string_view key);

// Rooms of the lamp list, sorted by display name in code-point order.
std::vector<RoomInfo> roomList(const std::vector<LightDef>& lamps);

} // namespace qv
