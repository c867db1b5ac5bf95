// A headless still end to end on a tiny model: every report line against its
// printf format and in its order, the panorama's padding and crop, the time
// limit, and no PNG when the run fails.
#include "cli/HeadlessCLI.h"
#include "support/GLBWriter.h"
#include "support/ScratchDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
// libstdc++'s regex trips GCC's maybe-uninitialized analysis in sanitizer builds.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#include <string>
#include <vector>

namespace qv {
namespace {

namespace fs = std::filesystem;

// A regular expression matching exactly the lines a printf-style report
// format can produce (%@ is any text).
std::regex formatRegex(const std::string& format) {
    std::string re = "^";
    for (size_t i = 0; i < format.size(); ++i) {
        char c = format[i];
        if (c != '%') {
            if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) re += '\\';
            re += c;
            continue;
        }
        size_t j = i + 1;
        std::string flags;
        while (j < format.size() && std::string("+-0123456789.").find(format[j]) != std::string::npos)
            flags += format[j++];
        char conv = format[j];
        i = j;
        if (conv == '%') re += "%";
        else if (conv == '@') re += ".*";
        else if (conv == 'd' || conv == 'u') re += flags.find('+') != std::string::npos ? "[+-]\\d+" : "-?\\d+";
        else if (conv == 'f') {
            size_t dot = flags.find('.');
            int decimals = dot == std::string::npos ? 6 : std::stoi(flags.substr(dot + 1));
            re += flags.find('+') != std::string::npos ? "[+-]" : "-?";
            re += decimals == 0 ? "\\d+" : "\\d+\\.\\d{" + std::to_string(decimals) + "}";
        }
    }
    return std::regex(re + "$");
}

// A floor and a box under an open sky, with one scene camera.
void writeScene(const fs::path& dir) {
    test::GLBWriter w;
    std::vector<float3> p = {{-4, 0, -4}, {4, 0, -4}, {4, 0, 4}, {-4, 0, 4}, {-1, 0, -1}, {1, 0, -1},
                             {1, 1, -1},  {-1, 1, -1}};
    std::vector<uint32_t> idx = {0, 2, 1, 0, 3, 2, 4, 5, 6, 4, 6, 7};
    int pos = w.addPositions(p);
    int ind = w.addIndices(idx);
    int mat = w.addMaterial({{"name", "floor"}, {"pbrMetallicRoughness", {{"metallicFactor", 0.0}}}});
    int mesh = w.addMesh({test::GLBWriter::primitive(pos, ind, mat)});
    w.setScene({w.addNode({{"mesh", mesh}, {"name", "floor"}})});
    w.writeTo(dir / "house.glb");
    std::ofstream(dir / "scene.json") << R"({"version": 1, "default_camera": "Front",
        "cameras": [{"name": "Front", "eye": [0, 1.6, 5], "target": [0, 0.5, 0], "fov_deg": 60, "time": "day"}]})";
}

std::pair<int, int> pngSize(const fs::path& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return {0, 0};
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    std::pair<int, int> size{0, 0};
    if (!setjmp(png_jmpbuf(png))) {
        png_init_io(png, f);
        png_read_info(png, info);
        size = {int(png_get_image_width(png, info)), int(png_get_image_height(png, info))};
    }
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
    return size;
}

class HeadlessStill : public testing_support::ScratchDirTest {
protected:
    HeadlessStill() : ScratchDirTest("qv_still_") {}
    void SetUp() override {
        ScratchDirTest::SetUp();
        writeScene(dir);
    }

    CLIOptions options(int64_t w, int64_t h, int64_t spp) const {
        CLIOptions o;
        o.headless = true;
        o.model = (dir / "house.glb").string();
        o.out = (dir / "out.png").string();
        o.width = o.settings.width = w;
        o.height = o.settings.height = h;
        o.spp = spp;
        // A small sky table keeps the test fast; the table size is not what is tested.
        o.settings.skyWidth = 64;
        o.settings.skyHeight = 32;
        return o;
    }
    std::vector<std::string> run(const CLIOptions& o) {
        std::vector<std::string> lines;
        HeadlessCLI::run(o, [&](std::string_view line) { lines.emplace_back(line); });
        return lines;
    }
};

// The format of each line a still prints, by its first word.
const std::vector<std::pair<std::string, std::string>> kLineFormats = {
    {"model: ", "model: %@  (%d tris, %d materials, bounds %.2f,%.2f,%.2f .. %.2f,%.2f,%.2f, loaded in %.2fs)"},
    {"device: ", "device: %@  (shaders compiled in %.2fs)"},
    {"environment: ", "environment: %@  sun elev %.1f az %.1f  sun %.0f lux (normal)  sky %.0f lux (horizontal)  "
                      "zenith %.1f cd/m2  EV100 %.2f  white %.1f cd/m2  WB %@"},
    {"camera: ", "camera: %@  eye %@ target %@  fov %.1f v / %.1f h (given %.1f %@)"},
    {"rendered ", "rendered %d spp at %dx%d in %.2fs  ->  %.1f spp/s  (%.1f Mpaths/s, longest command buffer %.0f ms)"},
    {"stats: ", "stats: NaN/Inf samples %u, samples with dropped non-finite contributions %u, luminance mean %.2f / "
                "median %.2f / max %.0f cd/m2, black pixels %.3f%%"},
    {"nee-stats: vertices ", "nee-stats: vertices %u, lamp NEE at %u; lamp chosen %u (%.1f%% of attempts), BSDF "
                             "non-zero %u (%.1f%% of chosen), unoccluded %u (%.1f%% of shadow rays)"},
    {"nee-stats: first vertex lamp NEE ", "nee-stats: first vertex lamp NEE %u; lamp chosen %u (%.1f%% of attempts), "
                                          "BSDF non-zero %u (%.1f%% of chosen), unoccluded %u (%.1f%% of shadow rays)"},
    {"nee-stats: emissive ", "nee-stats: emissive shadow rays %u, unoccluded %u (%.1f%%); sun %u, unoccluded %u "
                             "(%.1f%%); sky %u, unoccluded %u (%.1f%%)"},
    {"white balance: ", "white balance: %@"},
    {"wrote ", "wrote %@  (total %.2fs)"},
};

