#pragma once
// How the image is white-balanced: a fixed colour temperature, the sun and sky
// of the preset, or automatically from the visible surfaces of the scene.
#include "scene/TimeOfDay.h"
#include "shaders/VecMath.h"

#include <optional>
#include <string>

namespace qv {

struct WhiteBalance {
    enum class Kind { kelvin, sky, scene };
    Kind kind = Kind::scene;
    float kelvinValue = 6500.0f; // K, meaningful for Kind::kelvin only

    static WhiteBalance kelvin(float k) { return {Kind::kelvin, k}; }
    static WhiteBalance sky() { return {Kind::sky, 6500.0f}; }
    static WhiteBalance scene() { return {Kind::scene, 6500.0f}; }

    friend bool operator==(const WhiteBalance& a, const WhiteBalance& b) {
        return a.kind == b.kind && (a.kind != Kind::kelvin || a.kelvinValue == b.kelvinValue);
    }

    // The text of report lines: "3500 K", "sky (gains 0.912 1.004 1.201)",
    // "auto (gains ...)" once the scene has been measured, and
    // "auto (measured after rendering)" before. `gains` are the gains in force
    // (for sky those of the grey-card illuminant; for scene the measured ones,
    // absent until a measurement exists).
    std::string description(std::optional<float3> gains = std::nullopt) const;
};

// The balance in force: the --wb override, else the camera's default, else the
// preset's own.
WhiteBalance whiteBalanceInForce(const std::optional<WhiteBalance>& overrideWB,
                                 const std::optional<WhiteBalance>& cameraWB, const WhiteBalance& presetWB);

struct CameraDef;
struct RenderDefaults;

// The default white balance before any --wb, with where it came from. An
// absent balance means the preset's own applies.
struct DefaultWhiteBalance {
    std::optional<WhiteBalance> balance;
    std::string source; // "camera wb_kelvin", "day preset", "render_defaults, interior", ...
};

// The rule, first match wins: the camera's wb_kelvin when its look applies at
// `time`; by day the preset (auto); indoors at dusk or night the scene's
// interior default for that time, else for any time, else 3500 K / 3300 K;
// outdoors the exterior default likewise, else the preset (4200 K / 3600 K).
// `interior`: some part of the model lies over the camera's eye. Either
// pointer may be null.
DefaultWhiteBalance defaultWhiteBalance(const CameraDef* camera, TimeOfDay time, bool interior,
                                        const RenderDefaults* renderDefaults);

} // namespace qv
