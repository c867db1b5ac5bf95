#pragma once
// The lighting environment of a headless run: the time of day from --time, the
// camera or the sun's elevation at a date and clock time, the preset with the
// sun placed, the sun-by-date report line and the notes on the camera's look.
#include "cli/CLIOptions.h"
#include "scene/EnvironmentPreset.h"
#include "scene/SiteLocation.h"
#include "scene/SunPosition.h"

#include <optional>
#include <string>

namespace qv {

struct CameraDef;
struct SiteDef;

struct EnvironmentChoice {
    EnvironmentPreset preset;            // with the sun (not the moon) moved by date and overrides
    TimeOfDay time = TimeOfDay::day;     // the chosen time of day
    std::optional<std::string> sunByDateLine; // "sun by date: ..." when --date was given
    std::optional<SolarPosition::Position> sun; // the computed sun, when --date was given
    SiteLocation site;                   // the site the sun was computed for
    // What chose the preset, for the "environment: " line, e.g. "dusk preset
    // (camera time), camera exposure_ev +1.50"; it ends with `cameraNotes`.
    std::string note;
    // The camera-level settings: ", camera exposure_ev %+.2f" with " (ignored:
    // --ev100)" or " (ignored: not the camera's time)" when it does not apply,
    // and ", camera wb_kelvin ignored (set for <time>)". Empty when none.
    std::string cameraNotes;
    // The camera's exposure_ev in force (stops, 0 when absent or ignored): the
    // value for RenderSettings::cameraExposureEV.
    float cameraExposureEV = 0;
};

// Chooses the environment. The time of day is --time, else the camera's time,
// else day; with --date (and --clock, else 12:00) the sun is computed at `site`
// and, without --time, its apparent elevation picks the preset (day from 3
// degrees, dusk down to -7, night below). At night the moon keeps the night
// preset's place. --sun-azimuth and --sun-elevation apply last. `camera` may be
// null (no camera look).
EnvironmentChoice chooseEnvironment(const CLIOptions& options, const SiteLocation& site, const CameraDef* camera);

// The same with the scene contract's site (the fallback site when absent).
EnvironmentChoice chooseEnvironment(const CLIOptions& options, const std::optional<SiteDef>& site,
                                    const CameraDef* camera);

// The "sun by date: ..." report line.
std::string sunByDateLine(const CalendarDate& date, double clockMinutes, const SiteLocation& site,
                          const SolarPosition::Position& sun, const SolarPosition::Times& times, TimeOfDay time,
                          bool timeExplicit);

} // namespace qv
