#include "cli/CLIOptions.h"
#include "image/PNGWriter.h"
#include "image/RawDump.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <tuple>

namespace qv {
namespace {

namespace fs = std::filesystem;

using testing_support::ScratchDir;

struct DecodedPNG {
    uint32_t width = 0, height = 0;
    int colourType = -1, bitDepth = 0;
    std::vector<uint8_t> rgb;
};

// An independent decode with libpng's read API.
DecodedPNG readPNG(const fs::path& path) {
    DecodedPNG d;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return d;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        std::fclose(f);
        d.width = 0;
        return d;
    }
    png_init_io(png, f);
    png_read_info(png, info);
    d.width = png_get_image_width(png, info);
    d.height = png_get_image_height(png, info);
    d.colourType = png_get_color_type(png, info);
    d.bitDepth = png_get_bit_depth(png, info);
    size_t rowBytes = png_get_rowbytes(png, info);
    d.rgb.resize(rowBytes * d.height);
    for (uint32_t y = 0; y < d.height; ++y) png_read_row(png, d.rgb.data() + y * rowBytes, nullptr);
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
    return d;
}

std::vector<uint8_t> randomRGBA(int64_t w, int64_t h, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(size_t(w * h * 4));
    for (auto& b : v) b = uint8_t(rng());
    return v;
}

using WriteError = std::pair<int, std::string>;

// The code and sentence of the PNGWriteError a write throws; code 0 when it succeeds.
WriteError writeError(const std::function<void()>& write) {
    try {
        write();
    } catch (const PNGWriteError& e) {
        return {e.code(), e.what()};
    }
    return {0, ""};
}

TEST(PNGWriting, RoundTripsPixelsExactly) {
    ScratchDir dir("qv-image-test-");
    // Written twice to the same name: the second replaces the first and no temporary is left.
    for (auto [w, h] : {std::pair<int64_t, int64_t>{64, 33}, {1, 1}, {7, 3}}) {
        std::vector<uint8_t> rgba = randomRGBA(w, h, uint32_t(w * 100 + h));
        fs::path out = dir.path() / "nested" / "folder" / "img.png";
        PNGWriter::write(rgba, w, h, out);
        DecodedPNG d = readPNG(out);
        ASSERT_EQ(std::tie(d.width, d.height), std::make_tuple(uint32_t(w), uint32_t(h)));
        EXPECT_EQ(std::tie(d.colourType, d.bitDepth), std::make_tuple(PNG_COLOR_TYPE_RGB, 8));
        ASSERT_EQ(d.rgb.size(), size_t(w * h * 3));
        for (size_t p = 0; p < size_t(w * h); ++p)
            for (int ch = 0; ch < 3; ++ch) ASSERT_EQ(d.rgb[p * 3 + ch], rgba[p * 4 + ch]) << "pixel " << p;
    }
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"nested"});
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path() / "nested" / "folder"), fs::directory_iterator()), 1);
}

TEST(PNGWriting, TemporaryNameIsHiddenInTheSameFolder) {
    fs::path tmp = PNGWriter::temporaryPath("/some/dir/shot.png");
    EXPECT_EQ(tmp, fs::path("/some/dir/.shot." + std::to_string(::getpid()) + ".tmp.png"));
}

TEST(PNGWriting, FailedEncodeLeavesNeitherPartialPNGNorTemporary) {
    ScratchDir dir("qv-image-test-");
    fs::path out = dir.path() / "frame.png";
    std::vector<uint8_t> earlier = randomRGBA(3, 3, 9);
    PNGWriter::write(earlier, 3, 3, out);
    // The disk "fills up" after the signature and header have gone out.
    auto probe = [](size_t written) { return written < 40; };
    EXPECT_EQ(writeError([&] { PNGWriter::writeWithProbe(randomRGBA(32, 32, 3), 32, 32, out, probe); }),
              WriteError(3, "PNG encode failed (" + out.string() + ")"));
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"frame.png"});
    EXPECT_EQ(readPNG(out).width, 3u); // the earlier file is untouched
}

