// Valid command lines and the fields they fill.
#include "CLITestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>

namespace qv {
namespace {

using test::Args;
using test::Env;
using test::parseArgs;

constexpr int64_t kOpenEnd = std::numeric_limits<int64_t>::max();

TEST(CLIParse, NoArgumentsGiveTheDocumentedDefaults) {
    CLIOptions o = parseArgs({});
    EXPECT_FALSE(o.headless);
    EXPECT_EQ(o.spp, 256);
    EXPECT_EQ(o.width, 1280);
    EXPECT_EQ(o.height, 720);
    EXPECT_FALSE(o.sizeExplicit);
    EXPECT_EQ(o.time, TimeOfDay::day);
    EXPECT_FALSE(o.timeExplicit);
    EXPECT_FALSE(o.denoise);
    EXPECT_FALSE(o.denoiser);
    EXPECT_EQ(o.captureAfter, 8.0);
    EXPECT_EQ(o.rasterView, RasterView::full);
    EXPECT_EQ(o.rasterProbeRays, 512u);
    EXPECT_EQ(o.codec, Codec::h264);
    EXPECT_FALSE(o.model || o.scene || o.camera || o.out || o.pathFile || o.fps || o.frameRange || o.bitrate);
    EXPECT_EQ(o.renderWidth(), 1280);

    // The render settings: 1280 x 720, depth 10 with roulette from 3, clamp
    // 10 x white, AgX with the medium look, scene lamps on, grid-cell lamp
    // choice, the whole house through a perspective camera.
    const RenderSettings& s = o.settings;
    EXPECT_EQ(s.width, 1280);
    EXPECT_EQ(s.height, 720);
    EXPECT_EQ(s.maxDepth, 10u);
    EXPECT_EQ(s.rrDepth, 3u);
    EXPECT_EQ(s.clampMultiple, 10.0f);
    EXPECT_EQ(s.regularizeRoughness, 0.2f);
    EXPECT_TRUE(s.noCaustics);
    EXPECT_FALSE(s.hideRoof);
    EXPECT_EQ(s.emissiveNits, 1000.0f);
    EXPECT_EQ(s.lightScale, 1.0f);
    EXPECT_TRUE(s.sceneLights);
    EXPECT_EQ(s.toneMapper, ToneMapper::agx);
    EXPECT_EQ(s.exposureCompensation, 0.0f);
    EXPECT_FALSE(s.ev100Override);
    EXPECT_FALSE(s.whiteBalanceOverride);
    EXPECT_EQ(s.saturation, 1.0f);
    EXPECT_EQ(s.lookPower, 1.12f);
    EXPECT_EQ(s.lookSaturation, 1.1f);
    EXPECT_EQ(s.seed, 0u);
    EXPECT_EQ(s.skyWidth, 1024);
    EXPECT_EQ(s.skyHeight, 512);
    EXPECT_EQ(s.neeMode, NEEMode::cell);
    EXPECT_EQ(s.risCandidates, 8u);
    EXPECT_EQ(s.lightGridCell, 0.25f);
    EXPECT_EQ(s.lightGridRays, 32);
    EXPECT_EQ(s.emissiveRoulette, 0.1f);
    EXPECT_EQ(s.textureFootprint, 0.75f);
    EXPECT_EQ(s.cutaway, Cutaway::whole);
    EXPECT_EQ(s.projection, Projection::perspective);
    EXPECT_FALSE(s.clipAbove);
    EXPECT_TRUE(s.hideMaterials.empty());
}

struct ValidCase {
    Args args;
    std::function<void(const CLIOptions&)> check;
    Env env = {};
};

TEST(CLIParse, ValidCommandLinesFillTheirFields) {
    const ValidCase cases[] = {
        // Sizes and the panorama's default size.
        {{"--size", "1920X1080"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.width, 1920);
             EXPECT_EQ(o.height, 1080);
             EXPECT_TRUE(o.sizeExplicit);
             EXPECT_EQ(o.settings.width, 1920);
             EXPECT_EQ(o.settings.height, 1080);
         }},
        {{"--size", "65536x1"}, [](const CLIOptions& o) { EXPECT_EQ(o.width, 65536); }},
        {{"--projection", "equirect"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.width, 4096);
             EXPECT_EQ(o.height, 2048);
             EXPECT_EQ(o.settings.width, 4096);
             EXPECT_EQ(o.settings.height, 2048);
             EXPECT_EQ(o.renderWidth(), 4096 + 2 * 85);
         }},
        {{"--projection", "Equirectangular", "--size", "2048x1024"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.settings.projection, Projection::equirect);
             EXPECT_EQ(o.width, 2048);
             EXPECT_EQ(o.renderWidth(), 2048 + 2 * 42);
         }},
        // --spp and the options that overwrite.
        {{"--spp", "64"}, [](const CLIOptions& o) { EXPECT_EQ(o.spp, 64); }},
        {{"--spp", "+64"}, [](const CLIOptions& o) { EXPECT_EQ(o.spp, 64); }},
        {{"--spp", "8", "--spp", "16"}, [](const CLIOptions& o) { EXPECT_EQ(o.spp, 16); }},
        {{"--time", "dusk", "--time", "NIGHT"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.time, TimeOfDay::night);
             EXPECT_TRUE(o.timeExplicit);
         }},
        // --denoise and its optional kind.
        {{"--denoise", "--spp", "64"},
         [](const CLIOptions& o) {
             EXPECT_TRUE(o.denoise);
             EXPECT_FALSE(o.denoiser);
             EXPECT_EQ(o.spp, 64);
         }},
        {{"--denoise"}, [](const CLIOptions& o) { EXPECT_TRUE(o.denoise); }},
        {{"--denoise", "off"}, [](const CLIOptions& o) { EXPECT_FALSE(o.denoise); }},
        {{"--denoise", "metalfx"},
         [](const CLIOptions& o) {
             EXPECT_TRUE(o.denoise);
             EXPECT_EQ(o.denoiser, DenoiserKind::metalfx);
         }},
        {{"--denoise", "ATROUS"}, [](const CLIOptions& o) { EXPECT_EQ(o.denoiser, DenoiserKind::atrous); }},
        {{"--denoise", "hybrid", "--denoise", "OFF"},
         [](const CLIOptions& o) {
             EXPECT_FALSE(o.denoise);
             EXPECT_EQ(o.denoiser, DenoiserKind::hybrid);
         }},
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
         [](const CLIOptions& o) {
             EXPECT_EQ(o.camera, "--spp");
             EXPECT_EQ(o.spp, 256);
         }},
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
             EXPECT_EQ(o.idleCapture, (std::vector<double>{0, 0.5, 3}));
             EXPECT_EQ(o.idleCaptureOut, "idle.png");
         }},
        // Keywords are lower-cased and aliases resolve.
        {{"--tonemap", "LINEAR"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.toneMapper, ToneMapper::clamp); }},
        {{"--tonemap", "aces"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.toneMapper, ToneMapper::aces); }},
        {{"--look", "Punchy"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.settings.lookPower, 1.35f);
             EXPECT_EQ(o.settings.lookSaturation, 1.4f);
         }},
        {{"--look", "base"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.settings.lookPower, 1.0f);
             EXPECT_EQ(o.settings.lookSaturation, 1.0f);
         }},
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
        {{"--video-denoise", "OFF"}, [](const CLIOptions& o) { EXPECT_EQ(o.videoDenoise, CLIOptions::VideoDenoise::off); }},
        // Integers clamped to their floors; the seed keeps its low 32 bits.
        {{"--seed", "4294967297"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.seed, 1u); }},
        {{"--seed", "-1"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.seed, 4294967295u); }},
        {{"--max-depth", "0", "--ris-m", "-3", "--grid-rays", "-5"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.settings.maxDepth, 1u);
             EXPECT_EQ(o.settings.risCandidates, 1u);
             EXPECT_EQ(o.settings.lightGridRays, 0);
         }},
        {{"--max-depth", "4294967295", "--probe-rays", "16"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.settings.maxDepth, 4294967295u);
             EXPECT_EQ(o.rasterProbeRays, 16u);
         }},
        {{"--batch", "0", "--snapshot-after", "-4", "--mfx-temporal", "0", "--mfx-every", "0", "--warmup", "-2"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.sppPerBatch, 1);
             EXPECT_EQ(o.snapshotAfterFrames, 1);
             EXPECT_EQ(o.mfxTemporal, 1);
             EXPECT_EQ(o.mfxEvery, 1);
             EXPECT_EQ(o.warmupFrames, 0);
         }},
        // Ranges at their inclusive ends.
        {{"--fov", "0.1"}, [](const CLIOptions& o) { EXPECT_EQ(o.fov, 0.1f); }},
        {{"--fov", "179"}, [](const CLIOptions& o) { EXPECT_EQ(o.fov, 179.0f); }},
        {{"--fps", "0.5"}, [](const CLIOptions& o) { EXPECT_EQ(o.fps, 0.5); }},
        {{"--fps", "240"}, [](const CLIOptions& o) { EXPECT_EQ(o.fps, 240.0); }},
        {{"--tex-footprint", "0", "--capture-after", "0"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.settings.textureFootprint, 0.0f);
             EXPECT_EQ(o.captureAfter, 0.0);
         }},
        {{"--tex-footprint", "16"}, [](const CLIOptions& o) { EXPECT_EQ(o.settings.textureFootprint, 16.0f); }},
        // Sun by date.
        {{"--date", "2024-06-21", "--clock", "07:30:30"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.date, (CalendarDate{2024, 6, 21}));
             EXPECT_EQ(o.clockMinutes, 450.5);
         }},
        {{"--date", "2024-02-31"}, [](const CLIOptions& o) {
             EXPECT_EQ(o.date, (CalendarDate{2024, 2, 31}));
             EXPECT_FALSE(o.clockMinutes);
         }},
        // Numbers and vectors, C-locale notation.
        {{"--eye", "1, 2.5,-3", "--target", "0,1.6,1e1"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.eye, (float3{1, 2.5f, -3}));
             EXPECT_EQ(o.target, (float3{0, 1.6f, 10}));
         }},
        {{"--eye", "1,,2,x,3"}, [](const CLIOptions& o) { EXPECT_EQ(o.eye, (float3{1, 2, 3})); }},
        {{"--exposure", "-1.5", "--ev100", "12", "--clip-above", "-2.5", "--clamp", "0", "--light-scale", "2",
          "--emissive-nits", "500", "--saturation", "1.2", "--sun-azimuth", "135", "--sun-elevation", "-4"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.settings.exposureCompensation, -1.5f);
             EXPECT_EQ(o.settings.ev100Override, 12.0f);
             EXPECT_EQ(o.settings.clipAbove, -2.5f);
             EXPECT_EQ(o.settings.clampMultiple, 0.0f);
             EXPECT_EQ(o.settings.lightScale, 2.0f);
             EXPECT_EQ(o.settings.emissiveNits, 500.0f);
             EXPECT_EQ(o.settings.saturation, 1.2f);
             EXPECT_EQ(o.sunAzimuth, 135.0f);
             EXPECT_EQ(o.sunElevation, -4.0f);
         }},
        {{"--grid-cell", "0.5", "--grid-eps", "0.2", "--grid-vmin", "0.1", "--grid-offset", "0.05", "--em-roulette", "0.3"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.settings.lightGridCell, 0.5f);
             EXPECT_EQ(o.settings.lightGridEps, 0.2f);
             EXPECT_EQ(o.settings.lightGridVisFloor, 0.1f);
             EXPECT_EQ(o.settings.lightGridOffset, 0.05f);
             EXPECT_EQ(o.settings.emissiveRoulette, 0.3f);
         }},
        {{"--max-seconds", "2.5", "--bitrate", "1.5M"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.maxSeconds, 2.5);
             EXPECT_EQ(o.bitrate, 1500000);
         }},
        // Switches.
        {{"--hide-roof", "--emissive-one-sided", "--no-lights", "--caustics", "--debug-no-sky-nee", "--debug-albedo",
          "--mfx-history", "--mfx-view-normals", "--mfx-no-split", "--auto-exposure", "--overwrite", "--encode-only"},
         [](const CLIOptions& o) {
             EXPECT_TRUE(o.settings.hideRoof);
             EXPECT_TRUE(o.settings.emissiveOneSided);
             EXPECT_FALSE(o.settings.sceneLights);
             EXPECT_FALSE(o.settings.noCaustics);
             EXPECT_TRUE(o.settings.debugNoSkyNEE);
             EXPECT_TRUE(o.settings.debugAlbedo);
             EXPECT_EQ(o.mfxHistory, true);
             EXPECT_TRUE(o.settings.mfxViewNormals);
             EXPECT_TRUE(o.settings.mfxNoSplit);
             EXPECT_TRUE(o.autoExposure);
             EXPECT_TRUE(o.overwrite);
             EXPECT_TRUE(o.encodeOnly);
         }},
        {{"--path", "walk.json"},
         [](const CLIOptions& o) {
             EXPECT_EQ(o.pathFile, "walk.json");
             EXPECT_TRUE(o.headless);
         }},
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
    struct Case {
        int64_t width, renderWidth;
    };
    // 32 a side below 1536, width/48 a side to 6143, 128 a side from 6144.
    const Case cases[] = {{1024, 1088}, {1535, 1599}, {1536, 1600}, {4096, 4266},
                          {6143, 6143 + 254}, {6144, 6400}, {16384, 16640}};
    for (const auto& c : cases) {
        CLIOptions o;
        o.settings.projection = Projection::equirect;
        o.width = c.width;
        EXPECT_EQ(o.renderWidth(), c.renderWidth) << c.width;
        o.settings.projection = Projection::perspective;
        EXPECT_EQ(o.renderWidth(), c.width) << c.width;
    }
}

TEST(CLIParse, ApplicationRunsOnlyWithoutAnyHeadlessOption) {
    struct Case {
        Args args;
        bool app;
    };
    const Case cases[] = {
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
    for (const auto& c : cases) EXPECT_EQ(parseArgs(c.args).launchesApplication(), c.app) << test::joined(c.args);
}

TEST(CLIParse, HelpStopsTheWalkAtOnce) {
    EXPECT_EQ(test::parseError({"--help"}), "<help>");
    EXPECT_EQ(test::parseError({"--spp", "8", "-h", "--bogus"}), "<help>");
    // No check after the walk runs either.
    EXPECT_EQ(test::parseError({"--clock", "10:00", "--help"}), "<help>");
    EXPECT_EQ(test::parseError({"--bogus", "--help"}), "unknown option --bogus");
}

} // namespace
} // namespace qv
