#pragma once
// Where the house stands on Earth, for the sun by date, and how compass
// bearings turn into directions in model space.
#include "shaders/VecMath.h"

#include <optional>

namespace qv {

struct SiteDef;

struct SiteLocation {
    double latitudeDeg = 0;    // north positive
    double longitudeDeg = 0;   // east positive
    double utcOffsetHours = 10; // the time zone of the clock times given for the site
    bool isFallback = true;    // true: no usable site in the scene contract

    // A site from the scene contract: latitude and longitude both given and in
    // range (|latitude| <= 90, |longitude| <= 180, |offset| <= 14 when given);
    // the UTC offset defaults to +10. Anything less gives the fallback site.
    static SiteLocation fromScene(std::optional<double> latitudeDeg, std::optional<double> longitudeDeg,
                                  std::optional<double> utcOffsetHours);

    // The site of a scene contract's `site`, or the fallback site without one.
    static SiteLocation fromScene(const std::optional<SiteDef>& site);

    // The fixed site used when the scene names none: Brisbane, Australia, whose
    // clocks keep UTC+10 all year.
    static SiteLocation fallback();

    // " (scene.json site)" or " (fallback site)", as report lines name the source.
    const char* sourceSuffix() const { return isFallback ? " (fallback site)" : " (scene.json site)"; }
};

// The unit vector towards a body at compass bearing `azimuthDeg` (clockwise from
// true north) and `elevationDeg` above the horizon, in model space (+Y up). The
// model's true north lies `northDeg` from its -Z axis turning towards +X, so with
// north 0 a bearing of 0 points along -Z and a bearing of 90 along +X.
float3 bearingToModelDirection(double azimuthDeg, double elevationDeg, double northDeg);

} // namespace qv
