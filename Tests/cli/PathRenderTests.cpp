#include "cli/PathRender.h"

#include "cli/CLITestSupport.h"
#include "image/PNGWriter.h"
#include "image/VideoWriter.h"
#include "scene/ImageDecode.h"
#include "scene/Json5.h"
#include "scene/TextFormat.h"
#include "support/VideoProbe.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <filesystem>
#include <fstream>
#include <tuple>

namespace qv {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using test::Args;

using PathScratch = testing_support::ScratchDir;

// A straight walk along +x from 0 to 4 m in `seconds`, at `fps`.
CameraPath straightPath(double fps, double seconds) {
    std::string text = "{fps: " + std::to_string(fps) +
                       ", keyframes: [{t_s: 0, eye: [0, 1.6, 0], target: [1, 1.6, 0]},"
                       " {t_s: " + std::to_string(seconds) + ", eye: [4, 1.6, 0], target: [5, 1.6, 0]}]}";
    return CameraPath::fromJSON(parseJson5(text), "walk.json");
}

constexpr int kFrameW = 64, kFrameH = 48;

// The colour that marks frame i in the fake renderer's images.
uint8_t frameShade(int64_t index) { return static_cast<uint8_t>(index * 37 % 251); }

std::vector<uint8_t> framePixels(int64_t index, int w = kFrameW, int h = kFrameH) {
    std::vector<uint8_t> px(size_t(w) * size_t(h) * 4);
    for (size_t i = 0; i < px.size(); i += 4) px[i] = frameShade(index), px[i + 1] = 90, px[i + 2] = 200, px[i + 3] = 255;
    return px;
}

// A renderer that writes a small PNG per frame and takes `frameSeconds` on a
// fake clock; it records every call.
struct FakeRenderer {
    Clock::time_point clock{};
    double frameSeconds = 60;
    double warmupSeconds = 30;
    int64_t spp = 16;
    std::vector<PathFrame> calls;
    std::optional<int64_t> failAt;   // writes half a partial PNG for this frame, then throws
    std::optional<bool> temporalWanted;
    std::string temporalReason = "the temporal denoiser is not available in this build";

    PathRenderHooks hooks() {
        PathRenderHooks h;
        h.prepare = [this](bool wanted) {
            temporalWanted = wanted;
            PathRenderSetup setup;
            setup.temporalUnavailableReason = temporalReason;
            return setup;
        };
        h.renderFrame = [this](const PathFrame& frame) {
            calls.push_back(frame);
            clock += std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(frame.warmUp ? warmupSeconds : frameSeconds));
            if (frame.warmUp) return spp;
            if (failAt && *failAt == frame.index) {
                std::ofstream(frame.partialPng, std::ios::binary) << "\x89PNG\r\n\x1a\n half";
                throw std::runtime_error("killed");
            }
            PNGWriter::write(framePixels(frame.index), kFrameW, kFrameH, frame.partialPng);
            return spp;
        };
        h.now = [this] { return clock; };
        return h;
    }
    std::vector<int64_t> renderedIndices(bool warmUps = false) const {
        std::vector<int64_t> out;
        for (const PathFrame& f : calls)
            if (f.warmUp == warmUps) out.push_back(f.index);
        return out;
    }
};

struct RunResult {
    std::vector<std::string> lines;
    std::string error;
};

Args operator+(Args a, const Args& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

RunResult runPath(const Args& args, const CameraPath& path, FakeRenderer& renderer) {
    RunResult r;
    try {
        CLIOptions options = test::parseArgs(args);
        PathRender::run(options, path, *options.pathFile, renderer.hooks(),
                        [&](std::string_view line) { r.lines.emplace_back(line); }, renderer.clock);
    } catch (const std::exception& e) {
        r.error = e.what();
    }
    return r;
}

std::vector<int64_t> iota(int64_t first, int64_t last) {
    std::vector<int64_t> v;
    for (int64_t i = first; i <= last; ++i) v.push_back(i);
    return v;
}

std::string fileBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Whether the folder's frame i is a whole PNG showing frame i.
bool frameIsWhole(const fs::path& folder, int64_t index) {
    const std::string bytes = fileBytes(folder / PathRender::frameFileName(index));
    auto image = decodeImageRGBA8(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()),
                                                           bytes.size()), 1 << 20);
    return image && image->width == kFrameW && image->height == kFrameH && image->pixels == framePixels(index);
}

