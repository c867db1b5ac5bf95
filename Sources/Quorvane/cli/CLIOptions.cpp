#include "cli/CLIOptions.h"

#include "cli/OptionKeywords.h"
#include "cli/ValueReaders.h"
#include "image/Bitrate.h"
#include "image/Look.h"
#include "scene/EnvSwitches.h"
#include "scene/TextFormat.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>

namespace qv {

namespace {

using cli::ArgCursor;

struct Walk {
    CLIOptions& o;
    ArgCursor& args;
    const std::string& name; // the option being read, for its messages
};

// A keyword value, lower-cased, looked up in its table.
template <class E, std::size_t N>
E keyword(Walk& w, const std::array<EnumName<E>, N>& table, const char* error) {
    std::string v = cli::lowerCased(w.args.value(w.name));
    if (auto e = enumFromName(table, v)) return *e;
    throw CLIError(error);
}

// Counts stored as uint32: max(floor, N), and a number beyond the type is refused
// rather than silently wrapped.
uint32_t countAtLeast(Walk& w, int64_t floor) {
    int64_t n = std::max(floor, w.args.integerValue(w.name));
    if (n > int64_t(std::numeric_limits<uint32_t>::max()))
        throw CLIError(w.name + " must be at most 4294967295");
    return static_cast<uint32_t>(n);
}

int64_t integerAtLeast(Walk& w, int64_t floor) { return std::max(floor, w.args.integerValue(w.name)); }

std::string commaList(const std::array<EnumName<Cutaway>, 4>& table) {
    std::string out;
    for (const auto& entry : table) {
        if (enumToName(table, entry.value) != entry.name) continue; // aliases are not raw values
        if (!out.empty()) out += ", ";
        out += entry.name;
    }
    return out;
}

void readSize(Walk& w) {
    std::string v = cli::lowerCased(w.args.value(w.name));
    auto pieces = cli::splitAt(v, 'x');
    std::optional<int64_t> width, height;
    if (pieces.size() == 2) {
        width = cli::readInteger(pieces[0]);
        height = cli::readInteger(pieces[1]);
    }
    if (!width || !height || *width < 1 || *height < 1) throw CLIError("--size expects WxH");
    if (*width > 65536 || *height > 65536) throw CLIError("--size: each side must be at most 65536");
    w.o.width = *width;
    w.o.height = *height;
    w.o.sizeExplicit = true;
}

void readWhiteBalance(Walk& w) {
    std::string v = cli::lowerCased(w.args.value(w.name));
    if (auto kind = enumFromName(kWhiteBalanceKeywords, v)) {
        w.o.settings.whiteBalanceOverride = *kind == WhiteBalance::Kind::sky ? WhiteBalance::sky() : WhiteBalance::scene();
        return;
    }
    auto kelvin = cli::readFloat(v);
    if (!kelvin || !std::isfinite(*kelvin) || *kelvin < 1000 || *kelvin > 25000)
        throw CLIError("--wb expects kelvin (1000-25000), auto or sky");
    w.o.settings.whiteBalanceOverride = WhiteBalance::kelvin(*kelvin);
}

// --denoise takes an optional kind: a following kind or "off" is consumed,
// anything else is left for the walk as the next option.
void readDenoise(Walk& w) {
    w.o.denoise = true;
    const std::string* next = w.args.peek();
    if (!next) return;
    std::string v = cli::lowerCased(*next);
    if (auto kind = enumFromName(kDenoiserKindNames, v)) {
        w.o.denoiser = *kind;
        w.args.skip();
    } else if (v == "off") {
        w.o.denoise = false;
        w.args.skip();
    }
}

void readFrames(Walk& w) {
    const std::string& v = w.args.value(w.name);
    auto pieces = cli::splitAt(v, ':', true);
    std::optional<int64_t> first, last;
    if (pieces.size() == 2) {
        first = pieces[0].empty() ? std::optional<int64_t>(0) : cli::readInteger(pieces[0]);
        last = pieces[1].empty() ? std::optional<int64_t>(std::numeric_limits<int64_t>::max())
                                 : cli::readInteger(pieces[1]);
    }
    if (!first || !last || *first < 0 || *first > *last)
        throw CLIError("--frames expects A:B (first and last frame, inclusive; A: or :B for open ends)");
    w.o.frameRange = FrameRange{*first, *last};
}

void readCutaway(Walk& w) {
    std::string v = cli::lowerCased(w.args.value(w.name));
    std::replace(v.begin(), v.end(), '_', '-');
    if (v == "house") v = "whole";
    if (auto c = enumFromName(kCutawayNames, v)) {
        w.o.settings.cutaway = *c;
        return;
    }
    throw CLIError("--cutaway must be " + commaList(kCutawayNames));
}

// Comma-separated numbers: those that read and are at least `floor` remain, ascending.
template <class T, class Reader>
std::vector<T> sortedList(const std::string& text, T floor, Reader read) {
    std::vector<T> out;
    for (std::string_view piece : cli::splitAt(text, ','))
        if (auto v = read(cli::trimmedSpace(piece)); v && *v >= floor) out.push_back(*v);
    std::sort(out.begin(), out.end());
    return out;
}

using Apply = void (*)(Walk&);

struct OptionRule {
    std::string_view name;
    Apply apply;
};

// Every option the command line knows, with what it does to the record.
const OptionRule kOptionRules[] = {
    {"--headless", [](Walk& w) { w.o.headless = true; }},
    {"--model", [](Walk& w) { w.o.model = w.args.value(w.name); }},
    {"--scene", [](Walk& w) { w.o.scene = w.args.value(w.name); }},
    {"--camera", [](Walk& w) { w.o.camera = w.args.value(w.name); }},
    {"--list-cameras", [](Walk& w) { w.o.listCameras = true; }},
    {"--time",
     [](Walk& w) {
         w.o.time = keyword(w, kTimeOfDayNames, "--time must be day, dusk or night");
         w.o.timeExplicit = true;
     }},
    {"--spp",
     [](Walk& w) {
         int64_t n = w.args.integerValue(w.name);
         if (n < 1) throw CLIError(strprintf("--spp must be at least 1 (got %lld)", static_cast<long long>(n)));
         w.o.spp = n;
     }},
    {"--size", readSize},
    {"--exposure", [](Walk& w) { w.o.settings.exposureCompensation = w.args.floatValue(w.name); }},
    {"--ev100", [](Walk& w) { w.o.settings.ev100Override = w.args.floatValue(w.name); }},
    {"--wb", readWhiteBalance},
    {"--tonemap",
     [](Walk& w) { w.o.settings.toneMapper = keyword(w, kToneMapperNames, "--tonemap must be agx, aces or clamp"); }},
    {"--saturation", [](Walk& w) { w.o.settings.saturation = w.args.floatValue(w.name); }},
    {"--look",
     [](Walk& w) {
         LookParams p = lookParams(keyword(w, kLookNames, "--look must be base, medium or punchy"));
         w.o.settings.lookPower = p.power;
         w.o.settings.lookSaturation = p.saturation;
     }},
    {"--hide-roof", [](Walk& w) { w.o.settings.hideRoof = true; }},
    {"--hide-material",
     [](Walk& w) {
         for (std::string_view piece : cli::splitAt(w.args.value(w.name), ','))
             if (auto name = cli::trimmedSpace(piece); !name.empty()) w.o.settings.hideMaterials.emplace_back(name);
     }},
    {"--emissive-one-sided", [](Walk& w) { w.o.settings.emissiveOneSided = true; }},
    {"--clip-above",
     [](Walk& w) {
         float h = w.args.floatValue(w.name);
         if (!std::isfinite(h)) throw CLIError("--clip-above expects a finite height");
         w.o.settings.clipAbove = h;
     }},
    {"--no-lights", [](Walk& w) { w.o.settings.sceneLights = false; }},
    {"--light-scale", [](Walk& w) { w.o.settings.lightScale = w.args.floatValue(w.name); }},
    {"--emissive-nits", [](Walk& w) { w.o.settings.emissiveNits = w.args.floatValue(w.name); }},
    {"--max-depth", [](Walk& w) { w.o.settings.maxDepth = countAtLeast(w, 1); }},
    {"--clamp", [](Walk& w) { w.o.settings.clampMultiple = w.args.floatValue(w.name); }},
    {"--caustics", [](Walk& w) { w.o.settings.noCaustics = false; }},
    {"--tex-footprint",
     [](Walk& w) {
         float px = w.args.floatValue(w.name);
         if (!(px >= 0 && px <= 16)) throw CLIError("--tex-footprint expects 0-16 pixels");
         w.o.settings.textureFootprint = px;
     }},
    {"--debug-no-light-nee", [](Walk& w) { w.o.settings.debugNoLightNEE = true; }},
    {"--debug-no-sky-nee", [](Walk& w) { w.o.settings.debugNoSkyNEE = true; }},
    {"--debug-nee-only", [](Walk& w) { w.o.settings.debugNeeOnly = true; }},
    {"--debug-albedo", [](Walk& w) { w.o.settings.debugAlbedo = true; }},
    {"--debug-nee-stats", [](Walk& w) { w.o.settings.debugNeeStats = true; }},
    {"--nee",
     [](Walk& w) { w.o.settings.neeMode = keyword(w, kNEEModeNames, "--nee must be tree, cell, ris-tree or ris-cell"); }},
    {"--ris-m", [](Walk& w) { w.o.settings.risCandidates = countAtLeast(w, 1); }},
    {"--grid-cell", [](Walk& w) { w.o.settings.lightGridCell = w.args.floatValue(w.name); }},
    {"--grid-rays", [](Walk& w) { w.o.settings.lightGridRays = integerAtLeast(w, 0); }},
    {"--grid-eps", [](Walk& w) { w.o.settings.lightGridEps = w.args.floatValue(w.name); }},
    {"--grid-vmin", [](Walk& w) { w.o.settings.lightGridVisFloor = w.args.floatValue(w.name); }},
    {"--grid-offset", [](Walk& w) { w.o.settings.lightGridOffset = w.args.floatValue(w.name); }},
    {"--em-roulette", [](Walk& w) { w.o.settings.emissiveRoulette = w.args.floatValue(w.name); }},
    {"--dump", [](Walk& w) { w.o.dump = w.args.value(w.name); }},
    {"--dump-guides", [](Walk& w) { w.o.dumpGuides = w.args.value(w.name); }},
    {"--dump-raw", [](Walk& w) { w.o.dumpRaw = w.args.value(w.name); }},
    {"--dump-at",
     [](Walk& w) { w.o.dumpAt = sortedList<int64_t>(w.args.value(w.name), 1, cli::readInteger); }},
    {"--denoise", readDenoise},
    {"--mfx-temporal", [](Walk& w) { w.o.mfxTemporal = integerAtLeast(w, 1); }},
    {"--mfx-history", [](Walk& w) { w.o.mfxHistory = true; }},
    {"--mfx-every", [](Walk& w) { w.o.mfxEvery = integerAtLeast(w, 1); }},
    {"--mfx-view-normals", [](Walk& w) { w.o.settings.mfxViewNormals = true; }},
    {"--mfx-no-split", [](Walk& w) { w.o.settings.mfxNoSplit = true; }},
    {"--auto-exposure", [](Walk& w) { w.o.autoExposure = true; }},
    {"--max-seconds",
     [](Walk& w) {
         double s = w.args.doubleValue(w.name);
         if (!(s > 0 && std::isfinite(s))) throw CLIError("--max-seconds expects a positive number of seconds");
         w.o.maxSeconds = s;
     }},
    {"--snapshot-after", [](Walk& w) { w.o.snapshotAfterFrames = integerAtLeast(w, 1); }},
    {"--ui-selftest", [](Walk& w) { w.o.uiSelfTest = w.args.value(w.name); }},
    {"--capture-window", [](Walk& w) { w.o.captureWindow = w.args.value(w.name); }},
    {"--idle-capture",
     [](Walk& w) {
         w.o.idleCapture = sortedList<double>(w.args.value(w.name), 0.0, cli::readDouble);
         w.o.idleCaptureOut = w.args.value(w.name);
     }},
    {"--capture-ui",
     [](Walk& w) {
         std::string v = cli::lowerCased(w.args.value(w.name));
         for (std::string_view piece : cli::splitAt(v, ','))
             if (auto word = cli::trimmedSpace(piece); !word.empty()) w.o.captureUI.emplace(word);
     }},
    {"--capture-after",
     [](Walk& w) {
         double s = w.args.doubleValue(w.name);
         if (!(s >= 0 && std::isfinite(s))) throw CLIError("--capture-after expects seconds");
         w.o.captureAfter = s;
     }},
    {"--batch", [](Walk& w) { w.o.sppPerBatch = integerAtLeast(w, 1); }},
    {"--raster", [](Walk& w) { w.o.raster = true; }},
    {"--bench-raster",
     [](Walk& w) {
         int64_t n = w.args.integerValue(w.name);
         if (n < 1) throw CLIError("--bench-raster needs a frame count of at least 1");
         w.o.benchRaster = n;
     }},
    {"--parity", [](Walk& w) { w.o.parity = true; }},
    {"--raster-view",
     [](Walk& w) {
         w.o.rasterView = keyword(w, kRasterViewNames, "--raster-view must be full, ao, irradiance, direct or ambient");
     }},
    {"--probe-rays",
     [](Walk& w) {
         int64_t n = w.args.integerValue(w.name);
         if (n < 16) throw CLIError("--probe-rays must be at least 16");
         if (n > int64_t(std::numeric_limits<uint32_t>::max()))
             throw CLIError("--probe-rays must be at most 4294967295");
         w.o.rasterProbeRays = static_cast<uint32_t>(n);
     }},
    // The seed keeps the low 32 bits, so any 64-bit number is a valid seed.
    {"--seed", [](Walk& w) { w.o.settings.seed = static_cast<uint32_t>(w.args.integerValue(w.name)); }},
    {"--eye", [](Walk& w) { w.o.eye = w.args.vectorValue(w.name); }},
    {"--target", [](Walk& w) { w.o.target = w.args.vectorValue(w.name); }},
    {"--fov",
     [](Walk& w) {
         float deg = w.args.floatValue(w.name);
         if (!(deg >= 0.1f && deg <= 179.0f))
             throw CLIError("--fov must be between 0.1 and 179.0 degrees (got " + formatFloat(deg) + ")");
         w.o.fov = deg;
     }},
    {"--fov-axis",
     [](Walk& w) {
         w.o.fovAxis = std::string(toString(keyword(w, kFovAxisNames, "--fov-axis must be vertical or horizontal")));
     }},
    {"--sun-azimuth", [](Walk& w) { w.o.sunAzimuth = w.args.floatValue(w.name); }},
    {"--sun-elevation", [](Walk& w) { w.o.sunElevation = w.args.floatValue(w.name); }},
    {"--date",
     [](Walk& w) {
         const std::string& v = w.args.value(w.name);
         w.o.date = DateClock::parseDate(v);
         if (!w.o.date) throw CLIError("--date expects YYYY-MM-DD (got " + v + ")");
     }},
    {"--clock",
     [](Walk& w) {
         const std::string& v = w.args.value(w.name);
         w.o.clockMinutes = DateClock::parseClockMinutes(v);
         if (!w.o.clockMinutes) throw CLIError("--clock expects HH:MM, 24-hour (got " + v + ")");
     }},
    {"--projection",
     [](Walk& w) {
         w.o.settings.projection = keyword(w, kProjectionNames, "--projection must be perspective or equirect");
     }},
    {"--cutaway", readCutaway},
    {"--path", [](Walk& w) { w.o.pathFile = w.args.value(w.name); }},
    {"--fps",
     [](Walk& w) {
         // A rate that does not read counts as 0 and so fails the range.
         double fps = cli::readDouble(w.args.value(w.name)).value_or(0.0);
         if (!(fps > 0 && fps <= 240)) throw CLIError("--fps must be between 1 and 240");
         w.o.fps = fps;
     }},
    {"--frames", readFrames},
    {"--frames-dir", [](Walk& w) { w.o.framesDir = w.args.value(w.name); }},
    {"--codec", [](Walk& w) { w.o.codec = keyword(w, kCodecNames, "--codec must be h264 or hevc"); }},
    {"--bitrate",
     [](Walk& w) {
         w.o.bitrate = parseBitrate(w.args.value(w.name));
         if (!w.o.bitrate) throw CLIError("--bitrate expects e.g. 16M, 8000k or 12000000");
     }},
    {"--video-denoise",
     [](Walk& w) {
         w.o.videoDenoise = keyword(w, kVideoDenoiseNames, "--video-denoise must be temporal, hybrid or off");
     }},
    {"--warmup", [](Walk& w) { w.o.warmupFrames = integerAtLeast(w, 0); }},
    {"--overwrite", [](Walk& w) { w.o.overwrite = true; }},
    {"--encode-only", [](Walk& w) { w.o.encodeOnly = true; }},
    {"--out", [](Walk& w) { w.o.out = w.args.value(w.name); }},
    {"-o", [](Walk& w) { w.o.out = w.args.value(w.name); }},
};

const OptionRule* findRule(std::string_view name) {
    for (const auto& rule : kOptionRules)
        if (rule.name == name) return &rule;
    return nullptr;
}

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

// The checks that need the whole command line, in order; the first failure is the error.
void checkWhole(CLIOptions& o, const EnvSwitches& env) {
    const RenderSettings& s = o.settings;
    if (s.debugNeeOnly && s.debugNoLightNEE)
        throw CLIError("--debug-nee-only and --debug-no-light-nee are mutually exclusive");
    if ((s.neeMode == NEEMode::risTree || s.neeMode == NEEMode::risCell) && !env.isOn("QV_NEE_RIS"))
        throw CLIError("--nee ris-tree / ris-cell are QA modes: run with QV_NEE_RIS=1 in the environment");
    if (s.debugNeeStats && !env.isOn("QV_NEE_STATS"))
        throw CLIError("--debug-nee-stats needs QV_NEE_STATS=1 in the environment");
    if (s.projection == Projection::equirect) {
        if (!o.sizeExplicit) {
            o.width = 4096;
            o.height = 2048;
        } else if (o.width != 2 * o.height) {
            throw CLIError(strprintf("--projection equirect needs a 2:1 --size, such as 4096x2048 (got %lldx%lld)",
                                     static_cast<long long>(o.width), static_cast<long long>(o.height)));
        }
    }
    if (o.pathFile) o.headless = true;
    if (o.clockMinutes && !o.date) throw CLIError("--clock needs --date");
    o.settings.width = o.width;
    o.settings.height = o.height;
}

} // namespace

CLIOptions CLIOptions::parse(const std::vector<std::string>& args) { return parse(args, EnvSwitches::process()); }

CLIOptions CLIOptions::parse(const std::vector<std::string>& args, const EnvSwitches& env) {
    CLIOptions o;
    ArgCursor cursor(args);
    while (!cursor.done()) {
        const std::string& arg = cursor.take();
        if (const OptionRule* rule = findRule(arg)) {
            Walk walk{o, cursor, arg};
            rule->apply(walk);
        } else if (startsWith(arg, "-NS") || startsWith(arg, "-Apple")) {
            // Launcher arguments come as a name and a value.
            cursor.skip();
        } else if (startsWith(arg, "-psn_")) {
            // A process serial number stands alone.
        } else if (arg == "--help" || arg == "-h") {
            throw HelpRequested();
        } else {
            throw CLIError("unknown option " + arg);
        }
    }
    checkWhole(o, env);
    return o;
}

int64_t CLIOptions::renderWidth() const {
    if (settings.projection != Projection::equirect) return width;
    // Panoramas are rendered wider and cropped so both seams get clean pixels:
    // 32 a side below 1536, width/48 a side up to 6143, 128 a side from 6144 on.
    int64_t pad = width < 1536 ? 64 : (width >= 6144 ? 256 : 2 * (width / 48));
    return width + pad;
}

bool CLIOptions::launchesApplication() const {
    return !headless && !listCameras && !raster && !benchRaster && !parity;
}

namespace {
CLIOptions& launchOptionsStorage() {
    static CLIOptions options;
    return options;
}
} // namespace

const CLIOptions& launchOptions() { return launchOptionsStorage(); }
void setLaunchOptions(const CLIOptions& options) { launchOptionsStorage() = options; }

} // namespace qv
