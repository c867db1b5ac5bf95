// Valid command lines and the fields they fill.
#include "CLITestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <tuple>

namespace qv {
namespace {

using test::Args;
using test::Env;
using test::parseArgs;

constexpr int64_t kOpenEnd = std::numeric_limits<int64_t>::max();

TEST(CLIParse, NoArgumentsGiveTheDocumentedDefaults) {
    CLIOptions o = parseArgs({});
    EXPECT_EQ(std::tie(o.headless, o.spp, o.width, o.height, o.sizeExplicit, o.time, o.timeExplicit, o.denoise),
              std::make_tuple(false, 256, 1280, 720, false, TimeOfDay::day, false, false));
    EXPECT_EQ(std::tie(o.captureAfter, o.rasterView, o.rasterProbeRays, o.codec),
              std::make_tuple(8.0, RasterView::full, 512u, Codec::h264));
    EXPECT_FALSE(o.denoiser || o.model || o.scene || o.camera || o.out || o.pathFile || o.fps || o.frameRange ||
                 o.bitrate);
    EXPECT_EQ(o.renderWidth(), 1280);

    // The render settings: depth 10 with roulette from 3, clamp 10 x white,
    // AgX with the medium look, scene lamps on, grid-cell lamp choice, the
    // whole house through a perspective camera.
    const RenderSettings& s = o.settings;
    EXPECT_EQ(std::tie(s.width, s.height, s.maxDepth, s.rrDepth, s.clampMultiple, s.regularizeRoughness, s.noCaustics,
                       s.hideRoof, s.emissiveNits, s.lightScale, s.sceneLights),
              std::make_tuple(1280, 720, 10u, 3u, 10.0f, 0.2f, true, false, 1000.0f, 1.0f, true));
    EXPECT_EQ(std::tie(s.toneMapper, s.exposureCompensation, s.saturation, s.lookPower, s.lookSaturation, s.seed),
              std::make_tuple(ToneMapper::agx, 0.0f, 1.0f, 1.12f, 1.1f, 0u));
    EXPECT_EQ(std::tie(s.skyWidth, s.skyHeight, s.neeMode, s.risCandidates, s.lightGridCell, s.lightGridRays,
                       s.emissiveRoulette, s.textureFootprint, s.cutaway, s.projection),
              std::make_tuple(1024, 512, NEEMode::cell, 8u, 0.25f, 32, 0.1f, 0.75f, Cutaway::whole,
                              Projection::perspective));
    EXPECT_FALSE(s.ev100Override || s.whiteBalanceOverride || s.clipAbove);
    EXPECT_TRUE(s.hideMaterials.empty());
}

struct ValidCase {
    Args args;
    std::function<void(const CLIOptions&)> check;
    Env env = {};
};

TEST(CLIParse, ValidCommandLinesFillTheirFields) {
    using VD = CLIOptions::VideoDenoise;
    const ValidCase cases[] = {
        // Sizes and the panorama's default size.
        {{"--size", "1920X1080"},
         [](const CLIOptions& o) {
             EXPECT_EQ(std::tie(o.width, o.height, o.sizeExplicit), std::make_tuple(1920, 1080, true));
             EXPECT_EQ(std::tie(o.settings.width, o.settings.height), std::make_tuple(1920, 1080));
         }},
        {{"--size", "65536x1"}, [](const CLIOptions& o) { EXPECT_EQ(o.width, 65536); }},
        {{"--projection", "equirect"},
         [](const CLIOptions& o) {
             EXPECT_EQ(std::tie(o.width, o.height, o.settings.width, o.settings.height),
                       std::make_tuple(4096, 2048, 4096, 2048));
             EXPECT_EQ(o.renderWidth(), 4096 + 2 * 85);
         }},
        {{"--projection", "Equirectangular", "--size", "2048x1024"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.settings.projection, Projection::equirect);
             EXPECT_EQ(o.renderWidth(), 2048 + 2 * 42);
         }},
        // --spp and the options that overwrite.
        {{"--spp", "64"}, [](const CLIOptions& o) { EXPECT_EQ(o.spp, 64); }},
        {{"--spp", "+64"}, [](const CLIOptions& o) { EXPECT_EQ(o.spp, 64); }},
        {{"--spp", "8", "--spp", "16"}, [](const CLIOptions& o) { EXPECT_EQ(o.spp, 16); }},
        {{"--time", "dusk", "--time", "NIGHT"},
         [](const CLIOptions& o) { EXPECT_EQ(std::tie(o.time, o.timeExplicit), std::make_tuple(TimeOfDay::night, true)); }},
        // --denoise and its optional kind.
        {{"--denoise", "--spp", "64"},
         [](const CLIOptions& o) {
             EXPECT_FALSE(o.denoiser);
             EXPECT_EQ(std::tie(o.denoise, o.spp), std::make_tuple(true, 64));
         }},
        {{"--denoise"}, [](const CLIOptions& o) { EXPECT_TRUE(o.denoise); }},
        {{"--denoise", "off"}, [](const CLIOptions& o) { EXPECT_FALSE(o.denoise); }},
        {{"--denoise", "metalfx"}, [](const CLIOptions& o) { EXPECT_TRUE(o.denoise && o.denoiser == DenoiserKind::metalfx); }},
        {{"--denoise", "ATROUS"}, [](const CLIOptions& o) { EXPECT_EQ(o.denoiser, DenoiserKind::atrous); }},
        {{"--denoise", "hybrid", "--denoise", "OFF"},
         [](const CLIOptions& o) { EXPECT_TRUE(!o.denoise && o.denoiser == DenoiserKind::hybrid); }},
        // --frames forms.
        {{"--frames", "10:"}, [](const CLIOptions& o) { EXPECT_EQ(o.frameRange, (FrameRange{10, kOpenEnd})); }},
        {{"--frames", ":20"}, [](const CLIOptions& o) { EXPECT_EQ(o.frameRange, (FrameRange{0, 20})); }},
        {{"--frames", "3:3"}, [](const CLIOptions& o) { EXPECT_EQ(o.frameRange, (FrameRange{3, 3})); }},
        {{"--frames", ":"}, [](const CLIOptions& o) { EXPECT_EQ(o.frameRange, (FrameRange{0, kOpenEnd})); }},
        // --wb forms.
        {{"--wb", "1000"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.whiteBalanceOverride, WhiteBalance::kelvin(1000)); }},
        {{"--wb", "25000"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.whiteBalanceOverride, WhiteBalance::kelvin(25000)); }},
        {{"--wb", "AUTO"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.whiteBalanceOverride, WhiteBalance::scene()); }},
        {{"--wb", "scene"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.whiteBalanceOverride, WhiteBalance::scene()); }},
        {{"--wb", "Sky"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.whiteBalanceOverride, WhiteBalance::sky()); }},
        // Launcher arguments are skipped.
        {{"-NSDocumentRevisionsDebugMode", "YES", "--spp", "8"}, [](const CLIOptions& o) { EXPECT_EQ(o.spp, 8); }},
        {{"-AppleLanguages", "(en)", "--headless"}, [](const CLIOptions& o) { EXPECT_TRUE(o.headless); }},
        {{"-psn_0_12345", "--headless"}, [](const CLIOptions& o) { EXPECT_TRUE(o.headless); }},
        // A value is taken whatever it looks like.
        {{"--camera", "--spp"},
         [](const CLIOptions& o) { EXPECT_EQ(std::tie(o.camera, o.spp), std::make_tuple("--spp", 256)); }},
        {{"-o", "a.png", "--out", "b.png"}, [](const CLIOptions& o) { EXPECT_EQ(o.out, "b.png"); }},
        // List options: two accumulate, the others are replaced.
        {{"--hide-material", " Glass, Roof ,,", "--hide-material", "Tile"},
         [](const CLIOptions& o) { EXPECT_EQ(o.settings.hideMaterials, (std::vector<std::string>{"Glass", "Roof", "Tile"})); }},
        {{"--capture-ui", "Rooms, LOG", "--capture-ui", "final"},
         [](const CLIOptions& o) { EXPECT_EQ(o.captureUI, (std::set<std::string>{"final", "log", "rooms"})); }},
        {{"--dump-at", "1,2", "--dump-at", "64,16,0,x,256"},
         [](const CLIOptions& o) { EXPECT_EQ(o.dumpAt, (std::vector<int64_t>{16, 64, 256})); }},
        {{"--idle-capture", "3,0.5,-1,x,0", "idle.png"},
         [](const CLIOptions& o) {
             EXPECT_EQ(std::tie(o.idleCapture, o.idleCaptureOut), std::make_tuple(std::vector<double>{0, 0.5, 3}, "idle.png"));
         }},
        // Keywords are lower-cased and aliases resolve.
        {{"--tonemap", "LINEAR"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.toneMapper, ToneMapper::clamp); }},
        {{"--tonemap", "aces"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.toneMapper, ToneMapper::aces); }},
        {{"--look", "Punchy"},
         [](const CLIOptions& o) { EXPECT_EQ(std::tie(o.settings.lookPower, o.settings.lookSaturation), std::make_tuple(1.35f, 1.4f)); }},
        {{"--look", "base"},
         [](const CLIOptions& o) { EXPECT_EQ(std::tie(o.settings.lookPower, o.settings.lookSaturation), std::make_tuple(1.0f, 1.0f)); }},
        {{"--nee", "TREE"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.neeMode, NEEMode::tree); }},
        {{"--nee", "ris-tree"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.neeMode, NEEMode::risTree); },
         {{"QV_NEE_RIS", "1"}}},
        {{"--debug-nee-stats"}, [](const CLIOptions& o) { EXPECT_TRUE(o.settings.debugNeeStats); },
         {{"QV_NEE_STATS", "1"}}},
        {{"--raster-view", "probes"}, [](const CLIOptions& o) { EXPECT_EQ(o.rasterView, RasterView::irradiance); }},
        {{"--raster-view", "Indirect"}, [](const CLIOptions& o) { EXPECT_EQ(o.rasterView, RasterView::ambient); }},
        {{"--fov-axis", "H"}, [](const CLIOptions& o) { EXPECT_EQ(o.fovAxis, "horizontal"); }},
        {{"--fov-axis", "vertical"}, [](const CLIOptions& o) { EXPECT_EQ(o.fovAxis, "vertical"); }},
        {{"--cutaway", "First_Floor"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.cutaway, Cutaway::firstFloor); }},
        {{"--cutaway", "no-roof", "--cutaway", "HOUSE"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.cutaway, Cutaway::whole); }},
        {{"--codec", "avc"}, [](const CLIOptions& o) { EXPECT_EQ(o.codec, Codec::h264); }},
        {{"--codec", "H265"}, [](const CLIOptions& o) { EXPECT_EQ(o.codec, Codec::hevc); }},
        {{"--video-denoise", "OFF"}, [](const CLIOptions& o) { EXPECT_EQ(o.videoDenoise, VD::off); }},
        // Integers clamped to their floors; the seed keeps its low 32 bits.
        {{"--seed", "4294967297"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.seed, 1u); }},
        {{"--seed", "-1"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.seed, 4294967295u); }},
        {{"--max-depth", "0", "--ris-m", "-3", "--grid-rays", "-5"},
         [](const CLIOptions& o) {
             EXPECT_EQ(std::tie(o.settings.maxDepth, o.settings.risCandidates, o.settings.lightGridRays),
                       std::make_tuple(1u, 1u, 0));
         }},
        {{"--max-depth", "4294967295", "--probe-rays", "16"},
         [](const CLIOptions& o) { EXPECT_EQ(std::tie(o.settings.maxDepth, o.rasterProbeRays), std::make_tuple(4294967295u, 16u)); }},
        {{"--batch", "0", "--snapshot-after", "-4", "--mfx-temporal", "0", "--mfx-every", "0", "--warmup", "-2"},
         [](const CLIOptions& o) {
             EXPECT_EQ(std::tie(o.sppPerBatch, o.snapshotAfterFrames, o.mfxTemporal, o.mfxEvery, o.warmupFrames),
                       std::make_tuple(1, 1, 1, 1, 0));
         }},
        // Ranges at their inclusive ends.
        {{"--fov", "0.1"}, [](const CLIOptions& o) { EXPECT_EQ(o.fov, 0.1f); }},
        {{"--fov", "179"}, [](const CLIOptions& o) { EXPECT_EQ(o.fov, 179.0f); }},
        {{"--fps", "0.5"}, [](const CLIOptions& o) { EXPECT_EQ(o.fps, 0.5); }},
        {{"--fps", "240"}, [](const CLIOptions& o) { EXPECT_EQ(o.fps, 240.0); }},
        {{"--tex-footprint", "0", "--capture-after", "0"},
         [](const CLIOptions& o) { EXPECT_EQ(std::tie(o.settings.textureFootprint, o.captureAfter), std::make_tuple(0.0f, 0.0)); }},
        {{"--tex-footprint", "16"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.textureFootprint, 16.0f); }},
        // Sun by date.
        {{"--date", "2024-06-21", "--clock", "07:30:30"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.date, (CalendarDate{2024, 6, 21}));
             EXPECT_EQ(o.clockMinutes, 450.5);
         }},
        {{"--date", "2024-02-31"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.date, (CalendarDate{2024, 2, 31}));
             EXPECT_FALSE(o.clockMinutes);
         }},
        // Numbers and vectors, C-locale notation.
        {{"--eye", "1, 2.5,-3", "--target", "0,1.6,1e1"},
         [](const CLIOptions& o) {
             EXPECT_EQ(std::tie(o.eye, o.target), std::make_tuple(float3{1, 2.5f, -3}, float3{0, 1.6f, 10}));
         }},
        {{"--eye", "1,,2,x,3"}, [](const CLIOptions& o) { EXPECT_EQ(o.eye, (float3{1, 2, 3})); }},
        {{"--exposure", "-1.5", "--ev100", "12", "--clip-above", "-2.5", "--clamp", "0", "--light-scale", "2",
          "--emissive-nits", "500", "--saturation", "1.2", "--sun-azimuth", "135", "--sun-elevation", "-4"},
         [](const CLIOptions& o) {
             const RenderSettings& s = o.settings;
             EXPECT_EQ(std::tie(s.exposureCompensation, s.clampMultiple, s.lightScale, s.emissiveNits, s.saturation),
                       std::make_tuple(-1.5f, 0.0f, 2.0f, 500.0f, 1.2f));
             EXPECT_EQ(std::tie(s.ev100Override, s.clipAbove, o.sunAzimuth, o.sunElevation),
                       std::make_tuple(12.0f, -2.5f, 135.0f, -4.0f));
         }},
        {{"--grid-cell", "0.5", "--grid-eps", "0.2", "--grid-vmin", "0.1", "--grid-offset", "0.05", "--em-roulette", "0.3"},
         [](const CLIOptions& o) {
             const RenderSettings& s = o.settings;
             EXPECT_EQ(std::tie(s.lightGridCell, s.lightGridEps, s.lightGridVisFloor, s.lightGridOffset, s.emissiveRoulette),
                       std::make_tuple(0.5f, 0.2f, 0.1f, 0.05f, 0.3f));
         }},
        {{"--max-seconds", "2.5", "--bitrate", "1.5M"},
         [](const CLIOptions& o) { EXPECT_EQ(std::tie(o.maxSeconds, o.bitrate), std::make_tuple(2.5, 1500000)); }},
        // Switches.
        {{"--hide-roof", "--emissive-one-sided", "--no-lights", "--caustics", "--debug-no-sky-nee", "--debug-albedo",
          "--mfx-history", "--mfx-view-normals", "--mfx-no-split", "--auto-exposure", "--overwrite", "--encode-only"},
         [](const CLIOptions& o) {
             const RenderSettings& s = o.settings;
             EXPECT_TRUE(s.hideRoof && s.emissiveOneSided && !s.sceneLights && !s.noCaustics && s.debugNoSkyNEE &&
                         s.debugAlbedo && s.mfxViewNormals && s.mfxNoSplit);
             EXPECT_TRUE(o.mfxHistory == true && o.autoExposure && o.overwrite && o.encodeOnly);
         }},
        {{"--path", "walk.json"},
         [](const CLIOptions& o) { EXPECT_EQ(std::tie(o.pathFile, o.headless), std::make_tuple("walk.json", true)); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(test::joined(c.args));
        try {
            c.check(parseArgs(c.args, c.env));
        } catch (const std::exception& e) {
            ADD_FAILURE() << "parse failed: " << e.what();
        }
    }
}

