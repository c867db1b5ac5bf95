#pragma once
#include "scene/EnumTable.h"

namespace qv {

enum class Projection { perspective, equirect };

inline constexpr std::array<EnumName<Projection>, 3> kProjectionNames{{
    {Projection::perspective, "perspective"}, {Projection::equirect, "equirect"}, {Projection::equirect, "equirectangular"}}};

inline std::string_view toString(Projection p) { return enumToName(kProjectionNames, p); }

} // namespace qv
