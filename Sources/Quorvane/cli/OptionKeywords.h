#pragma once
// Keyword tables of options whose values are not an enumeration of their own
// elsewhere: the --fov-axis names and the --wb keywords.
#include "scene/EnumTable.h"
#include "scene/WhiteBalance.h"

namespace qv {

enum class FovAxis { vertical, horizontal };

inline constexpr std::array<EnumName<FovAxis>, 4> kFovAxisNames{{
    {FovAxis::vertical, "vertical"}, {FovAxis::horizontal, "horizontal"}, {FovAxis::vertical, "v"}, {FovAxis::horizontal, "h"}}};

inline std::string_view toString(FovAxis a) { return enumToName(kFovAxisNames, a); }

// The white balances that --wb names by word; "auto" is the scene balance.
inline constexpr std::array<EnumName<WhiteBalance::Kind>, 3> kWhiteBalanceKeywords{{
    {WhiteBalance::Kind::scene, "auto"}, {WhiteBalance::Kind::scene, "scene"}, {WhiteBalance::Kind::sky, "sky"}}};

} // namespace qv
