#include "cli/CLIOptions.h"

#include <string_view>

namespace qv {

namespace {

struct UsageEntry {
    std::string_view form;    // the option with its argument form
    std::string_view meaning; // one line, with the default where there is one
};

// The options of the usage, in the order users look for them: input, camera,
// light, image, quality, output, video, QA, viewer.
constexpr UsageEntry kUsageEntries[] = {
    {"--model PATH",
     "house model, glTF binary (default: ../viewer/house.glb next to the package when it is there, "
     "else the bundled house.glb in ../share/quorvane/ next to the program or Resources/ in the package)"},
    {"--scene PATH", "scene contract (default: <model dir>/scene.json, then sample_scene.json)"},
    {"--camera NAME", "camera from scene.json (default: its \"default_camera\")"},
    {"--list-cameras", "print the scene's cameras and exit"},
    {"--eye X,Y,Z --target X,Y,Z --fov DEG",
     "ad-hoc camera: eye and look-at point in metres, field of view 0.1-179 degrees"},
    {"--fov-axis vertical|horizontal", "axis that --fov spans (v or h for short)"},
    {"--time day|dusk|night", "lighting preset (default: the camera's scene.json \"time\", else day)"},
    {"--sun-azimuth DEG", "sun bearing, degrees clockwise from true north"},
    {"--sun-elevation DEG", "sun height above the horizon, degrees"},
    {"--date YYYY-MM-DD --clock HH:MM",
     "sun by date: the real sun at the scene's site on that local date and 24-hour time (default clock 12:00)"},
    {"--projection perspective|equirect", "camera projection; equirect renders a 360-degree panorama"},
    {"--cutaway whole|no-roof|first-floor|ground-floor", "cut-away view of the house (default whole)"},
    {"--spp N", "samples per pixel (default 256)"},
    {"--size WxH", "image size in pixels (default 1280x720; 4096x2048 for equirect)"},
    {"--exposure STOPS", "exposure compensation relative to the preset, + is brighter (default 0)"},
    {"--ev100 EV", "absolute exposure as EV100, instead of the preset's"},
    {"--wb K|auto|sky", "white balance: kelvin 1000-25000, auto from the scene, or the sky's"},
    {"--tonemap agx|aces|clamp", "tone mapper (default agx)"},
    {"--saturation S", "colour saturation (default 1)"},
    {"--look base|medium|punchy", "AgX look (default medium)"},
    {"--hide-roof", "remove the roof and ceilings"},
    {"--hide-material A,B", "remove the named materials (repeatable)"},
    {"--clip-above METRES", "section cut: remove everything above this height"},
    {"--no-lights", "switch the scene.json lamps off"},
    {"--light-scale S", "multiplier of every scene lamp (default 1)"},
    {"--emissive-nits CD", "luminance of emissive surfaces per unit strength (default 1000 cd/m2)"},
    {"--emissive-one-sided", "emissive surfaces emit along their normals only"},
    {"--max-depth N", "maximum path depth (default 10, with Russian roulette after 3)"},
    {"--clamp K", "firefly clamp in multiples of white (default 10; 0 turns it off)"},
    {"--caustics", "keep caustic paths through glass and mirrors (dropped by default)"},
    {"--tex-footprint PX", "texture filter width, 0-16 pixels (default 0.75; 0 is the finest mip)"},
    {"--denoise [atrous|metalfx|hybrid|off]", "denoise the image, optionally naming the denoiser; off turns it off"},
    {"--auto-exposure", "expose from the rendered image"},
    {"--max-seconds S", "stop sampling after S seconds"},
    {"--batch N", "samples per batch (default adaptive, about 150 ms of rendering each)"},
    {"--seed N", "random seed (default 0)"},
    {"--out PATH, -o PATH", "output PNG (still, panorama) or video .mp4/.mov (camera path)"},
    {"--path PATH.json", "render a camera path (implies --headless)"},
    {"--fps N", "video frame rate, 1-240"},
    {"--frames A:B", "render frames A to B, inclusive (A: or :B for open ends)"},
    {"--frames-dir DIR", "folder of the frame PNGs; a run resumes the frames already there"},
    {"--codec h264|hevc", "video codec (default H.264 High)"},
    {"--bitrate R", "video bit rate, e.g. 16M, 8000k or 12000000 (default about 0.26 bit per pixel per frame)"},
    {"--video-denoise temporal|hybrid|off", "denoising of the video frames"},
    {"--overwrite", "render frames again even when they exist"},
    {"--encode-only", "encode the existing frames without rendering"},
    {"--dump PATH", "also write the linear radiance dump with its JSON sidecar"},
    {"--debug-no-light-nee", "MIS check: no next-event estimation of lamps and emitters"},
    {"--debug-no-sky-nee", "MIS check: no next-event estimation of the sun and sky"},
    {"--debug-nee-only", "MIS check: direct light by next-event estimation only"},
    {"--debug-albedo", "render the surface albedo instead of light"},
    {"--raster", "render one realtime raster frame to --out"},
    {"--bench-raster N", "time N realtime raster frames"},
    {"--parity", "write a raster / path-traced parity image to --out"},
    {"--raster-view full|ao|irradiance|direct|ambient", "raster term to show (default full)"},
    {"--snapshot-after N", "viewer: save the preview after N frames, then quit"},
    {"--capture-window PNG", "viewer: capture the window after --capture-after seconds (default 8)"},
    {"--capture-ui A,B", "viewer: prepare the window capture (rooms, log, bottom, final)"},
    {"--ui-selftest DIR", "viewer: run the scripted UI self-test, writing its results to DIR"},
};

constexpr std::size_t kFormColumn = 2;
constexpr std::size_t kMeaningColumn = 34;
constexpr std::size_t kLineWidth = 110;

// The meaning broken at spaces so that no line passes kLineWidth; the
// continuation lines start at the meaning column.
std::string wrappedMeaning(std::string_view meaning) {
    const std::size_t width = kLineWidth - kMeaningColumn;
    std::string out;
    while (meaning.size() > width) {
        std::size_t cut = meaning.rfind(' ', width);
        if (cut == std::string_view::npos || cut == 0) cut = meaning.find(' ');
        if (cut == std::string_view::npos) break;
        out += std::string(meaning.substr(0, cut)) + "\n" + std::string(kMeaningColumn, ' ');
        meaning.remove_prefix(cut + 1);
    }
    return out + std::string(meaning);
}

std::string buildUsage() {
    std::string text =
        "Quorvane - CPU ray-traced path tracer for the house walkthrough model.\n"
        "\n"
        "App (default; also \"quorvane\" with no options): progressive viewport, sidebar controls, final renders, "
        "auto-reload\n"
        "  quorvane --model house.glb --scene scene.json\n"
        "\n"
        "Headless still:\n"
        "  quorvane --headless --model house.glb --camera living --time dusk --spp 1024 --denoise -o living.png\n"
        "\n"
        "360-degree panorama (equirectangular, 2:1, level horizon, heading from --target):\n"
        "  quorvane --headless --projection equirect --eye 2,1.6,3 --target 3,1.6,3 --spp 512 -o pano.png\n"
        "\n"
        "Camera path (fly-through video):\n"
        "  quorvane --path path.json --fps 30 --spp 256 --denoise --frames-dir frames -o walk.mp4\n"
        "\n"
        "Options:\n";
    for (const auto& entry : kUsageEntries) {
        std::string line(kFormColumn, ' ');
        line += entry.form;
        // A form too wide for its column puts the meaning on a line of its own.
        if (line.size() + 1 >= kMeaningColumn) {
            text += line + "\n";
            line.assign(kMeaningColumn, ' ');
        } else {
            line.resize(kMeaningColumn, ' ');
        }
        text += line;
        text += wrappedMeaning(entry.meaning);
        text += "\n";
    }
    text += "  --help, -h" + std::string(kMeaningColumn - 12, ' ') + "print this text\n";
    return text;
}

} // namespace

const std::string& usageText() {
    static const std::string text = buildUsage();
    return text;
}

} // namespace qv
