#include "scene/SiteLocation.h"

#include "scene/SceneDescription.h"

#include <cmath>

namespace qv {

namespace {
constexpr double kDegToRad = 0.017453292519943295;
}

SiteLocation SiteLocation::fallback() {
    return SiteLocation{-27.4698, 153.0251, 10.0, true};
}

SiteLocation SiteLocation::fromScene(std::optional<double> latitudeDeg, std::optional<double> longitudeDeg,
                                     std::optional<double> utcOffsetHours) {
    if (!latitudeDeg || !longitudeDeg) return fallback();
    const double lat = *latitudeDeg, lon = *longitudeDeg;
    if (!std::isfinite(lat) || !std::isfinite(lon) || std::fabs(lat) > 90.0 || std::fabs(lon) > 180.0)
        return fallback();
    if (utcOffsetHours && (!std::isfinite(*utcOffsetHours) || std::fabs(*utcOffsetHours) > 14.0))
        return fallback();
    return SiteLocation{lat, lon, utcOffsetHours.value_or(10.0), false};
}

SiteLocation SiteLocation::fromScene(const std::optional<SiteDef>& site) {
    if (!site) return fallback();
    return fromScene(site->latitude, site->longitude, site->utcOffsetHours);
}

float3 bearingToModelDirection(double azimuthDeg, double elevationDeg, double northDeg) {
    const double bearing = (azimuthDeg + northDeg) * kDegToRad;
    const double elevation = elevationDeg * kDegToRad;
    const double x = std::sin(bearing) * std::cos(elevation);
    const double y = std::sin(elevation);
    const double z = -std::cos(bearing) * std::cos(elevation);
    const double length = std::sqrt(x * x + y * y + z * z);
    if (!(length > 0.0) || !std::isfinite(length)) return {0.0f, 1.0f, 0.0f};
    return {static_cast<float>(x / length), static_cast<float>(y / length), static_cast<float>(z / length)};
}

} // namespace qv
