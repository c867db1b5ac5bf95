#pragma once
#include "scene/EnumTable.h"

namespace qv {

enum class ToneMapper { agx, aces, clamp };

// "linear" is an alias of the clamp: no curve, values above white clip.
inline constexpr std::array<EnumName<ToneMapper>, 4> kToneMapperNames{{
    {ToneMapper::agx, "agx"}, {ToneMapper::aces, "aces"}, {ToneMapper::clamp, "clamp"}, {ToneMapper::clamp, "linear"}}};

inline std::string_view toString(ToneMapper t) { return enumToName(kToneMapperNames, t); }

} // namespace qv
