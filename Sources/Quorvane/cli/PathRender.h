#pragma once
// The camera-path run: a fly-through rendered into a resumable folder of
// numbered PNG frames, then encoded into one video once every frame exists.
//
// The frame folder is the only state. A frame is written as
// ".frame_%05d.partial.png" and renamed to "frame_%05d.png" only when whole,
// so a run killed at any moment leaves at worst one partial file, which the
// next run redoes; finished frames are skipped. Several processes may share
// one folder as long as their --frames ranges do not overlap (array jobs),
// and a last --encode-only run writes the video.
//
// The rendering of one frame is not done here: the headless driver passes a
// FrameRenderer that path traces, denoises, tone maps and writes the PNG.
#include "cli/CLIOptions.h"
#include "scene/CameraPath.h"
#include "scene/LogSink.h"
#include "scene/SceneDescription.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace qv {

// One frame the path run asks the renderer for.
struct PathFrame {
    int64_t index = 0;                         // frame number in the whole path, from 0
    double time = 0;                           // seconds into the path: index / fps
    CameraDef camera;                          // "path frame <index>": eye, target, field of view and axis
    CameraPathSample sample;                   // the path at `time`, with the look keys' white balance and exposure
    // The camera of frame index - 1 when that was the frame rendered just
    // before this one (temporal motion vectors); absent after a gap.
    std::optional<CameraDef> previousCamera;
    // The denoise to apply: temporal (keep history across frames, reset the
    // accumulation with keepDenoiserHistory), hybrid (each frame on its own,
    // as a still) or off.
    CLIOptions::VideoDenoise denoise = CLIOptions::VideoDenoise::hybrid;
    // A warm-up frame rebuilds temporal history: render and denoise it, write nothing.
    bool warmUp = false;
    // Where to write the finished 8-bit PNG (the ".partial" name); empty for warm-up frames.
    std::filesystem::path partialPng;
};

// Renders one frame with the full sample budget (--spp, or until --max-seconds)
// and, unless it is a warm-up frame, writes the PNG to frame.partialPng.
// Returns the samples per pixel taken. Throws on failure.
using FrameRenderer = std::function<int64_t(const PathFrame& frame)>;

// What the renderer set-up reports back.
struct PathRenderSetup {
    // Empty when the temporal denoiser was created; otherwise why it could
    // not be, and the frames are denoised on their own.
    std::string temporalUnavailableReason = "the temporal denoiser is not available in this build";
};

struct PathRenderHooks {
    // Creates the renderer, loads the model and scene into it, sets the
    // environment and prints the "device: " and "environment: " lines. Not
    // called with --encode-only. `temporalWanted` says whether the temporal
    // denoiser should be created.
    std::function<PathRenderSetup(bool temporalWanted)> prepare;
    FrameRenderer renderFrame;
    // The clock for the timing fields; the steady clock when empty.
    std::function<std::chrono::steady_clock::time_point()> now;
};

class PathRender {
public:
    static constexpr int64_t kDefaultWarmupFrames = 6;

    // The whole run: output checks, the "path:" line, rendering of the frame
    // range (unless --encode-only), the encode with --out, the "done" line.
    // `pathFile` is the path as given on the command line; `start` the run's
    // start for the total time. Throws HeadlessError, VideoError, PathError
    // or the frame renderer's errors.
    static void run(const CLIOptions& options, const CameraPath& path, const std::string& pathFile,
                    const PathRenderHooks& hooks, const LogSink& out,
                    std::chrono::steady_clock::time_point start);

    // Encodes frames 0 to total - 1 of the folder into `videoURL` when every
    // one exists; otherwise prints what is missing and writes nothing.
    // Returns whether the video was written. Throws VideoError.
    static bool encodePathVideo(const std::filesystem::path& framesDir, int64_t total, double fps,
                                const std::filesystem::path& videoURL, const CLIOptions& options,
                                const LogSink& out,
                                const std::function<std::chrono::steady_clock::time_point()>& now = {});

    // round(fps x duration) + 1, halves away from zero.
    static int64_t frameCount(double fps, double durationSeconds);
    // "frame_00042.png" and ".frame_00042.partial.png".
    static std::string frameFileName(int64_t index);
    static std::string partialFrameFileName(int64_t index);
    // --frames-dir, else the video path without its extension plus "_frames".
    // Throws HeadlessError when neither --out nor --frames-dir is given, or
    // --out is not .mp4 or .mov.
    static std::filesystem::path framesFolder(const CLIOptions& options);
    // The camera for a frame: named "path frame <index>".
    static CameraDef frameCamera(const CameraPath& path, int64_t index, const CameraPathSample& sample);
    // The "video denoise: " line.
    static std::string videoDenoiseLine(CLIOptions::VideoDenoise mode, int64_t spp,
                                        std::optional<double> maxSeconds);
};

} // namespace qv