void writeFrames(const fs::path& folder, std::initializer_list<int64_t> indices) {
    for (int64_t i : indices) PNGWriter::write(framePixels(i), kFrameW, kFrameH, folder / PathRender::frameFileName(i));
}

std::vector<std::string> folderEntries(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(folder)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// ---------------------------------------------------------------------------
// Frame count, names and the report lines

TEST(PathFrames, CountRoundsHalvesAwayFromZero) {
    const std::tuple<double, double, int64_t> counts[] = {{30, 2.0, 61}, {2, 1.25, 4}, {30, 10, 301}, {29.97, 2.0, 61},
                                                          {24, 0, 1}};
    for (const auto& [fps, seconds, frames] : counts)
        EXPECT_EQ(PathRender::frameCount(fps, seconds), frames) << fps << " fps, " << seconds << " s";
    EXPECT_EQ(PathRender::frameFileName(42), "frame_00042.png");
    EXPECT_EQ(PathRender::frameFileName(123456), "frame_123456.png");
    EXPECT_EQ(PathRender::partialFrameFileName(42), ".frame_00042.partial.png");
}

TEST(PathFrames, ReportLinesOfAFullRun) {
    PathScratch dir("qv-path-test-");
    FakeRenderer fake;
    const std::string frames = dir.str("frames");
    RunResult r = runPath({"--path", "tour.json", "--frames-dir", frames, "--spp", "16", "--video-denoise", "off"},
                          straightPath(1, 2), fake);
    ASSERT_EQ(r.error, "");
    const std::vector<std::string> expected = {
        "path: tour.json  2 keyframes, 2.00 s at 1 fps = 3 frames; rendering 0:2 into " + frames,
        "video denoise: off, 16 spp per frame",
        "  frame 0/2  16 spp  60.00 s  (mean 60.00 s, about 2 min left)  t=0.00 s  eye 0.00,1.60,0.00",
        "  frame 1/2  16 spp  60.00 s  (mean 60.00 s, about 1 min left)  t=1.00 s  eye 2.00,1.60,0.00",
        "  frame 2/2  16 spp  60.00 s  (mean 60.00 s, about 0 min left)  t=2.00 s  eye 4.00,1.60,0.00",
        "path frames: 3 rendered (60.00 s each on average), 0 already there",
        "done (total 180.0 s)"};
    EXPECT_EQ(r.lines, expected);
    EXPECT_EQ(folderEntries(frames), (std::vector<std::string>{"frame_00000.png", "frame_00001.png",
                                                               "frame_00002.png"}));
    for (int64_t i = 0; i < 3; ++i) EXPECT_TRUE(frameIsWhole(frames, i)) << i;
    ASSERT_EQ(fake.calls.size(), 3u);
    EXPECT_EQ(fake.calls[1].camera.name, "path frame 1");
    EXPECT_EQ(*fake.calls[1].camera.fovAxis, "vertical");
    EXPECT_FLOAT_EQ(*fake.calls[1].camera.fovDeg, 70.0f);
    EXPECT_EQ(fake.calls[1].denoise, CLIOptions::VideoDenoise::off);
    EXPECT_EQ(fake.temporalWanted, false);
}

TEST(PathFrames, TemporalUnavailableWarnsAndDenoisesFramesOnTheirOwn) {
    EXPECT_EQ(PathRender::videoDenoiseLine(CLIOptions::VideoDenoise::hybrid, 64, 2.5),
              "video denoise: hybrid, 64 spp per frame or 2.5 s");
    PathScratch dir("qv-path-test-");
    FakeRenderer fake;
    RunResult r = runPath({"--path", "p.json", "--frames-dir", dir.str("f"), "--spp", "4", "--frames", "1:2"},
                          straightPath(1, 2), fake);
    ASSERT_EQ(r.error, "");
    ASSERT_GE(r.lines.size(), 3u);
    EXPECT_EQ(r.lines[1], "video denoise: temporal (MetalFX history across frames, motion vectors from the first "
                          "hit), 4 spp per frame");
    EXPECT_EQ(r.lines[2], "warning: the temporal denoiser is not available in this build; frames use the a-trous "
                          "denoiser on their own (no temporal history)");
    EXPECT_EQ(fake.temporalWanted, true);
    // Without history there is nothing to warm up.
    EXPECT_EQ(fake.renderedIndices(), (std::vector<int64_t>{1, 2}));
    EXPECT_TRUE(fake.renderedIndices(true).empty());
    for (const PathFrame& f : fake.calls) EXPECT_EQ(f.denoise, CLIOptions::VideoDenoise::hybrid);
}

// ---------------------------------------------------------------------------
// Output checks and frame ranges

TEST(PathChecks, OutputChecksComeFirst) {
    const std::string notVideo = "with --path, --out is the video (.mp4 or .mov); the PNG frames go to --frames-dir";
    const std::pair<Args, std::string> rows[] = {
        {{"--out", "clip.gif"}, notVideo},
        {{"--out", "clip"}, notVideo},
        {{"--frames-dir", "f", "--out", "clip.png"}, notVideo},
        {{}, "--path needs --out <video.mp4> and/or --frames-dir <folder>"},
        {{"--frames-dir", "f", "--frames", "70:80"}, "--frames 70:80 is outside the path's 0:60"},
        {{"--frames-dir", "f", "--frames", "61:"}, "--frames 61: is outside the path's 0:60"},
    };
    for (const auto& [extra, error] : rows) {
        SCOPED_TRACE(test::joined(extra));
        FakeRenderer fake;
        RunResult r = runPath(Args{"--path", "p.json"} + extra, straightPath(30, 2), fake);
        EXPECT_EQ(r.error, error);
        EXPECT_TRUE(r.lines.empty() && fake.calls.empty());
        EXPECT_FALSE(fake.temporalWanted.has_value());
    }
}

TEST(PathChecks, FrameFolderDefaultsToTheVideoNameWithFrames) {
    CLIOptions o = test::parseArgs({"--path", "p.json", "--out", "renders/walk.MOV"});
    EXPECT_EQ(PathRender::framesFolder(o), fs::path("renders/walk_frames"));
    o = test::parseArgs({"--path", "p.json", "--out", "renders/walk.mp4", "--frames-dir", "shared/f"});
    EXPECT_EQ(PathRender::framesFolder(o), fs::path("shared/f"));
}

TEST(PathChecks, RangesAreClippedToThePath) {
    // 61 frames at 30 fps over 2 s.
    const std::tuple<const char*, int64_t, int64_t> rows[] = {{"50:99", 50, 60}, {"58:", 58, 60}, {":2", 0, 2},
                                                              {"60:60", 60, 60}};
    for (const auto& [frames, first, last] : rows) {
        PathScratch dir("qv-path-test-");
        FakeRenderer fake;
        RunResult r = runPath({"--path", "p.json", "--frames-dir", dir.str("f"), "--frames", frames,
                               "--video-denoise", "hybrid"},
                              straightPath(30, 2), fake);
        ASSERT_EQ(r.error, "") << frames;
        EXPECT_EQ(fake.renderedIndices(), iota(first, last)) << frames;
        EXPECT_TRUE(r.lines[0].ends_with(strprintf("= 61 frames; rendering %lld:%lld into %s", (long long)first,
                                                   (long long)last, dir.str("f").c_str())))
            << r.lines[0];
    }
}

TEST(PathChecks, FpsOptionOverridesThePathsRate) {
    PathScratch dir("qv-path-test-");
    FakeRenderer fake;
    RunResult r = runPath({"--path", "p.json", "--frames-dir", dir.str("f"), "--fps", "2", "--video-denoise", "off"},
                          straightPath(30, 2), fake);
    ASSERT_EQ(r.error, "");
    EXPECT_TRUE(r.lines[0].starts_with("path: p.json  2 keyframes, 2.00 s at 2 fps = 5 frames; rendering 0:4"));
    ASSERT_EQ(fake.calls.size(), 5u);
    EXPECT_DOUBLE_EQ(fake.calls[3].time, 1.5);
}

// ---------------------------------------------------------------------------
// Resumption

TEST(PathResume, AKilledRunResumesWithoutRedoingFinishedFrames) {
    PathScratch dir("qv-path-test-");
    const fs::path frames = dir.path() / "f";
    const Args args = {"--path", "p.json", "--frames-dir", frames.string(), "--video-denoise", "off"};
    const CameraPath path = straightPath(2, 3); // 7 frames

    FakeRenderer first;
    first.failAt = 3;
    RunResult r1 = runPath(args, path, first);
    EXPECT_EQ(r1.error, "killed");
    EXPECT_EQ(folderEntries(frames), (std::vector<std::string>{".frame_00003.partial.png", "frame_00000.png",
                                                               "frame_00001.png", "frame_00002.png"}));
    // A run killed inside the PNG writer leaves its hidden temporary too;
    // leftovers of frames outside this run's range belong to someone else.
    std::ofstream(frames / "..frame_00005.partial.4242.tmp.png") << "torn";
    std::ofstream(frames / ".frame_00099.partial.png") << "another range";

    FakeRenderer second;
    RunResult r2 = runPath(args, path, second);
    ASSERT_EQ(r2.error, "");
    EXPECT_EQ(second.renderedIndices(), iota(3, 6));
    EXPECT_EQ(r2.lines[r2.lines.size() - 2], "path frames: 4 rendered (60.00 s each on average), 3 already there");
    for (int64_t i = 0; i < 7; ++i) EXPECT_TRUE(frameIsWhole(frames, i)) << i;
    std::vector<std::string> expected = {".frame_00099.partial.png"};
    for (int64_t i = 0; i < 7; ++i) expected.push_back(PathRender::frameFileName(i));
    EXPECT_EQ(folderEntries(frames), expected);

    // A completed range renders nothing; --overwrite renders it again.
    FakeRenderer third;
    RunResult r3 = runPath(args, path, third);
    EXPECT_TRUE(third.calls.empty());
    EXPECT_EQ(r3.lines[r3.lines.size() - 2], "path frames: 0 rendered (0.00 s each on average), 7 already there");
    FakeRenderer fourth;
    runPath(args + Args{"--overwrite", "--frames", "2:3"}, path, fourth);
    EXPECT_EQ(fourth.renderedIndices(), iota(2, 3));
}

TEST(PathResume, TemporalHistoryIsRefilledByWarmUpFramesAfterAGap) {
    PathScratch dir("qv-path-test-");
    const fs::path frames = dir.path() / "f";
    const CameraPath path = straightPath(30, 2); // 61 frames
    auto run = [&](const Args& extra) {
        auto fake = std::make_unique<FakeRenderer>();
        fake->temporalReason = "";
        RunResult r = runPath(Args{"--path", "p.json", "--frames-dir", frames.string(), "--spp", "8"} + extra, path,
                              *fake);
        EXPECT_EQ(r.error, "");
        return std::make_pair(std::move(fake), r.lines);
    };

    // Frame 0 needs no warm-up; consecutive frames keep their history.
    auto [a, linesA] = run({"--frames", "0:9"});
    EXPECT_TRUE(a->renderedIndices(true).empty());
    EXPECT_EQ(a->renderedIndices(), iota(0, 9));
    EXPECT_FALSE(a->calls[0].previousCamera.has_value());
    ASSERT_TRUE(a->calls[1].previousCamera.has_value());
    EXPECT_EQ(a->calls[1].previousCamera->name, "path frame 0");
    for (const PathFrame& f : a->calls) EXPECT_EQ(f.denoise, CLIOptions::VideoDenoise::temporal);

    // The next range starts with a warm-up of frames 4 to 9, rendered but not saved.
    auto [b, linesB] = run({"--frames", "10:12"});
    EXPECT_EQ(b->renderedIndices(true), iota(4, 9));
    EXPECT_EQ(b->renderedIndices(), iota(10, 12));
    EXPECT_EQ(linesB[2], "  warm-up frame 4 (16 spp, 30.0 s)");
    EXPECT_EQ(linesB[8], "  frame 10/60  16 spp  60.00 s  (mean 60.00 s, about 2 min left)  t=0.33 s  eye " +
                             strprintf("%.2f,1.60,0.00", b->calls[6].sample.eye[0]));
    for (const PathFrame& f : b->calls) EXPECT_TRUE(!f.warmUp || f.partialPng.empty()) << f.index;
    EXPECT_EQ(b->calls[6].previousCamera->name, "path frame 9");

    // Skipping existing frames 0 to 12 from 0 is a gap too; --warmup 2 caps it.
    auto [c, linesC] = run({"--frames", "0:14", "--warmup", "2"});
    EXPECT_EQ(c->renderedIndices(true), iota(11, 12));
    EXPECT_EQ(c->renderedIndices(), iota(13, 14));
    EXPECT_EQ(folderEntries(frames).size(), 15u);
}

// A real kill: a child process renders the path and is sent SIGKILL at
// random moments, also while a frame's bytes are only half on disk; each run
// resumes. Every finished frame must be whole, and no finished frame may be
// rendered again (each kill wastes at most the frame in progress).
TEST(PathResume, SurvivesSigkillAtAnyMoment) {
    PathScratch dir("qv-path-test-");
    const fs::path frames = dir.path() / "f";
    const fs::path log = dir.path() / "renders.log";
    const CameraPath path = straightPath(10, 1.1); // 12 frames
    const int kFrames = 12;
    const Args args = {"--path", "p.json", "--frames-dir", frames.string(), "--video-denoise", "off"};
    const CLIOptions options = test::parseArgs(args);

    // Each frame's PNG bytes, made before any child runs.
    std::vector<std::string> encoded;
    for (int64_t i = 0; i < kFrames; ++i) {
        PNGWriter::write(framePixels(i), kFrameW, kFrameH, dir.path() / "src.png");
        encoded.push_back(fileBytes(dir.path() / "src.png"));
    }

    auto child = [&] {
        PathRenderHooks hooks;
        hooks.renderFrame = [&](const PathFrame& frame) -> int64_t {
            std::ofstream(log, std::ios::app) << frame.index << "\n";
            // Written slowly and directly, so that kills land inside a frame's bytes.
            const std::string& bytes = encoded.at(size_t(frame.index));
            std::ofstream outFile(frame.partialPng, std::ios::binary);
            outFile.write(bytes.data(), std::streamsize(bytes.size() / 2));
            outFile.flush();
            ::usleep(1500);
            outFile.write(bytes.data() + bytes.size() / 2, std::streamsize(bytes.size() - bytes.size() / 2));
            return 1;
        };
        PathRender::run(options, path, "p.json", hooks, [](std::string_view) {}, Clock::now());
    };

    // Up to 25 runs killed at random moments, then one left to finish.
    uint32_t seed = 12345;
    int kills = 0;
    bool done = false;
    for (int run = 0; !done && run <= 25; ++run) {
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            try {
                child();
            } catch (...) {
                ::_exit(2);
            }
            ::_exit(0);
        }
        if (run < 25) {
            seed = seed * 1664525u + 1013904223u;
            ::usleep(300 + (seed >> 8) % 5000);
            ::kill(pid, SIGKILL);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (WIFSIGNALED(status)) ++kills;
        done = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        ASSERT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) != 0) << "the child failed";
        // Whatever moment the kill hit, every final frame is whole.
        for (int64_t i = 0; i < kFrames; ++i)
            ASSERT_TRUE(!fs::exists(frames / PathRender::frameFileName(i)) || frameIsWhole(frames, i)) << i;
    }
    ASSERT_TRUE(done);
    EXPECT_GT(kills, 3);
    for (int64_t i = 0; i < kFrames; ++i) EXPECT_TRUE(frameIsWhole(frames, i)) << i;
    std::ifstream in(log);
    std::vector<int> count(kFrames, 0);
    int total = 0;
    for (int64_t index; in >> index;) ++count.at(size_t(index)), ++total;
    EXPECT_LE(total, kFrames + kills);
    for (int i = 0; i < kFrames; ++i) EXPECT_GE(count[size_t(i)], 1) << i;
    // Only the frame folder's own files remain (a kill may leave one partial,
    // which is redone and moved into place).
    for (const std::string& name : folderEntries(frames)) EXPECT_TRUE(name.starts_with("frame_")) << name;
}

