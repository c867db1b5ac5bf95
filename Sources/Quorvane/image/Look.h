#pragma once
// The AgX looks: a power curve and a saturation applied after the base curve.
#include "scene/EnumTable.h"

namespace qv {

enum class Look { base, medium, punchy };

inline constexpr std::array<EnumName<Look>, 3> kLookNames{{
    {Look::base, "base"}, {Look::medium, "medium"}, {Look::punchy, "punchy"}}};

inline std::string_view toString(Look l) { return enumToName(kLookNames, l); }

struct LookParams {
    float power = 1.12f;
    float saturation = 1.1f;
};

inline constexpr LookParams lookParams(Look l) {
    switch (l) {
    case Look::base: return {1.0f, 1.0f};
    case Look::medium: return {1.12f, 1.1f};
    case Look::punchy: return {1.35f, 1.4f};
    }
    return {};
}

} // namespace qv