TEST(CLIParse, PanoramaPadGrowsWithWidthInThreeBands) {
    // 32 a side below 1536, width/48 a side to 6143, 128 a side from 6144.
    const std::pair<int64_t, int64_t> cases[] = {{1024, 1088}, {1535, 1599}, {1536, 1600}, {4096, 4266},
                                                 {6143, 6143 + 254}, {6144, 6400}, {16384, 16640}};
    for (const auto& [width, renderWidth] : cases) {
        CLIOptions o;
        o.settings.projection = Projection::equirect;
        o.width = width;
        EXPECT_EQ(o.renderWidth(), renderWidth) << width;
        o.settings.projection = Projection::perspective;
        EXPECT_EQ(o.renderWidth(), width) << width;
    }
}

TEST(CLIParse, ApplicationRunsOnlyWithoutAnyHeadlessOption) {
    const std::pair<Args, bool> cases[] = {
        {{}, true},
        {{"--model", "house.glb", "--denoise", "--spp", "64"}, true},
        {{"--ui-selftest", "out", "--capture-window", "w.png"}, true},
        {{"--headless"}, false},
        {{"--list-cameras"}, false},
        {{"--raster"}, false},
        {{"--bench-raster", "3"}, false},
        {{"--parity"}, false},
        {{"--path", "walk.json"}, false},
    };
    for (const auto& [args, app] : cases) EXPECT_EQ(parseArgs(args).launchesApplication(), app) << test::joined(args);
}

TEST(CLIParse, HelpStopsTheWalkAtOnce) {
    // No check after the walk runs either (--clock without --date).
    for (const Args& args : {Args{"--help"}, Args{"--spp", "8", "-h", "--bogus"}, Args{"--clock", "10:00", "--help"}})
        EXPECT_EQ(test::parseError(args), "<help>") << test::joined(args);
    EXPECT_EQ(test::parseError({"--bogus", "--help"}), "unknown option --bogus");
}

} // namespace
} // namespace qv