// ---------------------------------------------------------------------------
// Encoding

TEST(PathEncode, VideoIsWrittenOnceEveryFrameExists) {
    PathScratch dir("qv-path-test-");
    const std::string video = dir.str("walk.mp4");
    const CameraPath path = straightPath(4, 2); // 9 frames
    FakeRenderer first;
    RunResult r1 = runPath({"--path", "p.json", "--out", video, "--frames", "0:5", "--video-denoise", "off"}, path,
                           first);
    ASSERT_EQ(r1.error, "");
    ASSERT_GE(r1.lines.size(), 3u);
    EXPECT_EQ(r1.lines[r1.lines.size() - 3], "video: 3 of 9 frames are not rendered yet (missing 6-8)");
    EXPECT_EQ(r1.lines[r1.lines.size() - 2],
              "the video is written once every frame is there (run again, or with --encode-only)");
    EXPECT_FALSE(fs::exists(video));
    EXPECT_TRUE(fs::is_directory(dir.path() / "walk_frames"));

    FakeRenderer second;
    RunResult r2 = runPath({"--path", "p.json", "--out", video, "--frames", "6:", "--codec", "hevc", "--bitrate",
                            "2M", "--video-denoise", "off"},
                           path, second);
    ASSERT_EQ(r2.error, "");
    EXPECT_EQ(second.renderedIndices(), iota(6, 8));
    ASSERT_TRUE(fs::exists(video));
    EXPECT_FALSE(fs::exists(VideoWriter::partialPath(video)));
    const std::string size = strprintf("%.1f MB", double(fs::file_size(video)) / 1e6);
    EXPECT_EQ(r2.lines[r2.lines.size() - 2],
              "video: " + video + "  9 frames, 64x48, 4 fps, HEVC Main at 2.0 Mbit/s (" + size + ") in 0.0 s");
    EXPECT_EQ(r2.lines.back(), "done (total 180.0 s)");

    test::VideoProbe p = test::probeVideo(video);
    ASSERT_TRUE(p.opened);
    EXPECT_EQ(std::tie(p.codecId, p.packets, p.avgFrameRate.num, p.avgFrameRate.den, p.width, p.primaries),
              std::make_tuple(AV_CODEC_ID_HEVC, 9, 4, 1, kFrameW, AVCOL_PRI_BT709));
}

