#pragma once
// The fixed lighting of each time of day: where the sun (at night the moon)
// stands, how strong and warm it is above the atmosphere, how the sky is tinted,
// the exposure a photographer would choose and the white balance. An immutable
// value once built; the sun by date may move the sun within it.
#include "scene/TimeOfDay.h"
#include "scene/WhiteBalance.h"
#include "shaders/VecMath.h"


namespace qv {

struct EnvironmentPreset {
    TimeOfDay time = TimeOfDay::day;
    float sunElevationDeg = 45;     // degrees above the horizon
    float sunAzimuthDeg = 35;       // compass bearing, degrees clockwise from true north
    float sunScale = 1;             // multiplier of the sun's top-of-atmosphere radiance
    float sunTOAKelvin = 5900;      // K, the sun (moon) above the atmosphere
    float3 skyTint{2.3f, 2.3f, 2.3f};  // per-channel multiplier of the scattered sky
    float3 skyFloor{0, 0, 0};          // additive sky radiance floor, cd/m2 per channel
    float mieScale = 1.6f;          // multiplier of the aerosol density
    float mieG = 0.8f;              // aerosol phase asymmetry
    float sunAngularRadiusDeg = 0.27f; // degrees
    float ev100 = 11.4f;            // exposure value at ISO 100
    WhiteBalance whiteBalance = WhiteBalance::scene();

    // The fixed preset of a time of day.
    static EnvironmentPreset preset(TimeOfDay time);

    friend bool operator==(const EnvironmentPreset&, const EnvironmentPreset&) = default;
};

} // namespace qv
