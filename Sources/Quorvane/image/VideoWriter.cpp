#include "image/VideoWriter.h"

#include "image/Bitrate.h"
#include "scene/TextFormat.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <mutex>
#include <system_error>

namespace fs = std::filesystem;

namespace qv {

namespace {

std::string avError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

std::string sizeText(int64_t w, int64_t h) { return std::to_string(w) + "x" + std::to_string(h); }

// libx264 and libx265 report their set-up at information level on standard
// error; the command line's report lines are on standard output, and only
// real problems should reach the terminal.
void quietenFFmpegLog() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_ERROR); });
}

const AVCodec* findEncoder(Codec codec) {
    const char* preferred = codec == Codec::h264 ? "libx264" : "libx265";
    if (const AVCodec* c = avcodec_find_encoder_by_name(preferred)) return c;
    return avcodec_find_encoder(codec == Codec::h264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
}

} // namespace

struct VideoWriter::Encoder {
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    AVStream* stream = nullptr;
    SwsContext* convert = nullptr;
    AVFrame* frame = nullptr;
    AVPacket* packet = nullptr;
    bool fileOpen = false;

    ~Encoder() {
        av_packet_free(&packet);
        av_frame_free(&frame);
        sws_freeContext(convert);
        avcodec_free_context(&codec);
        if (format) {
            if (fileOpen) avio_closep(&format->pb);
            avformat_free_context(format);
        }
    }
};

std::string_view codecDisplayName(Codec codec) { return codec == Codec::h264 ? "H.264 High" : "HEVC Main"; }

std::optional<int64_t> VideoWriter::parseBitrate(std::string_view text) { return qv::parseBitrate(text); }

int64_t VideoWriter::defaultBitrate(Codec codec, int64_t width, int64_t height, double fps) {
    const double bitsPerPixel = codec == Codec::h264 ? 0.26 : 0.155;
    return static_cast<int64_t>(std::trunc(fps * static_cast<double>(width * height) * bitsPerPixel));
}

fs::path VideoWriter::partialPath(const fs::path& url) {
    fs::path partial = url;
    if (url.has_extension())
        partial.replace_extension(".partial" + url.extension().string());
    else
        partial += ".partial";
    return partial;
}

bool VideoWriter::isQuickTime(const fs::path& url) {
    std::string ext = url.extension().string();
    for (char& c : ext)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return ext == ".mov";
}

VideoWriter::VideoWriter(const fs::path& url, int64_t width, int64_t height, double fps, Codec codec,
                         std::optional<int64_t> bitrate)
    : url_(url), partial_(partialPath(url)), width_(width), height_(height) {
    // 4:2:0 chroma halves both sides.
    if (width <= 0 || height <= 0 || width % 2 != 0 || height % 2 != 0 || width > 16384 || height > 16384)
        throw VideoError("video size " + sizeText(width, height) + " must be even");
    if (!std::isfinite(fps) || fps <= 0 || fps > 240)
        throw VideoError("video frame rate " + formatDouble(fps) + " is outside 1-240");
    bitrate_ = bitrate && *bitrate > 0 ? *bitrate : defaultBitrate(codec, width, height, fps);
    quietenFFmpegLog();

    enc_ = std::make_unique<Encoder>();
    const std::string codecName(toString(codec));
    auto cannotTakeTrack = [&](const std::string& reason) {
        return VideoError("AVAssetWriter cannot take a " + codecName + " track of " + sizeText(width, height) + " (" +
                          reason + ")");
    };

    const char* container = isQuickTime(url) ? "mov" : "mp4";
    int rc = avformat_alloc_output_context2(&enc_->format, nullptr, container, partial_.c_str());
    if (rc < 0 || !enc_->format) throw cannotTakeTrack("no " + std::string(container) + " muxer: " + avError(rc));

    const AVCodec* encoder = findEncoder(codec);
    if (!encoder) throw cannotTakeTrack("this FFmpeg has no " + codecName + " encoder");
    enc_->codec = avcodec_alloc_context3(encoder);
    if (!enc_->codec) throw VideoError("could not allocate a video frame");

    // Whole rates keep their exact time base; others (23.976...) the closest ratio.
    const AVRational rate = av_d2q(fps, 1001000);
    AVCodecContext* c = enc_->codec;
    c->width = static_cast<int>(width);
    c->height = static_cast<int>(height);
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    c->time_base = av_inv_q(rate);
    c->framerate = rate;
    // x264 and x265 take the rate in whole kbit/s; a tiny video's default
    // could round to zero, which they refuse.
    c->bit_rate = std::max<int64_t>(bitrate_, 1000);
    c->gop_size = std::max(1, static_cast<int>(std::lround(2 * fps)));
    c->color_primaries = AVCOL_PRI_BT709;
    c->color_trc = AVCOL_TRC_BT709;
    c->colorspace = AVCOL_SPC_BT709;
    c->color_range = AVCOL_RANGE_MPEG;
    c->sample_aspect_ratio = AVRational{1, 1};
    if (enc_->format->oformat->flags & AVFMT_GLOBALHEADER) c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (codec == Codec::h264) {
        av_opt_set(c->priv_data, "profile", "high", 0);
    } else {
        av_opt_set(c->priv_data, "profile", "main", 0);
        av_opt_set(c->priv_data, "x265-params", "log-level=error", 0);
    }
    rc = avcodec_open2(c, encoder, nullptr);
    if (rc < 0) throw cannotTakeTrack(std::string(encoder->name) + ": " + avError(rc));

    enc_->stream = avformat_new_stream(enc_->format, nullptr);
    if (!enc_->stream) throw cannotTakeTrack("no stream");
    rc = avcodec_parameters_from_context(enc_->stream->codecpar, c);
    if (rc < 0) throw cannotTakeTrack(avError(rc));
    enc_->stream->time_base = c->time_base;
    enc_->stream->avg_frame_rate = rate;
    enc_->stream->r_frame_rate = rate;
    // QuickTime players want HEVC tagged hvc1 (parameter sets in the sample
    // description), not the muxer's default hev1.
    if (codec == Codec::hevc) enc_->stream->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');

    // Full-range RGB in, BT.709 limited-range YCbCr out (swscale defaults to BT.601).
    enc_->convert = sws_getContext(c->width, c->height, AV_PIX_FMT_RGBA, c->width, c->height, AV_PIX_FMT_YUV420P,
                                   SWS_BICUBIC | SWS_ACCURATE_RND, nullptr, nullptr, nullptr);
    if (!enc_->convert)
        throw VideoError("AVAssetWriter has no pixel buffer pool (swscale cannot convert RGBA to 4:2:0 at " +
                         sizeText(width, height) + ")");
    const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
    sws_setColorspaceDetails(enc_->convert, bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);

    enc_->frame = av_frame_alloc();
    enc_->packet = av_packet_alloc();
    if (!enc_->frame || !enc_->packet) throw VideoError("could not allocate a video frame");
    enc_->frame->format = c->pix_fmt;
    enc_->frame->width = c->width;
    enc_->frame->height = c->height;
    enc_->frame->color_primaries = c->color_primaries;
    enc_->frame->color_trc = c->color_trc;
    enc_->frame->colorspace = c->colorspace;
    enc_->frame->color_range = c->color_range;
    if (av_frame_get_buffer(enc_->frame, 0) < 0) throw VideoError("could not allocate a video frame");

    std::error_code ec;
    fs::remove(partial_, ec);
    rc = avio_open(&enc_->format->pb, partial_.c_str(), AVIO_FLAG_WRITE);
    if (rc < 0) throw VideoError("AVAssetWriter: could not start (" + partial_.string() + ": " + avError(rc) + ")");
    enc_->fileOpen = true;
    rc = avformat_write_header(enc_->format, nullptr);
    if (rc < 0) {
        abandon();
        throw VideoError("AVAssetWriter: could not start (" + avError(rc) + ")");
    }
}