TEST(PathEncode, EncodeOnlyNeitherSetsUpNorRenders) {
    PathScratch dir("qv-path-test-");
    const fs::path frames = dir.path() / "shared";
    fs::create_directories(frames);
    writeFrames(frames, {0, 1, 2, 3, 4});
    FakeRenderer fake;
    const std::string video = dir.str("walk.mov");
    RunResult r = runPath({"--path", "p.json", "--frames-dir", frames.string(), "--out", video, "--encode-only",
                           "--frames", "2:3"},
                          straightPath(2, 2), fake);
    ASSERT_EQ(r.error, "");
    EXPECT_FALSE(fake.temporalWanted.has_value());
    EXPECT_TRUE(fake.calls.empty());
    ASSERT_EQ(r.lines.size(), 3u);
    EXPECT_TRUE(r.lines[1].starts_with("video: " + video + "  5 frames, 64x48, 2 fps, H.264 High at 0.0 Mbit/s"))
        << r.lines[1];
    test::VideoProbe p = test::probeVideo(video);
    EXPECT_EQ(std::tie(p.majorBrand, p.codecId, p.packets), std::make_tuple(std::string("qt  "), AV_CODEC_ID_H264, 5));
}

TEST(PathEncode, FractionalRateRendersButRefusesToEncode) {
    PathScratch dir("qv-path-test-");
    const std::string video = dir.str("walk.mp4");
    FakeRenderer fake;
    RunResult r = runPath({"--path", "p.json", "--out", video, "--fps", "2.5", "--video-denoise", "off"},
                          straightPath(2, 2), fake);
    EXPECT_EQ(r.error, "video: --fps must be a whole number to encode (got 2.5)");
    EXPECT_EQ(fake.renderedIndices(), iota(0, 5));
    EXPECT_FALSE(fs::exists(video));
    EXPECT_FALSE(fs::exists(VideoWriter::partialPath(video)));
}

