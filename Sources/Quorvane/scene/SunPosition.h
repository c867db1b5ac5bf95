#pragma once
// Where the sun stands over a site at a local date and clock time: the NOAA
// solar calculator equations (after Meeus), with atmospheric refraction, and
// the day's sunrise, solar noon and sunset. Angles are degrees; clock times are
// minutes after local midnight.
#include "scene/SiteLocation.h"

#include <cstdint>
#include <optional>
#include <string>

namespace qv {

namespace DateClock {
// "HH:MM": the minutes rounded to the nearest whole minute (halves away from
// zero) and taken modulo one day, so 1439.6 prints as "00:00".
std::string clockString(double minutes);
} // namespace DateClock

namespace SolarPosition {

// Days from 1970-01-01 to the given Gregorian date. A day beyond the month's
// length runs on into the next month (30 February is 1 or 2 March), and a month
// outside 1-12 runs into the neighbouring years.
int64_t daysSinceEpoch(int64_t year, int64_t month, int64_t day);

// The Julian day of a local clock time on a date at a UTC offset.
double julianDay(int64_t year, int64_t month, int64_t day, double clockMinutes, double utcOffsetHours);

struct Terms {
    double declinationDeg = 0;
    double equationOfTimeMin = 0; // apparent minus mean solar time, minutes
};

// The sun's declination and the equation of time at a Julian day.
Terms terms(double julianDay);

// The rise of a body's apparent elevation over its geometric elevation, degrees
// (the NOAA piecewise fit; 0 above 85 degrees).
double refraction(double elevationDeg);

struct Position {
    double azimuthDeg = 0;          // compass bearing, clockwise from true north, [0, 360)
    double elevationDeg = 0;        // apparent: refraction included
    double geometricElevationDeg = 0; // without refraction
};

// The sun at a local clock time on a date at a site.
Position position(int64_t year, int64_t month, int64_t day, double clockMinutes, const SiteLocation& site);

struct Times {
    std::optional<double> sunriseMin; // absent in polar day or night
    double noonMin = 720;
    std::optional<double> sunsetMin;
};

// Sunrise (upper limb at the horizon with standard refraction, zenith 90.833
// degrees), solar noon and sunset on a local date, in local clock minutes in
// [0, 1440).
Times times(int64_t year, int64_t month, int64_t day, const SiteLocation& site);

// The nearest of the 16 compass points: "N", "NNE", ..., "NNW".
const char* compassPoint(double azimuthDeg);

} // namespace SolarPosition
} // namespace qv
