#pragma once
#include "scene/EnumTable.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <string>
#include <string_view>

namespace qv {

// The three lighting presets: full daylight, the sun on the horizon, moonlight.
enum class TimeOfDay { day, dusk, night };

inline constexpr std::array<EnumName<TimeOfDay>, 3> kTimeOfDayNames{{
    {TimeOfDay::day, "day"}, {TimeOfDay::dusk, "dusk"}, {TimeOfDay::night, "night"}}};

inline std::string_view toString(TimeOfDay t) { return enumToName(kTimeOfDayNames, t); }

// Users write times of day in any letter case ("Dusk", "NIGHT").
inline std::optional<TimeOfDay> timeOfDayFromName(std::string_view name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return enumFromName(kTimeOfDayNames, lower);
}

// The preset that the sun's apparent elevation calls for: day from 3 degrees
// up, dusk down to -7 degrees (civil twilight, still blue sky), night below.
inline TimeOfDay timeOfDayForSunElevation(double apparentElevationDeg) {
    if (apparentElevationDeg >= 3.0) return TimeOfDay::day;
    if (apparentElevationDeg >= -7.0) return TimeOfDay::dusk;
    return TimeOfDay::night;
}

} // namespace qv