TEST(PathEncode, MissingFramesAreListedAsRuns) {
    PathScratch dir("qv-path-test-");
    writeFrames(dir.path(), {0, 1, 2, 5, 9});
    CLIOptions o = test::parseArgs({"--path", "p.json", "--out", "x.mp4"});
    std::vector<std::string> lines;
    bool written = PathRender::encodePathVideo(dir.path(), 12, 30, dir.path() / "x.mp4", o,
                                               [&](std::string_view l) { lines.emplace_back(l); });
    EXPECT_FALSE(written);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "video: 7 of 12 frames are not rendered yet (missing 3-4, 6-8, 10-11)");
}

TEST(PathEncode, FramesOfDifferentSizesAreRefused) {
    PathScratch dir("qv-path-test-");
    writeFrames(dir.path(), {0});
    PNGWriter::write(framePixels(1, 8, 8), 8, 8, dir.path() / PathRender::frameFileName(1));
    CLIOptions o = test::parseArgs({"--path", "p.json", "--out", "x.mp4"});
    const fs::path video = dir.path() / "x.mp4";
    try {
        PathRender::encodePathVideo(dir.path(), 2, 30, video, o, [](std::string_view) {});
        ADD_FAILURE() << "no error";
    } catch (const VideoError& e) {
        EXPECT_EQ(std::string(e.what()), "the frame " + (dir.path() / "frame_00001.png").string() +
                                             " is 8x8, not 64x48 like the first frame");
    }
    EXPECT_FALSE(fs::exists(video));
    EXPECT_FALSE(fs::exists(VideoWriter::partialPath(video)));
}

} // namespace
} // namespace qv