TEST(PNGWriting, FailedMoveLeavesNoTemporary) {
    ScratchDir dir("qv-image-test-");
    fs::path out = dir.path() / "taken.png";
    fs::create_directories(out / "inside"); // a non-empty folder cannot be replaced by a file
    EXPECT_EQ(writeError([&] { PNGWriter::write(randomRGBA(2, 2, 4), 2, 2, out); }),
              WriteError(4, "could not move the PNG into place at " + out.string() + ": Is a directory"));
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"taken.png"});
    EXPECT_TRUE(fs::is_directory(out));
}

TEST(PNGWriting, UnwritableFolderFailsToOpen) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not bind the superuser";
    ScratchDir dir("qv-image-test-");
    fs::path locked = dir.path() / "locked";
    fs::create_directories(locked);
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    fs::path out = locked / "a.png";
    EXPECT_EQ(writeError([&] { PNGWriter::write(randomRGBA(2, 2, 4), 2, 2, out); }),
              WriteError(2, "could not open " + PNGWriter::temporaryPath(out).string() + " for writing"));
    fs::permissions(locked, fs::perms::owner_all);
    EXPECT_TRUE(fs::is_empty(locked));
}

TEST(PNGWriting, WrongByteCountIsNoImage) {
    ScratchDir dir("qv-image-test-");
    EXPECT_EQ(writeError([&] { PNGWriter::write(std::vector<uint8_t>(15), 2, 2, dir.path() / "x.png"); }),
              WriteError(1, "could not create CGImage"));
    EXPECT_TRUE(dir.entries().empty());
}

std::string preflightError(const std::string& path) {
    try {
        preflightOutput(path);
    } catch (const CLIError& e) {
        return e.what();
    }
    return "";
}

TEST(OutputPreflight, ExactErrors) {
    ScratchDir dir("qv-image-test-");
    const std::string d = dir.path().string();
    fs::create_directories(dir.path() / "folder.png");
    std::ofstream(dir.path() / "file") << "x";
    EXPECT_EQ(preflightError(d + "/render.PNG"), "");
    EXPECT_EQ(preflightError(d + "/new/sub/render.png"), "");
    EXPECT_TRUE(fs::is_directory(dir.path() / "new" / "sub"));
    EXPECT_EQ(preflightError(d + "/render.jpg"),
              "--out must be a .png file (got 'render.jpg'); only PNG output is supported");
    EXPECT_EQ(preflightError(d + "/render"), "--out must be a .png file (got 'render'); only PNG output is supported");
    EXPECT_EQ(preflightError(d + "/folder.png"), "--out is a folder: " + d + "/folder.png");
    EXPECT_EQ(preflightError(d + "/file/x.png"),
              "cannot create the output folder " + d + "/file: " +
                  std::make_error_code(std::errc::not_a_directory).message());
}

TEST(OutputPreflight, PermissionErrors) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not bind the superuser";
    ScratchDir dir("qv-image-test-");
    fs::path ro = dir.path() / "ro";
    fs::create_directories(ro);
    std::ofstream(dir.path() / "fixed.png") << "x";
    fs::permissions(dir.path() / "fixed.png", fs::perms::owner_read);
    EXPECT_EQ(preflightError((dir.path() / "fixed.png").string()),
              "the output file is not writable: " + (dir.path() / "fixed.png").string());
    fs::permissions(ro, fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(preflightError((ro / "a.png").string()), "the output folder is not writable: " + ro.string());
}

