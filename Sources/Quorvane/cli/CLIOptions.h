#pragma once
// The command line parsed into one value record. The parser only records and
// validates: it opens no files and touches no renderer.
#include "image/DenoiserKind.h"
#include "image/VideoCodec.h"
#include "pathtracer/RenderSettings.h"
#include "raster/RasterView.h"
#include "scene/EnumTable.h"
#include "scene/TimeOfDay.h"
#include "shaders/VecMath.h"

#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv {

class EnvSwitches;

// A parse failure; what() is the whole message.
class CLIError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    std::string description() const { return what(); }
};

// Thrown by the parser for --help or -h: the caller prints usageText() to
// standard output and ends the process successfully. Not an error.
class HelpRequested : public std::exception {
public:
    const char* what() const noexcept override { return "help requested"; }
};

struct CalendarDate {
    int64_t year = 0, month = 0, day = 0;
    friend bool operator==(const CalendarDate&, const CalendarDate&) = default;
};

struct FrameRange {
    int64_t first = 0;
    int64_t last = 0; // inclusive; INT64_MAX for an open end
    friend bool operator==(const FrameRange&, const FrameRange&) = default;
};

struct CLIOptions {
    enum class VideoDenoise { temporal, hybrid, off };

    bool headless = false;
    std::optional<std::string> model;
    std::optional<std::string> scene;
    std::optional<std::string> camera;
    TimeOfDay time = TimeOfDay::day;
    bool timeExplicit = false;
    int64_t spp = 256;
    int64_t width = 1280;
    int64_t height = 720;
    std::optional<std::string> out;
    bool listCameras = false;
    bool denoise = false;
    std::optional<DenoiserKind> denoiser;
    std::optional<int64_t> mfxTemporal;
    std::optional<bool> mfxHistory;
    std::optional<int64_t> mfxEvery;
    bool autoExposure = false;
    std::optional<double> maxSeconds;
    std::optional<int64_t> snapshotAfterFrames;
    std::optional<std::string> uiSelfTest;
    std::optional<std::string> captureWindow;
    double captureAfter = 8.0; // seconds
    std::vector<double> idleCapture;
    std::optional<std::string> idleCaptureOut;
    std::set<std::string> captureUI;
    std::optional<float3> eye;
    std::optional<float3> target;
    std::optional<float> fov; // degrees
    std::optional<std::string> fovAxis; // "vertical" or "horizontal"
    std::optional<std::string> dump;
    std::optional<std::string> dumpGuides;
    std::optional<std::string> dumpRaw;
    std::vector<int64_t> dumpAt;
    std::optional<float> sunAzimuth;   // degrees
    std::optional<float> sunElevation; // degrees
    std::optional<int64_t> sppPerBatch;
    bool raster = false;
    std::optional<int64_t> benchRaster;
    bool parity = false;
    RasterView rasterView = RasterView::full;
    uint32_t rasterProbeRays = 512;
    RenderSettings settings;
    bool sizeExplicit = false;
    std::optional<CalendarDate> date;
    std::optional<double> clockMinutes; // minutes after midnight
    std::optional<std::string> pathFile;
    std::optional<double> fps;
    std::optional<FrameRange> frameRange;
    std::optional<std::string> framesDir;
    Codec codec = Codec::h264;
    std::optional<int64_t> bitrate; // bits per second
    bool overwrite = false;
    std::optional<int64_t> warmupFrames;
    bool encodeOnly = false;
    std::optional<VideoDenoise> videoDenoise;

    // Parses the arguments without the program path. Throws CLIError with the
    // exact message, or HelpRequested for --help / -h. The QA checks read
    // QV_NEE_RIS and QV_NEE_STATS from `env` (the process environment by default).
    static CLIOptions parse(const std::vector<std::string>& args);
    static CLIOptions parse(const std::vector<std::string>& args, const EnvSwitches& env);

    // The width actually rendered: a panorama is rendered wider and cropped.
    int64_t renderWidth() const;

    // Whether these options launch the desktop viewer rather than a headless run.
    bool launchesApplication() const;
};

inline constexpr std::array<EnumName<CLIOptions::VideoDenoise>, 3> kVideoDenoiseNames{{
    {CLIOptions::VideoDenoise::temporal, "temporal"},
    {CLIOptions::VideoDenoise::hybrid, "hybrid"},
    {CLIOptions::VideoDenoise::off, "off"}}};

inline std::string_view toString(CLIOptions::VideoDenoise d) { return enumToName(kVideoDenoiseNames, d); }

// The usage text printed by --help and after every parse error; every line,
// the last included, ends in a newline.
const std::string& usageText();

// Date and clock readers shared by the options and the sun-by-date code.
namespace DateClock {
// "YYYY-MM-DD" (empty pieces between hyphens ignored): year > 0, month 1-12,
// day 1-31; the day is not compared with the month's length.
std::optional<CalendarDate> parseDate(const std::string& text);
// "HH:MM" or "HH:MM:SS", 0 <= HH < 24 and 0 <= MM < 60: minutes after midnight,
// seconds unchecked and counted as fractions of a minute.
std::optional<double> parseClockMinutes(const std::string& text);
// The clock of a date given without one: 12:00.
inline constexpr double kNoonMinutes = 720.0;
} // namespace DateClock

// The options of this process, set once by main before dispatch.
const CLIOptions& launchOptions();
void setLaunchOptions(const CLIOptions& options);

} // namespace qv
