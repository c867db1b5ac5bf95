#include "image/VideoWriter.h"

#include "support/VideoProbe.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace qv {
namespace {

namespace fs = std::filesystem;

using VideoScratch = testing_support::ScratchDir;

// A frame of one colour with a moving bright square, so that the encoder sees motion.
std::vector<uint8_t> testFrame(int w, int h, int index, uint8_t r, uint8_t g, uint8_t b) {
    std::vector<uint8_t> px(size_t(w) * size_t(h) * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* p = &px[(size_t(y) * size_t(w) + size_t(x)) * 4];
            bool square = x >= index % w && x < index % w + 8 && y < 8;
            p[0] = square ? 255 : r;
            p[1] = square ? 255 : g;
            p[2] = square ? 255 : b;
            p[3] = 255;
        }
    return px;
}

struct ContainerCase {
    Codec codec;
    const char* file;
    AVCodecID codecId;
    int profile;
    const char* brand;
};

class VideoContainers : public ::testing::TestWithParam<ContainerCase> {};

TEST_P(VideoContainers, FileReadsBackWithCodecRateCountAndBT709Tags) {
    const ContainerCase& c = GetParam();
    VideoScratch dir("qv-video-test-");
    const fs::path url = dir / c.file;
    const int w = 64, h = 48, frames = 30;
    const double fps = 12;
    {
        VideoWriter writer(url, w, h, fps, c.codec);
        EXPECT_TRUE(fs::exists(VideoWriter::partialPath(url)));
        EXPECT_FALSE(fs::exists(url));
        for (int i = 0; i < frames; ++i) writer.append(testFrame(w, h, i, 40, 90, 160));
        writer.finish();
        EXPECT_EQ(writer.framesAppended(), frames);
    }
    ASSERT_TRUE(fs::exists(url));
    EXPECT_FALSE(fs::exists(VideoWriter::partialPath(url)));
    EXPECT_EQ(dir.entries().size(), 1u);

    test::VideoProbe p = test::probeVideo(url.string());
    ASSERT_TRUE(p.opened);
    EXPECT_EQ(std::tie(p.majorBrand, p.codecId, p.profile), std::make_tuple(std::string(c.brand), c.codecId, c.profile));
    EXPECT_EQ(std::tie(p.width, p.height, p.pixelFormat), std::make_tuple(w, h, AV_PIX_FMT_YUV420P));
    EXPECT_EQ(std::tie(p.avgFrameRate.num, p.avgFrameRate.den, p.streamFrames, p.packets),
              std::make_tuple(12, 1, frames, frames));
    EXPECT_EQ(std::tuple(p.primaries, p.transfer, p.matrix, p.range),
              std::tuple(AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG));
    // Apple players want HEVC tagged hvc1, not hev1.
    EXPECT_TRUE(c.codecId != AV_CODEC_ID_HEVC || p.codecTag == MKTAG('h', 'v', 'c', '1'));
    // B-frames are allowed, so the stream reorders.
    EXPECT_GT(p.videoDelay, 0);
    // A key frame at least every 2 x fps = 24 frames.
    ASSERT_FALSE(p.keyFrames.empty());
    EXPECT_EQ(p.keyFrames.front(), 0);
    std::vector<int64_t> keys = p.keyFrames;
    keys.push_back(frames);
    for (size_t i = 1; i < keys.size(); ++i) EXPECT_LE(keys[i] - keys[i - 1], 24) << "after key frame " << keys[i - 1];
}

INSTANTIATE_TEST_SUITE_P(
    CodecsAndContainers, VideoContainers,
    ::testing::Values(ContainerCase{Codec::h264, "clip.mp4", AV_CODEC_ID_H264, FF_PROFILE_H264_HIGH, "isom"},
                      ContainerCase{Codec::h264, "clip.MOV", AV_CODEC_ID_H264, FF_PROFILE_H264_HIGH, "qt  "},
                      ContainerCase{Codec::hevc, "clip.mp4", AV_CODEC_ID_HEVC, FF_PROFILE_HEVC_MAIN, "isom"},
                      ContainerCase{Codec::hevc, "clip.mov", AV_CODEC_ID_HEVC, FF_PROFILE_HEVC_MAIN, "qt  "}),
    [](const ::testing::TestParamInfo<ContainerCase>& row) {
        return std::string(toString(row.param.codec)) + (VideoWriter::isQuickTime(row.param.file) ? "Mov" : "Mp4");
    });

// The pixels are converted with the BT.709 matrix into the limited range, as
// the tags say. Pure red: Y = 16 + 219 x 0.2126 = 62.6, Cb = 128 - 112 x
// 0.2126 / 0.9278 = 102.3, Cr = 240. (BT.601 would give Y = 81.5, Cb = 90.)
TEST(VideoPixels, SolidRedDecodesToBT709LimitedRange) {
    for (Codec codec : {Codec::h264, Codec::hevc}) {
        VideoScratch dir("qv-video-test-");
        const fs::path url = dir / "red.mp4";
        const int w = 64, h = 64;
        std::vector<uint8_t> red(size_t(w) * h * 4);
        for (size_t i = 0; i < red.size(); i += 4) red[i] = 255, red[i + 1] = 0, red[i + 2] = 0, red[i + 3] = 255;
        VideoWriter writer(url, w, h, 10, codec);
        for (int i = 0; i < 4; ++i) writer.append(red);
        writer.finish();
        test::VideoProbe p = test::probeVideo(url.string(), true);
        ASSERT_TRUE(p.opened);
        EXPECT_EQ(p.decodedFrames, 4);
        // A flat frame at this bit rate is coded within a few code values.
        SCOPED_TRACE(toString(codec));
        EXPECT_NEAR(p.centreY, 62.6, 3);
        EXPECT_NEAR(p.centreCb, 102.3, 3);
        EXPECT_NEAR(p.centreCr, 240.0, 3);
    }
}

TEST(VideoPixels, FrameRateIsKeptForOtherWholeRates) {
    VideoScratch dir("qv-video-test-");
    const fs::path url = dir / "rate.mov";
    VideoWriter writer(url, 32, 32, 25, Codec::h264);
    for (int i = 0; i < 5; ++i) writer.append(testFrame(32, 32, i, 0, 0, 0));
    writer.finish();
    test::VideoProbe p = test::probeVideo(url.string());
    EXPECT_EQ(std::pair(p.avgFrameRate.num, p.avgFrameRate.den), std::pair(25, 1));
    EXPECT_EQ(p.packets, 5);
}

TEST(VideoSettings, DefaultBitRates) {
    EXPECT_EQ(VideoWriter::defaultBitrate(Codec::h264, 1920, 1080, 30), 16174080);
    EXPECT_EQ(VideoWriter::defaultBitrate(Codec::hevc, 1920, 1080, 30), 9642240);
    EXPECT_EQ(VideoWriter::defaultBitrate(Codec::hevc, 1280, 720, 24), 3428352);
}

TEST(VideoSettings, GivenBitRateIsUsedAndNonPositiveMeansDefault) {
    VideoScratch dir("qv-video-test-");
    EXPECT_EQ(VideoWriter(dir / "a.mp4", 64, 48, 30, Codec::h264, 2'000'000).bitrate(), 2'000'000);
    EXPECT_EQ(VideoWriter(dir / "b.mp4", 64, 48, 30, Codec::h264, 0).bitrate(),
              VideoWriter::defaultBitrate(Codec::h264, 64, 48, 30));
    EXPECT_EQ(VideoWriter(dir / "c.mp4", 64, 48, 30, Codec::hevc).bitrate(),
              VideoWriter::defaultBitrate(Codec::hevc, 64, 48, 30));
    // Abandoned writers leave nothing behind.
    EXPECT_EQ(dir.entries().size(), 0u);
}

TEST(VideoSettings, BitRateReader) {
    struct Row {
        const char* text;
        std::optional<int64_t> bits;
    };
    for (const Row& r : {Row{"16M", 16000000}, Row{"16m", 16000000}, Row{"8000k", 8000000},
                         Row{"12000000", 12000000}, Row{"1.5M", 1500000}, Row{" 2K ", 2000},
                         Row{"0", std::nullopt}, Row{"-5m", std::nullopt}, Row{"abc", std::nullopt},
                         Row{"", std::nullopt}})
        EXPECT_EQ(VideoWriter::parseBitrate(r.text), r.bits) << r.text;
}

TEST(VideoSettings, PartialNamesAndContainers) {
    EXPECT_EQ(VideoWriter::partialPath("clip.mp4"), fs::path("clip.partial.mp4"));
    EXPECT_EQ(VideoWriter::partialPath("out/walk.through.mov"), fs::path("out/walk.through.partial.mov"));
    EXPECT_EQ(VideoWriter::partialPath("out/clip"), fs::path("out/clip.partial"));
    EXPECT_TRUE(VideoWriter::isQuickTime("a.mov"));
    EXPECT_TRUE(VideoWriter::isQuickTime("a.MoV"));
    EXPECT_FALSE(VideoWriter::isQuickTime("a.mp4"));
    EXPECT_FALSE(VideoWriter::isQuickTime("mov"));
    EXPECT_EQ(codecDisplayName(Codec::h264), "H.264 High");
    EXPECT_EQ(codecDisplayName(Codec::hevc), "HEVC Main");
}

std::string errorOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const VideoError& e) {
        return e.what();
    }
    return "(no VideoError)";
}