TEST(RawDumps, LinearDumpRoundTripsThroughItsSidecar) {
    ScratchDir dir("qv-image-test-");
    // 4 x 2 frame; pixel 5 has no samples and dumps as 0.
    std::vector<float4> sums(8);
    for (size_t i = 0; i < 8; ++i) sums[i] = float4{float(i), 2.0f * i, 0.5f, 4.0f};
    sums[5] = float4{0, 0, 0, 0};
    fs::path path = dir.path() / "a.bin";
    RawDump::writeLinear(path, sums.data(), 4, 2, 4);
    EXPECT_EQ(fs::file_size(path), 112u);

    DumpRunInfo run{.denoiser = DenoiserKind::atrous, .denoiseSeconds = 0.25, .camera = "Living room",
                    .time = "dusk", .seed = 7, .samplingSeconds = 2.0, .samplesPerPixel = 4, .nanSamples = 1};
    nlohmann::json tone = {{"format", "QVDP"}, {"width", 4}, {"height", 2}, {"spp", 4}, {"operator", "agx"}};
    RawDump::writeSidecar(path, RawDump::makeSidecar(tone, run));
    EXPECT_TRUE(fs::exists(dir.path() / "a.bin.json"));

    nlohmann::json side = RawDump::readSidecar(path);
    LinearDump dump = RawDump::readLinear(path);
    ASSERT_EQ(dump.width, side["width"].get<uint32_t>());
    ASSERT_EQ(dump.height, side["height"].get<uint32_t>());
    EXPECT_EQ(dump.samplesPerPixel, side["spp"].get<uint32_t>());
    for (size_t i = 0; i < 8; ++i) {
        float3 expected = i == 5 ? float3{} : float3{float(i) / 4, 2.0f * i / 4, 0.125f};
        EXPECT_EQ(dump.pixels[i], expected) << i;
    }
    EXPECT_EQ(side["denoiser"], "atrous");
    EXPECT_DOUBLE_EQ(side["render_seconds"].get<double>(), 2.25);
    EXPECT_DOUBLE_EQ(side["spp_per_second"].get<double>(), 2.0);
    EXPECT_EQ(side["camera"], "Living room");
    EXPECT_EQ(side["nan_samples"], 1);
    EXPECT_FALSE(side.contains("mfx_share"));

    // Pretty-printed with the keys in sorted order.
    std::ifstream in(dir.path() / "a.bin.json");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    EXPECT_NE(text.find("\n  \"camera\": \"Living room\",\n"), std::string::npos);
    EXPECT_LT(text.find("\"camera\""), text.find("\"denoise_seconds\""));
    EXPECT_LT(text.find("\"spp_per_second\""), text.find("\"time\""));
}

TEST(RawDumps, UndenoisedSidecarHasNoDenoiserKeys) {
    nlohmann::json side = RawDump::makeSidecar(nlohmann::json::object(), DumpRunInfo{});
    EXPECT_FALSE(side.contains("denoiser") || side.contains("denoise_seconds"));
}

TEST(RawDumps, GuideDumpHoldsPerSampleMeans) {
    ScratchDir dir("qv-image-test-");
    std::vector<float4> accum{{0, 0, 0, 2}, {0, 0, 0, 0}};
    std::vector<float4> a{{1, 2, 3, 4}, {5, 5, 5, 5}};
    std::vector<float4> b{{0, 0, 2, 8}, {1, 1, 1, 1}};
    fs::path path = dir.path() / "g.bin";
    RawDump::writeGuides(path, accum.data(), a.data(), b.data(), 2, 1, 2);
    EXPECT_EQ(fs::file_size(path), 16u + 2 * 32);
    GuideDump g = RawDump::readGuides(path);
    EXPECT_EQ(g.width, 2u);
    EXPECT_EQ(std::tie(g.guideA[0].x, g.guideA[0].w, g.guideB[0].z, g.guideB[0].w),
              std::make_tuple(0.5f, 2.0f, 1.0f, 4.0f));
    // No samples: the sums over 1e-30 (here large, since the sums are not 0).
    EXPECT_EQ(g.guideA[1].x, 5.0f / 1e-30f);
}

TEST(RawDumps, ReadingRejectsForeignFiles) {
    ScratchDir dir("qv-image-test-");
    std::ofstream(dir.path() / "junk.bin") << "not a dump at all";
    EXPECT_THROW(RawDump::readLinear(dir.path() / "junk.bin"), DumpError);
    EXPECT_THROW(RawDump::readGuides(dir.path() / "junk.bin"), DumpError);
    EXPECT_THROW(RawDump::readLinear(dir.path() / "missing.bin"), DumpError);
}

} // namespace
} // namespace qv
