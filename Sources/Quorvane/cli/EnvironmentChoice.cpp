#include "cli/EnvironmentChoice.h"

#include "scene/SceneDescription.h"
#include "scene/TextFormat.h"

namespace qv {

namespace {
std::string clockOrNone(const std::optional<double>& minutes) {
    return minutes ? DateClock::clockString(*minutes) : std::string("none");
}
} // namespace

std::string sunByDateLine(const CalendarDate& date, double clockMinutes, const SiteLocation& site,
                          const SolarPosition::Position& sun, const SolarPosition::Times& times, TimeOfDay time,
                          bool timeExplicit) {
    std::string how(toString(time));
    if (timeExplicit)
        how += " (--time)";
    else {
        how += " from the sun's elevation";
        if (time == TimeOfDay::night) how += " (the moon keeps its place)";
    }
    return strprintf("sun by date: %04lld-%02lld-%02lld %s (UTC%+.0f) at %.3f, %.3f%s: azimuth %.1f (%s), elevation "
                     "%.1f; sunrise %s, sunset %s; %s",
                     static_cast<long long>(date.year), static_cast<long long>(date.month),
                     static_cast<long long>(date.day),
                     DateClock::clockString(clockMinutes).c_str(), site.utcOffsetHours, site.latitudeDeg,
                     site.longitudeDeg, site.sourceSuffix(), sun.azimuthDeg,
                     SolarPosition::compassPoint(sun.azimuthDeg), sun.elevationDeg,
                     clockOrNone(times.sunriseMin).c_str(), clockOrNone(times.sunsetMin).c_str(), how.c_str());
}

EnvironmentChoice chooseEnvironment(const CLIOptions& options, const SiteLocation& site, const CameraDef* camera) {
    EnvironmentChoice choice;
    choice.site = site;

    const bool cameraTime = !options.timeExplicit && camera && camera->time;
    TimeOfDay time = options.timeExplicit ? options.time : (cameraTime ? *camera->time : TimeOfDay::day);
    std::string source = options.timeExplicit ? " (--time)" : (cameraTime ? " (camera time)" : "");

    if (options.date) {
        const CalendarDate& date = *options.date;
        const double clock = options.clockMinutes.value_or(DateClock::kNoonMinutes);
        const SolarPosition::Position sun = SolarPosition::position(date.year, date.month, date.day, clock, site);
        const SolarPosition::Times times = SolarPosition::times(date.year, date.month, date.day, site);
        // Only --time fixes the preset against the sun; a camera's time does not.
        time = options.timeExplicit ? options.time : timeOfDayForSunElevation(sun.elevationDeg);
        source = options.timeExplicit ? " (--time), sun by date" : ", sun by date";
        choice.preset = EnvironmentPreset::preset(time);
        if (time != TimeOfDay::night) {
            choice.preset.sunElevationDeg = static_cast<float>(sun.elevationDeg);
            choice.preset.sunAzimuthDeg = static_cast<float>(sun.azimuthDeg);
        }
        choice.sun = sun;
        choice.sunByDateLine = sunByDateLine(date, clock, site, sun, times, time, options.timeExplicit);
    } else {
        choice.preset = EnvironmentPreset::preset(time);
    }
    choice.time = time;

    if (options.sunAzimuth) {
        choice.preset.sunAzimuthDeg = *options.sunAzimuth;
        source += ", --sun-azimuth";
    }
    if (options.sunElevation) {
        choice.preset.sunElevationDeg = *options.sunElevation;
        source += ", --sun-elevation";
    }

    if (camera) {
        const bool lookApplies = !camera->time || *camera->time == time;
        if (camera->exposureEV) {
            const char* ignored = options.settings.ev100Override ? " (ignored: --ev100)"
                                  : !lookApplies                  ? " (ignored: not the camera's time)"
                                                                  : "";
            choice.cameraNotes +=
                strprintf(", camera exposure_ev %+.2f%s", static_cast<double>(*camera->exposureEV), ignored);
            if (*ignored == '\0') choice.cameraExposureEV = *camera->exposureEV;
        }
        if (camera->wbKelvin && !lookApplies)
            choice.cameraNotes +=
                ", camera wb_kelvin ignored (set for " + std::string(toString(*camera->time)) + ")";
    }

    choice.note = std::string(toString(time)) + " preset" + source + choice.cameraNotes;
    return choice;
}

EnvironmentChoice chooseEnvironment(const CLIOptions& options, const std::optional<SiteDef>& site,
                                    const CameraDef* camera) {
    return chooseEnvironment(options, SiteLocation::fromScene(site), camera);
}

} // namespace qv
