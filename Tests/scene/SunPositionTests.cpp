#include "scene/SunPosition.h"

#include <gtest/gtest.h>

#include <cmath>

namespace qv {
namespace {

constexpr double kDegToRad = 0.017453292519943295;

// Reference positions and events from an independent ephemeris (the IAU SOFA /
// ERFA solar position through a full ICRS -> topocentric alt/az chain, no
// refraction), for local clock times at each site. Sunrise and sunset are the
// local minutes at which that ephemeris puts the sun's centre 0.833 degrees
// below the horizon. -1 marks an event that does not happen (polar day/night).
struct Reference {
    const char* name;
    double latitude, longitude, utcOffset;
    int year, month, day;
    double clockMinutes;
    double azimuthDeg, geometricElevationDeg;
    double sunriseMin, sunsetMin;
};

const Reference kReferences[] = {
    {"London midsummer noon", 51.4769, -0.0005, 0, 2024, 6, 21, 720, 179.0612, 61.9564, 222.87, 1220.96},
    {"Sydney summer morning", -33.8688, 151.2093, 10, 2023, 12, 22, 570, 81.0844, 57.0626, 281.00, 1145.77},
    {"Delhi equinox evening, UTC+5:30", 28.6139, 77.2090, 5.5, 2024, 3, 20, 1065, 264.8805, 9.5977, 384.90, 1112.60},
    {"Kathmandu winter sunrise, UTC+5:45", 27.7172, 85.3240, 5.75, 2024, 1, 15, 425, 114.7564, 1.0219, 415.81,
     1050.08},
    {"St. John's leap day, UTC-3:30", 47.5615, -52.7126, -3.5, 2024, 2, 29, 920, 230.6986, 21.1954, 402.26, 1064.95},
    // Local 1 July at UTC+14 is still 30 June in UTC.
    {"Kiritimati dawn across the date line", 1.8721, -157.4278, 14, 2024, 7, 1, 390, 66.8763, -0.0812, 386.73,
     1120.44},
    // Local 1 March 08:00 at UTC+12 is the leap day 29 February in UTC.
    {"Suva morning, UTC date a leap day", -18.1416, 178.4419, 12, 2024, 3, 1, 480, 89.5265, 26.3806, 365.06,
     1111.73},
    // Local New Year's Eve at UTC-10 is already the next year in UTC.
    {"Honolulu New Year's Eve night", 21.3069, -157.8583, -10, 2024, 12, 31, 1200, 254.2234, -26.9219, 428.98,
     1080.79},
    {"Quito near the zenith", -0.1807, -78.4678, -5, 2024, 3, 20, 735, 74.8653, 88.4161, 377.87, 1104.36},
    {"Brisbane winter dusk", -27.4698, 153.0251, 10, 2024, 6, 15, 1050, 292.8425, -6.7250, 396.00, 1020.82},
    {"Longyearbyen midnight sun", 78.2232, 15.6267, 2, 2024, 6, 21, 30, 353.1393, 11.7484, -1, -1},
    {"Longyearbyen polar night", 78.2232, 15.6267, 1, 2024, 12, 21, 720, 180.9921, -11.6659, -1, -1},
    {"McMurdo southern midsummer", -77.846, 166.676, 13, 2024, 12, 21, 180, 163.8935, 11.7856, -1, -1},
    {"80 north at midsummer", 80.0, 0.0, 0, 2024, 6, 21, 720, 179.4717, 33.4345, -1, -1},
};

SiteLocation siteOf(const Reference& r) { return SiteLocation{r.latitude, r.longitude, r.utcOffset, false}; }

double angleDifference(double a, double b) {
    const double d = std::fmod(std::fabs(a - b), 360.0);
    return d > 180.0 ? 360.0 - d : d;
}

TEST(SolarPosition, MatchesIndependentEphemerisWithinATenthOfADegree) {
    for (const Reference& r : kReferences) {
        const auto p = SolarPosition::position(r.year, r.month, r.day, r.clockMinutes, siteOf(r));
        EXPECT_NEAR(p.geometricElevationDeg, r.geometricElevationDeg, 0.1) << r.name;
        // Compare azimuths as an angle on the sky, so that a sun near the zenith,
        // where the bearing is ill-conditioned, is held to the same standard.
        const double onSky = angleDifference(p.azimuthDeg, r.azimuthDeg) * std::cos(r.geometricElevationDeg * kDegToRad);
        EXPECT_LE(onSky, 0.1) << r.name << ": azimuth " << p.azimuthDeg << " vs " << r.azimuthDeg;
        EXPECT_GE(p.azimuthDeg, 0.0) << r.name;
        EXPECT_LT(p.azimuthDeg, 360.0) << r.name;
        EXPECT_DOUBLE_EQ(p.elevationDeg, p.geometricElevationDeg + SolarPosition::refraction(p.geometricElevationDeg))
            << r.name;
    }
}

TEST(SolarPosition, SunriseAndSunsetWithinOneMinuteOrAbsentAtThePoles) {
    for (const Reference& r : kReferences) {
        const auto t = SolarPosition::times(r.year, r.month, r.day, siteOf(r));
        if (r.sunriseMin < 0) {
            EXPECT_FALSE(t.sunriseMin.has_value()) << r.name;
            EXPECT_FALSE(t.sunsetMin.has_value()) << r.name;
            continue;
        }
        ASSERT_TRUE(t.sunriseMin && t.sunsetMin) << r.name;
        EXPECT_NEAR(*t.sunriseMin, r.sunriseMin, 1.0) << r.name;
        EXPECT_NEAR(*t.sunsetMin, r.sunsetMin, 1.0) << r.name;
        // Solar noon lies halfway between them to within the drift of the
        // equation of time over half a day (well under a minute).
        EXPECT_NEAR(t.noonMin, 0.5 * (r.sunriseMin + r.sunsetMin), 1.0) << r.name;
    }
}

TEST(SolarPosition, NoonIsWhenTheSunCrossesTheMeridian) {
    // At solar noon the sun stands due south (north of the tropics) and highest.
    const SiteLocation site{51.4769, -0.0005, 0, false};
    const auto t = SolarPosition::times(2024, 6, 21, site);
    const auto p = SolarPosition::position(2024, 6, 21, t.noonMin, site);
    EXPECT_NEAR(p.azimuthDeg, 180.0, 0.05);
    const auto before = SolarPosition::position(2024, 6, 21, t.noonMin - 5, site);
    const auto after = SolarPosition::position(2024, 6, 21, t.noonMin + 5, site);
    EXPECT_GT(p.geometricElevationDeg, before.geometricElevationDeg);
    EXPECT_GT(p.geometricElevationDeg, after.geometricElevationDeg);
}

TEST(SolarPosition, TermsMatchMeeusWorkedExample) {
    // Meeus, Astronomical Algorithms, examples 25.a and 28.b: 1992 October 13.0
    // (JD 2448908.5): apparent declination -7 deg 47' 04" (-7.78507 deg) and
    // equation of time 0.059825 rad of hour angle = 13.711 minutes.
    const auto t = SolarPosition::terms(2448908.5);
    EXPECT_NEAR(t.declinationDeg, -7.78507, 0.0005);
    EXPECT_NEAR(t.equationOfTimeMin, 13.711, 0.01);
}

TEST(SolarPosition, RefractionAgreesWithBennettAboveFiveDegrees) {
    // Bennett (1982): R = 1 / tan(h + 7.31 / (h + 4.4)) arc minutes, an
    // independent fit good to about 0.07' in this range.
    for (double h = 5.5; h <= 85.0; h += 0.5) {
        const double bennett = 1.0 / std::tan((h + 7.31 / (h + 4.4)) * kDegToRad) / 60.0;
        EXPECT_NEAR(SolarPosition::refraction(h), bennett, 0.004) << h;
    }
    EXPECT_EQ(SolarPosition::refraction(85.5), 0.0);
    EXPECT_EQ(SolarPosition::refraction(90.0), 0.0);
    // About half a degree at the horizon (1735"), and positive but small well below it.
    EXPECT_NEAR(SolarPosition::refraction(0.0), 1735.0 / 3600.0, 1e-12);
    EXPECT_GT(SolarPosition::refraction(-3.0), 0.0);
    EXPECT_LT(SolarPosition::refraction(-3.0), 0.2);
    // The pieces meet without a jump worth a hundredth of a degree.
    EXPECT_NEAR(SolarPosition::refraction(5.0), SolarPosition::refraction(5.0 + 1e-9), 0.01);
    EXPECT_NEAR(SolarPosition::refraction(-0.575), SolarPosition::refraction(-0.575 - 1e-9), 0.01);
}

TEST(SolarPosition, PoleAndZenithHaveAFixedBearing) {
    const SiteLocation northPole{90.0, 0.0, 0.0, false};
    const SiteLocation southPole{-90.0, 0.0, 0.0, false};
    EXPECT_EQ(SolarPosition::position(2024, 6, 21, 720, northPole).azimuthDeg, 180.0);
    EXPECT_EQ(SolarPosition::position(2024, 12, 21, 720, southPole).azimuthDeg, 0.0);
    // At a pole the sun's elevation is its declination: about +23.4 at the June solstice.
    EXPECT_NEAR(SolarPosition::position(2024, 6, 21, 720, northPole).geometricElevationDeg, 23.44, 0.05);
}

TEST(Calendar, DaysSinceEpochAndJulianDays) {
    struct Case {
        int64_t year, month, day, days;
    };
    const Case cases[] = {
        {1970, 1, 1, 0},       {1969, 12, 31, -1},   {2000, 1, 1, 10957}, {2000, 3, 1, 11017},
        {2024, 2, 29, 19782},  {2024, 3, 1, 19783},  {1900, 3, 1, -25508},
        // Days beyond the month's length run on into the next month.
        {2023, 2, 30, 19418},  {2023, 3, 2, 19418},  {2024, 2, 30, 19783}, {2024, 4, 31, 19844},
        {2024, 5, 1, 19844},
    };
    for (const auto& c : cases)
        EXPECT_EQ(SolarPosition::daysSinceEpoch(c.year, c.month, c.day), c.days)
            << c.year << "-" << c.month << "-" << c.day;

    // J2000.0 is 2000-01-01 12:00 UTC = JD 2451545.0, whatever the time zone.
    EXPECT_DOUBLE_EQ(SolarPosition::julianDay(2000, 1, 1, 720, 0), 2451545.0);
    EXPECT_DOUBLE_EQ(SolarPosition::julianDay(2000, 1, 1, 1320, 10), 2451545.0);
    EXPECT_DOUBLE_EQ(SolarPosition::julianDay(2000, 1, 1, 510, -3.5), 2451545.0);
    EXPECT_DOUBLE_EQ(SolarPosition::julianDay(2000, 1, 2, 45, 12.75), 2451545.0);
    EXPECT_DOUBLE_EQ(SolarPosition::julianDay(2024, 2, 29, 0, 0), 2460369.5);
}

TEST(SolarPosition, AbsurdDatesStayFinite) {
    const SiteLocation site{45, 10, 1, false};
    for (int64_t year : {int64_t{1}, int64_t{99999}, INT64_MAX}) {
        const auto p = SolarPosition::position(year, 12, 31, 720, site);
        EXPECT_TRUE(std::isfinite(p.azimuthDeg) && std::isfinite(p.elevationDeg)) << year;
        const auto t = SolarPosition::times(year, 12, 31, site);
        EXPECT_TRUE(std::isfinite(t.noonMin)) << year;
    }
}

TEST(DateClockText, ClockStringRoundsAndWraps) {
    struct Case {
        double minutes;
        const char* text;
    };
    const Case cases[] = {{0, "00:00"},        {450.5, "07:31"},     {450.49, "07:30"}, {1439.4, "23:59"},
                          {1439.6, "00:00"},   {1440, "00:00"},      {-1, "23:59"},     {-0.5, "23:59"},
                          {1500, "01:00"},     {720, "12:00"},       {3000, "02:00"}};
    for (const auto& c : cases) EXPECT_EQ(DateClock::clockString(c.minutes), c.text) << c.minutes;
}

TEST(CompassPoints, NearestOfSixteen) {
    struct Case {
        double azimuth;
        const char* name;
    };
    const Case cases[] = {{0, "N"},        {11.24, "N"},     {11.25, "NNE"}, {348.75, "N"},  {348.74, "NNW"},
                          {22.5, "NNE"},   {45, "NE"},       {90, "E"},      {135, "SE"},    {180, "S"},
                          {202.5, "SSW"},  {270, "W"},       {315, "NW"},    {359.9, "N"},   {360, "N"},
                          {-90, "W"},      {-11.25, "N"},    {720 + 90, "E"}, {67.5, "ENE"}, {247.5, "WSW"}};
    for (const auto& c : cases) EXPECT_STREQ(SolarPosition::compassPoint(c.azimuth), c.name) << c.azimuth;
}

} // namespace
} // namespace qv