TEST(VideoFailures, OddSidesAndUnopenableDestinationsCannotStart) {
    VideoScratch dir("qv-video-test-");
    EXPECT_EQ(errorOf([&] { VideoWriter(dir / "a.mp4", 1921, 1080, 30, Codec::h264); }),
              "video size 1921x1080 must be even");
    EXPECT_EQ(errorOf([&] { VideoWriter(dir / "a.mp4", 1920, 1081, 30, Codec::hevc); }),
              "video size 1920x1081 must be even");
    EXPECT_EQ(dir.entries().size(), 0u);
    const std::string message = errorOf([] { VideoWriter("/nonexistent-qv-folder/clip.mp4", 64, 48, 30, Codec::h264); });
    EXPECT_EQ(message.rfind("AVAssetWriter: could not start (", 0), 0u) << message;
}

TEST(VideoFailures, WrongFrameSizeIsRefusedAndTheFinalNameUntouched) {
    VideoScratch dir("qv-video-test-");
    const fs::path url = dir / "clip.mp4";
    std::ofstream(url) << "earlier video";
    {
        VideoWriter writer(url, 64, 48, 30, Codec::h264);
        writer.append(testFrame(64, 48, 0, 1, 2, 3));
        EXPECT_EQ(errorOf([&] { writer.append(testFrame(32, 48, 1, 1, 2, 3)); }),
                  "video frame 1 has 6144 bytes, not the 12288 of a 64x48 RGBA frame");
    }
    EXPECT_EQ(fs::file_size(url), 13u) << "the earlier video is untouched";
    EXPECT_EQ(dir.entries().size(), 1u);
}

TEST(VideoFailures, ReplacesAnEarlierVideoOnlyWhenCompleteAndFinishesOnce) {
    VideoScratch dir("qv-video-test-");
    const fs::path url = dir / "clip.mp4";
    std::ofstream(url) << "earlier video";
    VideoWriter writer(url, 32, 32, 30, Codec::h264);
    writer.append(testFrame(32, 32, 0, 9, 9, 9));
    EXPECT_EQ(fs::file_size(url), 13u);
    writer.finish();
    EXPECT_TRUE(test::probeVideo(url.string()).opened);
    const std::string message = errorOf([&] { writer.finish(); });
    EXPECT_TRUE(message.ends_with("did not complete")) << message;
    EXPECT_TRUE(test::probeVideo(url.string()).opened);
}

} // namespace
} // namespace qv
