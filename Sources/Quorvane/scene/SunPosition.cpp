#include "scene/SunPosition.h"

#include "scene/TextFormat.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace qv {

namespace {
constexpr double kDegToRad = 0.017453292519943295;
constexpr double kRadToDeg = 1.0 / kDegToRad;
// cos(90.833 deg): the sun's upper limb on the horizon, 0.833 degrees being the
// refraction at the horizon plus the sun's angular radius.
constexpr double kCosSunriseZenith = -0.014538080502496963;

double sinDeg(double a) { return std::sin(a * kDegToRad); }
double cosDeg(double a) { return std::cos(a * kDegToRad); }
double tanDeg(double a) { return std::tan(a * kDegToRad); }

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }
} // namespace

namespace DateClock {
std::string clockString(double minutes) {
    if (!std::isfinite(minutes)) return "--:--";
    const double rounded = std::round(minutes); // halves away from zero
    const double wrapped = std::fmod(std::fmod(rounded, 1440.0) + 1440.0, 1440.0);
    const int m = static_cast<int>(wrapped);
    return strprintf("%02d:%02d", m / 60, m % 60);
}
} // namespace DateClock

namespace SolarPosition {

int64_t daysSinceEpoch(int64_t year, int64_t month, int64_t day) {
    // Far beyond any real date the calendar means nothing; bounding the fields
    // keeps the integer arithmetic below from overflowing on absurd input.
    constexpr int64_t kBound = 1'000'000'000;
    year = std::clamp(year, -kBound, kBound);
    month = std::clamp(month, -kBound, kBound);
    day = std::clamp(day, -kBound, kBound);
    // Carry months outside 1-12 into the year, then count from 1 March so the
    // leap day falls at the end of the counting year (Hinnant's civil algorithm).
    int64_t y = year + floorDiv(month - 1, 12);
    const int64_t m = month - 12 * floorDiv(month - 1, 12);
    y -= m <= 2;
    const int64_t era = floorDiv(y, 400);
    const int64_t yoe = y - era * 400;                                  // [0, 399]
    const int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5;        // day of year of the 1st
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;          // [0, 146096]
    return era * 146097 + doe - 719468 + (day - 1);
}

double julianDay(int64_t year, int64_t month, int64_t day, double clockMinutes, double utcOffsetHours) {
    // Seconds since 1970 of local midnight's UTC date, then the UTC instant.
    const double midnightUTC = static_cast<double>(daysSinceEpoch(year, month, day)) * 86400.0;
    return (midnightUTC + 60.0 * (clockMinutes - 60.0 * utcOffsetHours)) / 86400.0 + 2440587.5;
}

Terms terms(double jd) {
    const double T = (jd - 2451545.0) / 36525.0; // Julian centuries since J2000.0
    double L0 = 280.46646 + T * (36000.76983 + 0.0003032 * T); // geometric mean longitude
    L0 = std::fmod(std::fmod(L0, 360.0) + 360.0, 360.0);
    const double M = 357.52911 + T * (35999.05029 - 0.0001537 * T); // mean anomaly
    const double e = 0.016708634 - T * (0.000042037 + 0.0000001267 * T); // orbit eccentricity
    const double C = sinDeg(M) * (1.914602 - T * (0.004817 + 0.000014 * T)) +
                     sinDeg(2 * M) * (0.019993 - 0.000101 * T) + sinDeg(3 * M) * 0.000289;
    const double omega = 125.04 - 1934.136 * T;
    const double lambda = L0 + C - 0.00569 - 0.00478 * sinDeg(omega); // apparent longitude
    const double eps0 = 23.0 + (26.0 + (21.448 - T * (46.815 + T * (0.00059 - 0.001813 * T))) / 60.0) / 60.0;
    const double eps = eps0 + 0.00256 * cosDeg(omega); // corrected obliquity

    Terms out;
    out.declinationDeg = std::asin(sinDeg(eps) * sinDeg(lambda)) * kRadToDeg;
    const double y = tanDeg(eps / 2) * tanDeg(eps / 2);
    const double L0r = L0 * kDegToRad, Mr = M * kDegToRad;
    out.equationOfTimeMin =
        229.1831180523293 * (y * std::sin(2 * L0r) - 2 * e * std::sin(Mr) +
                             4 * e * y * std::sin(Mr) * std::cos(2 * L0r) - 0.5 * y * y * std::sin(4 * L0r) -
                             1.25 * e * e * std::sin(2 * Mr));
    return out;
}

double refraction(double a) {
    if (a > 85.0) return 0.0;
    const double t = tanDeg(a);
    double arcSeconds;
    if (a > 5.0)
        arcSeconds = 58.1 / t - 0.07 / (t * t * t) + 0.000086 / (t * t * t * t * t);
    else if (a > -0.575)
        arcSeconds = 1735.0 + a * (-518.2 + a * (103.4 + a * (-12.79 + a * 0.711)));
    else
        arcSeconds = -20.772 / t;
    return arcSeconds / 3600.0;
}

Position position(int64_t year, int64_t month, int64_t day, double clockMinutes, const SiteLocation& site) {
    const double phi = site.latitudeDeg;
    const Terms tm = terms(julianDay(year, month, day, clockMinutes, site.utcOffsetHours));
    const double delta = tm.declinationDeg;

    double trueSolar = std::fmod(clockMinutes + tm.equationOfTimeMin + 4.0 * site.longitudeDeg -
                                     60.0 * site.utcOffsetHours, 1440.0);
    trueSolar = std::fmod(trueSolar + 1440.0, 1440.0);
    const double hourAngle = trueSolar / 4.0 - 180.0;

    const double cosZ = std::clamp(sinDeg(phi) * sinDeg(delta) + cosDeg(phi) * cosDeg(delta) * cosDeg(hourAngle),
                                   -1.0, 1.0);
    const double zenith = std::acos(cosZ) * kRadToDeg;

    Position p;
    p.geometricElevationDeg = 90.0 - zenith;
    const double denom = cosDeg(phi) * sinDeg(zenith);
    if (std::fabs(denom) >= 1e-9) {
        const double q = std::clamp((sinDeg(phi) * cosZ - sinDeg(delta)) / denom, -1.0, 1.0);
        const double A = std::acos(q) * kRadToDeg;
        double az = hourAngle > 0 ? std::fmod(A + 180.0, 360.0) : std::fmod(540.0 - A, 360.0);
        az = std::fmod(az + 360.0, 360.0);
        p.azimuthDeg = az;
    } else {
        // Sun at the zenith or observer at a pole: every bearing is as good;
        // take the equator-ward one.
        p.azimuthDeg = phi > 0 ? 180.0 : 0.0;
    }
    p.elevationDeg = p.geometricElevationDeg + refraction(p.geometricElevationDeg);
    return p;
}

namespace {
// The hour angle (degrees) at which the sun's upper limb touches the horizon, or
// none when the sun stays above or below it all day.
std::optional<double> sunriseHourAngle(double latitudeDeg, double declinationDeg) {
    const double x = kCosSunriseZenith / (cosDeg(latitudeDeg) * cosDeg(declinationDeg)) -
                     tanDeg(latitudeDeg) * tanDeg(declinationDeg);
    if (!(std::fabs(x) <= 1.0)) return std::nullopt;
    return std::acos(x) * kRadToDeg;
}

// Two fixed-point steps from `start` minutes; `hourAngleSign` is -1 for sunrise,
// +1 for sunset and 0 for noon.
std::optional<double> solveEvent(int64_t year, int64_t month, int64_t day, const SiteLocation& site,
                                 double start, int hourAngleSign) {
    double estimate = start;
    for (int iteration = 0; iteration < 2; ++iteration) {
        const Terms tm = terms(julianDay(year, month, day, estimate, site.utcOffsetHours));
        double hourAngle = 0.0;
        if (hourAngleSign != 0) {
            const auto ha = sunriseHourAngle(site.latitudeDeg, tm.declinationDeg);
            if (!ha) return std::nullopt;
            hourAngle = hourAngleSign * *ha;
        }
        estimate = 720.0 - 4.0 * (site.longitudeDeg - hourAngle) - tm.equationOfTimeMin +
                   60.0 * site.utcOffsetHours;
        // Where the zone's offset is a day away from the longitude's own (UTC+14
        // at 157 W), the formula lands a day off: the same clock time of the
        // neighbouring day. Keep the estimate on the local date so that the next
        // step takes the declination of the right day.
        estimate = std::fmod(std::fmod(estimate, 1440.0) + 1440.0, 1440.0);
    }
    return estimate;
}
} // namespace

Times times(int64_t year, int64_t month, int64_t day, const SiteLocation& site) {
    Times t;
    t.sunriseMin = solveEvent(year, month, day, site, 360.0, -1);
    t.noonMin = *solveEvent(year, month, day, site, 720.0, 0);
    t.sunsetMin = solveEvent(year, month, day, site, 1080.0, +1);
    return t;
}

const char* compassPoint(double azimuthDeg) {
    static constexpr std::array<const char*, 16> kNames{"N", "NNE", "NE", "ENE", "E", "ESE", "SE", "SSE",
                                                        "S", "SSW", "SW", "WSW", "W", "WNW", "NW", "NNW"};
    if (!std::isfinite(azimuthDeg)) return kNames[0];
    const double a = std::fmod(std::fmod(azimuthDeg, 360.0) + 360.0, 360.0);
    const auto index = static_cast<int64_t>(std::round(a / 22.5)) % 16;
    return kNames[static_cast<size_t>(index)];
}

} // namespace SolarPosition
} // namespace qv
