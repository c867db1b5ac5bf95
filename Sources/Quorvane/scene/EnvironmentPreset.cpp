#include "scene/EnvironmentPreset.h"

namespace qv {

EnvironmentPreset EnvironmentPreset::preset(TimeOfDay time) {
    EnvironmentPreset p;
    p.time = time;
    switch (time) {
    case TimeOfDay::day:
        p.sunElevationDeg = 45;
        p.sunAzimuthDeg = 35;
        p.sunScale = 1;
        p.sunTOAKelvin = 5900;
        p.skyTint = {2.3f, 2.3f, 2.3f};
        p.skyFloor = {0, 0, 0};
        p.mieScale = 1.6f;
        p.mieG = 0.8f;
        p.sunAngularRadiusDeg = 0.27f;
        p.ev100 = 11.4f;
        p.whiteBalance = WhiteBalance::scene();
        break;
    case TimeOfDay::dusk:
        // The sun just above the western horizon, the sky's blue lifted by a floor.
        p.sunElevationDeg = 2;
        p.sunAzimuthDeg = 290;
        p.sunScale = 0.12f;
        p.sunTOAKelvin = 5900;
        p.skyTint = {1.3f, 1.3f, 1.45f};
        p.skyFloor = {0.4f, 0.6f, 1.4f};
        p.mieScale = 1.6f;
        p.mieG = 0.8f;
        p.sunAngularRadiusDeg = 0.27f;
        p.ev100 = 7.3f;
        p.whiteBalance = WhiteBalance::kelvin(4200);
        break;
    case TimeOfDay::night:
        // The "sun" is the moon: 4e-5 of the sun's strength, high in the north-east.
        p.sunElevationDeg = 35;
        p.sunAzimuthDeg = 60;
        p.sunScale = 0.00004f;
        p.sunTOAKelvin = 4100;
        p.skyTint = {0.95f, 0.9f, 0.95f};
        p.skyFloor = {2.4f, 1.9f, 1.45f};
        p.mieScale = 1.0f;
        p.mieG = 0.8f;
        p.sunAngularRadiusDeg = 0.27f;
        p.ev100 = 6.6f;
        p.whiteBalance = WhiteBalance::kelvin(3600);
        break;
    }
    return p;
}

} // namespace qv
