#pragma once
#include "scene/EnumTable.h"

namespace qv {

// How next-event estimation chooses a lamp: the light tree, the baked
// light-visibility grid cell, or resampled (RIS) variants of either.
enum class NEEMode { tree, cell, risTree, risCell };

inline constexpr std::array<EnumName<NEEMode>, 4> kNEEModeNames{{
    {NEEMode::tree, "tree"}, {NEEMode::cell, "cell"}, {NEEMode::risTree, "ris-tree"}, {NEEMode::risCell, "ris-cell"}}};

inline std::string_view toString(NEEMode m) { return enumToName(kNEEModeNames, m); }

} // namespace qv
