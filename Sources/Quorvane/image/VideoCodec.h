#pragma once
#include "scene/EnumTable.h"

namespace qv {

enum class Codec { h264, hevc };

inline constexpr std::array<EnumName<Codec>, 4> kCodecNames{{
    {Codec::h264, "h264"}, {Codec::hevc, "hevc"}, {Codec::h264, "avc"}, {Codec::hevc, "h265"}}};

inline std::string_view toString(Codec c) { return enumToName(kCodecNames, c); }

} // namespace qv
