#pragma once
#include "scene/EnumTable.h"

namespace qv {

enum class TimeOfDay { day, dusk, night };

inline constexpr std::array<EnumName<TimeOfDay>, 3> kTimeOfDayNames{{
    {TimeOfDay::day, "day"}, {TimeOfDay::dusk, "dusk"}, {TimeOfDay::night, "night"}}};

inline std::string_view toString(TimeOfDay t) { return enumToName(kTimeOfDayNames, t); }

} // namespace qv
