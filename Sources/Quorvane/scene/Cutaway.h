#pragma once
#include "scene/EnumTable.h"

namespace qv {

// Which part of the house a view cuts away.
enum class Cutaway { whole, noRoof, firstFloor, groundFloor };

inline constexpr std::array<EnumName<Cutaway>, 4> kCutawayNames{{
    {Cutaway::whole, "whole"},
    {Cutaway::noRoof, "no-roof"},
    {Cutaway::firstFloor, "first-floor"},
    {Cutaway::groundFloor, "ground-floor"}}};

inline std::string_view toString(Cutaway c) { return enumToName(kCutawayNames, c); }

// What a triangle is to the cut-away rules.
enum class CutRole { roof, ceil, site, fixture, structure };

} // namespace qv