// The prefixes of the report lines in the order printed; every line with a
// known prefix must match its format.
std::vector<std::string> reportLineOrder(const std::vector<std::string>& lines) {
    std::vector<std::string> order;
    for (const std::string& line : lines) {
        for (const auto& [prefix, format] : kLineFormats) {
            if (line.rfind(prefix, 0) != 0) continue;
            EXPECT_TRUE(std::regex_match(line, formatRegex(format))) << line;
            order.push_back(prefix);
        }
    }
    return order;
}

TEST_F(HeadlessStill, EveryReportLineMatchesItsFormatInOrder) {
    std::vector<std::string> lines = run(options(24, 12, 2));
    const std::vector<std::string> order = reportLineOrder(lines);
    const std::vector<std::string> expected = {"model: ",   "device: ", "environment: ",   "camera: ",
                                               "rendered ", "stats: ",  "white balance: ", "wrote "};
    EXPECT_EQ(order, expected);
    EXPECT_EQ(lines.back().rfind("wrote " + (dir / "out.png").string() + "  (total ", 0), 0u);
    EXPECT_THAT(lines, ::testing::Contains("camera: Front  eye [0.0, 1.6, 5.0] target [0.0, 0.5, 0.0]  fov 60.0 v / "
                                           "98.2 h (given 60.0 vertical)"));
    EXPECT_EQ(pngSize(dir / "out.png"), (std::pair<int, int>{24, 12}));
}

TEST_F(HeadlessStill, NeeStatsLinesFollowTheStatsLineWhenAsked) {
    CLIOptions o = options(16, 8, 2);
    o.settings.debugNeeStats = true;
    std::vector<std::string> lines = run(o);
    const std::vector<std::string> order = reportLineOrder(lines);
    const std::vector<std::string> expected = {
        "model: ",   "device: ", "environment: ",        "camera: ",
        "rendered ", "stats: ",  "nee-stats: vertices ", "nee-stats: first vertex lamp NEE ",
        "nee-stats: emissive ",  "white balance: ",      "wrote "};
    EXPECT_EQ(order, expected);
    // The floor and the box fill the lower part of the view.
    const auto vertices = std::find_if(lines.begin(), lines.end(),
                                       [](const std::string& l) { return l.rfind("nee-stats: vertices ", 0) == 0; });
    ASSERT_NE(vertices, lines.end());
    EXPECT_GT(std::stoull(vertices->substr(std::string("nee-stats: vertices ").size())), 0u) << *vertices;
}

TEST_F(HeadlessStill, PanoramaRendersPaddedAndWritesTheOutputSize) {
    CLIOptions o = options(128, 64, 1);
    o.settings.projection = Projection::equirect;
    std::vector<std::string> lines = run(o);
    // Below 1536 columns each side gets 32 extra columns.
    const std::string camera = "camera: Front  eye [0.0, 1.6, 5.0]  equirectangular 360 x 180 degrees, 128x64 (+32 px "
                               "each side for the denoiser, cropped), centre heading 0.0 degrees from plan north, level";
    EXPECT_THAT(lines, ::testing::Contains(camera));
    bool renderedWide = false;
    for (const std::string& line : lines) renderedWide |= line.rfind("rendered 1 spp at 192x64 in ", 0) == 0;
    EXPECT_TRUE(renderedWide);
    EXPECT_EQ(pngSize(dir / "out.png"), (std::pair<int, int>{128, 64}));
}

TEST_F(HeadlessStill, TimeLimitStopsSamplingAndSaysSo) {
    CLIOptions o = options(16, 8, 100000);
    o.maxSeconds = 0.05;
    std::vector<std::string> lines = run(o);
    bool limit = false;
    for (const std::string& line : lines)
        limit |= std::regex_match(line, formatRegex("  time limit %.0f s reached at %d spp"));
    EXPECT_TRUE(limit);
    EXPECT_TRUE(fs::exists(dir / "out.png"));
}

TEST_F(HeadlessStill, FailuresWriteNoPNG) {
    CLIOptions o = options(16, 8, 1);
    o.camera = "nosuch";
    try {
        run(o);
        FAIL() << "an unknown camera must fail";
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "camera 'nosuch' not found; available: Front");
    }
    EXPECT_FALSE(fs::exists(dir / "out.png"));
    o = options(16, 8, 1);
    o.out.reset();
    EXPECT_THROW(run(o), std::exception);
}

TEST_F(HeadlessStill, DenoisedStillSaysWhichDenoiser) {
    CLIOptions o = options(16, 8, 2);
    o.denoise = true;
    std::vector<std::string> lines = run(o);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "denoiser: a-trous"), lines.end());
    bool denoised = false;
    for (const std::string& line : lines)
        denoised |= std::regex_match(line, formatRegex("denoised (%@%@) in %.0f ms of GPU time%@"));
    EXPECT_TRUE(denoised);
}

} // namespace
} // namespace qv
