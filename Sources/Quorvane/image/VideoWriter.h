#pragma once
// H.264 High or HEVC Main video from a sequence of 8-bit RGBA frames, in an
// MP4 or QuickTime container, through FFmpeg (libx264 / libx265). The file is
// written under a ".partial." name beside the destination and moved into
// place by finish(), so a half-written video never carries the final name.
//
// Settings: average bit rate as given, else fps x W x H x 0.26 (H.264) or
// x 0.155 (HEVC) bits per second; a key frame at least every 2 x fps frames;
// B-frames allowed; 4:2:0 with BT.709 primaries, transfer and matrix in the
// limited (video) range, tagged as such in the stream and the container.
#include "image/VideoCodec.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

// A failed video write; what() is the whole sentence.
class VideoError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    std::string description() const { return what(); }
};

// "H.264 High" or "HEVC Main".
std::string_view codecDisplayName(Codec codec);

class VideoWriter {
public:
    // Reads --bitrate: "16M", "8000k", "1.5m", "12000000" (case and white
    // space ignored); bits per second, or nothing for zero, negative or bad text.
    static std::optional<int64_t> parseBitrate(std::string_view text);

    // The default average bit rate: trunc(fps x W x H x 0.26) for H.264,
    // trunc(fps x W x H x 0.155) for HEVC, bits per second.
    static int64_t defaultBitrate(Codec codec, int64_t width, int64_t height, double fps);

    // clip.mp4 -> clip.partial.mp4 (".partial" appended when there is no extension).
    static std::filesystem::path partialPath(const std::filesystem::path& url);

    // Whether the destination is a QuickTime movie (extension "mov", any case)
    // rather than MPEG-4.
    static bool isQuickTime(const std::filesystem::path& url);

    // Opens the encoder and the container on the partial name and writes the
    // header. bitrate: bits per second; absent or not positive means the
    // default. Throws VideoError.
    VideoWriter(const std::filesystem::path& url, int64_t width, int64_t height, double fps, Codec codec,
                std::optional<int64_t> bitrate = std::nullopt);
    // A writer destroyed before finish() removes its partial file.
    ~VideoWriter();
    VideoWriter(const VideoWriter&) = delete;
    VideoWriter& operator=(const VideoWriter&) = delete;

    // Adds the next frame (width x height x 4 bytes, top row first, alpha
    // ignored), shown at time index / fps. Throws VideoError.
    void append(const uint8_t* rgba, size_t byteCount);
    void append(const std::vector<uint8_t>& rgba) { append(rgba.data(), rgba.size()); }

    // Drains the encoder, completes the file and moves it to its final name.
    // Throws VideoError; the final name is then untouched.
    void finish();

    int64_t width() const { return width_; }
    int64_t height() const { return height_; }
    int64_t bitrate() const { return bitrate_; }          // bits per second
    int64_t framesAppended() const { return frames_; }
    const std::filesystem::path& url() const { return url_; }

private:
    struct Encoder;
    std::unique_ptr<Encoder> enc_;
    std::filesystem::path url_;
    std::filesystem::path partial_;
    int64_t width_ = 0;
    int64_t height_ = 0;
    int64_t bitrate_ = 0;
    int64_t frames_ = 0;
    bool finished_ = false;

    void drain(bool flushing);
    void abandon() noexcept;
};

} // namespace qv
