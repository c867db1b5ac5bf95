#pragma once
// The command line parsed into one value record. The parser only records and
// validates: it opens no files and touches no renderer.
#include "image/DenoiserKind.h"
#include "image/VideoCodec.h"
#include "pathtracer/RenderSettings.h"
#include "raster/RasterView.h"
#include "scene/TimeOfDay.h"
#include "shaders/VecMath.h"

#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv {

// A parse failure; what() is the whole message.
class CLIError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    std::string description() const { return what(); }
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

    // Parses the arguments without the program path. Throws CLIError.
    // --help prints the usage and exits the process with status 0.
    static CLIOptions parse(const std::vector<std::string>& args);

    // The width actually rendered: a panorama is rendered wider and cropped.
    int64_t renderWidth() const;

    // Whether these options launch the desktop viewer rather than a headless run.
    bool launchesApplication() const;
};

// The usage text printed by --help and after every parse error.
const std::string& usageText();

// Date and clock readers shared by the options and the sun-by-date code.
namespace DateClock {
std::optional<CalendarDate> parseDate(const std::string& text);
std::optional<double> parseClockMinutes(const std::string& text);
} // namespace DateClock

// The options of this process, set once by main before dispatch.
const CLIOptions& launchOptions();
void setLaunchOptions(const CLIOptions& options);

} // namespace qv
