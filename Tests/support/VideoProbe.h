#pragma once
// Reads a video file back with libavformat/libavcodec for tests: the stream's
// codec, profile, size, rate, colour tags and packets, and optionally the
// first decoded picture's planes.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include <cstdint>
#include <string>
#include <vector>

namespace qv::test {

struct VideoProbe {
    bool opened = false;
    std::string majorBrand;            // container brand: "isom" for MP4, "qt  " for QuickTime
    AVCodecID codecId = AV_CODEC_ID_NONE;
    int profile = -1;
    uint32_t codecTag = 0;
    int width = 0;
    int height = 0;
    AVPixelFormat pixelFormat = AV_PIX_FMT_NONE;
    AVRational avgFrameRate{0, 1};
    int64_t streamFrames = 0;          // nb_frames from the container's index
    int64_t packets = 0;               // packets actually demuxed
    std::vector<int64_t> keyFrames;    // packet indices (decode order) of key frames
    int videoDelay = 0;                // reorder depth (> 0 with B-frames)
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    int64_t bitRate = 0;               // bits per second, from the container
    // The first decoded picture's centre sample of each plane (Y, Cb, Cr).
    int centreY = -1, centreCb = -1, centreCr = -1;
    int decodedFrames = 0;
};

inline VideoProbe probeVideo(const std::string& path, bool decode = false) {
    VideoProbe p;
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) return p;
    if (avformat_find_stream_info(fmt, nullptr) < 0) {
        avformat_close_input(&fmt);
        return p;
    }
    int si = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (si < 0) {
        avformat_close_input(&fmt);
        return p;
    }
    p.opened = true;
    if (const AVDictionaryEntry* e = av_dict_get(fmt->metadata, "major_brand", nullptr, 0)) p.majorBrand = e->value;
    const AVStream* st = fmt->streams[si];
    const AVCodecParameters* par = st->codecpar;
    p.codecId = par->codec_id;
    p.profile = par->profile;
    p.codecTag = par->codec_tag;
    p.width = par->width;
    p.height = par->height;
    p.pixelFormat = static_cast<AVPixelFormat>(par->format);
    p.avgFrameRate = st->avg_frame_rate;
    p.streamFrames = st->nb_frames;
    p.videoDelay = par->video_delay;
    p.primaries = par->color_primaries;
    p.transfer = par->color_trc;
    p.matrix = par->color_space;
    p.range = par->color_range;
    p.bitRate = par->bit_rate;

    AVCodecContext* dec = nullptr;
    if (decode) {
        const AVCodec* codec = avcodec_find_decoder(par->codec_id);
        dec = codec ? avcodec_alloc_context3(codec) : nullptr;
        if (dec && (avcodec_parameters_to_context(dec, par) < 0 || avcodec_open2(dec, codec, nullptr) < 0))
            avcodec_free_context(&dec);
    }
    AVPacket* pkt = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    auto takeFrames = [&] {
        while (dec && avcodec_receive_frame(dec, frame) == 0) {
            if (p.decodedFrames++ == 0 && frame->format == AV_PIX_FMT_YUV420P) {
                int cx = frame->width / 2, cy = frame->height / 2;
                p.centreY = frame->data[0][cy * frame->linesize[0] + cx];
                p.centreCb = frame->data[1][(cy / 2) * frame->linesize[1] + cx / 2];
                p.centreCr = frame->data[2][(cy / 2) * frame->linesize[2] + cx / 2];
            }
            av_frame_unref(frame);
        }
    };
    while (av_read_frame(fmt, pkt) >= 0) {
        if (pkt->stream_index == si) {
            if (pkt->flags & AV_PKT_FLAG_KEY) p.keyFrames.push_back(p.packets);
            ++p.packets;
            if (dec && avcodec_send_packet(dec, pkt) >= 0) takeFrames();
        }
        av_packet_unref(pkt);
    }
    if (dec) {
        avcodec_send_packet(dec, nullptr);
        takeFrames();
    }
    av_frame_free(&frame);
    av_packet_free(&pkt);
    avcodec_free_context(&dec);
    avformat_close_input(&fmt);
    return p;
}

} // namespace qv::test