VideoWriter::~VideoWriter() {
    if (!finished_) abandon();
}

void VideoWriter::abandon() noexcept {
    enc_.reset();
    std::error_code ec;
    fs::remove(partial_, ec);
}

void VideoWriter::append(const uint8_t* rgba, size_t byteCount) {
    if (finished_ || !enc_) throw VideoError("video encoder refused frame " + std::to_string(frames_));
    const size_t expected = static_cast<size_t>(width_) * static_cast<size_t>(height_) * 4;
    if (!rgba || byteCount != expected)
        throw VideoError("video frame " + std::to_string(frames_) + " has " + std::to_string(byteCount) +
                         " bytes, not the " + std::to_string(expected) + " of a " + sizeText(width_, height_) +
                         " RGBA frame");

    // The encoder may still hold a reference to the previous frame's planes.
    if (av_frame_make_writable(enc_->frame) < 0) throw VideoError("could not allocate a video frame");
    const uint8_t* src[4] = {rgba, nullptr, nullptr, nullptr};
    const int srcStride[4] = {static_cast<int>(width_ * 4), 0, 0, 0};
    sws_scale(enc_->convert, src, srcStride, 0, static_cast<int>(height_), enc_->frame->data,
              enc_->frame->linesize);
    enc_->frame->pts = frames_;

    int rc = avcodec_send_frame(enc_->codec, enc_->frame);
    if (rc == AVERROR(EAGAIN)) {
        // The encoder's queue is full: take its packets, then offer the frame again.
        drain(false);
        rc = avcodec_send_frame(enc_->codec, enc_->frame);
    }
    if (rc < 0) throw VideoError("video encoder refused frame " + std::to_string(frames_));
    ++frames_;
    drain(false);
}

void VideoWriter::drain(bool flushing) {
    for (;;) {
        int rc = avcodec_receive_packet(enc_->codec, enc_->packet);
        if (rc == AVERROR(EAGAIN) && !flushing) return;
        if (rc == AVERROR_EOF) return;
        if (rc < 0) throw VideoError("video encoder failed: " + avError(rc));
        av_packet_rescale_ts(enc_->packet, enc_->codec->time_base, enc_->stream->time_base);
        enc_->packet->stream_index = enc_->stream->index;
        rc = av_interleaved_write_frame(enc_->format, enc_->packet);
        if (rc < 0) throw VideoError("video encoder failed: " + avError(rc));
    }
}

void VideoWriter::finish() {
    if (finished_ || !enc_) throw VideoError("the video writer for " + url_.string() + " did not complete");
    try {
        int rc = avcodec_send_frame(enc_->codec, nullptr);
        if (rc < 0) throw VideoError("video encoder failed: " + avError(rc));
        drain(true);
        rc = av_write_trailer(enc_->format);
        if (rc < 0)
            throw VideoError("the video file " + partial_.string() + " (" + avError(rc) + ") did not complete");
        enc_->fileOpen = false;
        rc = avio_closep(&enc_->format->pb);
        if (rc < 0)
            throw VideoError("the video file " + partial_.string() + " (" + avError(rc) + ") did not complete");
        std::error_code ec;
        fs::rename(partial_, url_, ec);
        if (ec)
            throw VideoError("the move of " + partial_.string() + " to " + url_.string() + " (" + ec.message() +
                             ") did not complete");
    } catch (...) {
        abandon();
        throw;
    }
    finished_ = true;
    enc_.reset();
}

} // namespace qv
