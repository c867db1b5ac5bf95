#pragma once
#include "scene/EnumTable.h"

namespace qv {

enum class DenoiserKind { atrous, metalfx, hybrid };

inline constexpr std::array<EnumName<DenoiserKind>, 3> kDenoiserKindNames{{
    {DenoiserKind::atrous, "atrous"}, {DenoiserKind::metalfx, "metalfx"}, {DenoiserKind::hybrid, "hybrid"}}};

inline std::string_view toString(DenoiserKind d) { return enumToName(kDenoiserKindNames, d); }

} // namespace qv
