#include "cli/PathRender.h"

#include "cli/HeadlessCLI.h"
#include "image/VideoWriter.h"
#include "scene/BoundedFileRead.h"
#include "scene/ImageDecode.h"
#include "scene/TextFormat.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

namespace qv {

namespace {

using Clock = std::chrono::steady_clock;

std::string lowerCase(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

bool isRegularFile(const fs::path& p) {
    std::error_code ec;
    return fs::is_regular_file(p, ec);
}

// The frame number of a leftover from an interrupted frame write: the partial
// frame itself (".frame_00042.partial.png") or the PNG writer's hidden
// temporary for it ("..frame_00042.partial.<pid>.tmp.png").
std::optional<int64_t> leftoverFrameIndex(const std::string& name) {
    std::string_view rest(name);
    if (rest.starts_with("..frame_")) rest.remove_prefix(8);
    else if (rest.starts_with(".frame_")) rest.remove_prefix(7);
    else return std::nullopt;
    size_t digits = 0;
    while (digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9') ++digits;
    if (digits < 5 || digits > 18) return std::nullopt;
    std::string_view tail = rest.substr(digits);
    bool partial = tail == ".partial.png";
    bool temporary = tail.starts_with(".partial.") && tail.ends_with(".tmp.png") && name.starts_with("..");
    if (!partial && !temporary) return std::nullopt;
    return std::stoll(std::string(rest.substr(0, digits)));
}

// Removes what interrupted runs left for frames of this range; other ranges
// may belong to other processes sharing the folder.
void removeLeftovers(const fs::path& folder, int64_t first, int64_t last) {
    std::error_code ec;
    std::vector<fs::path> stale;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::optional<int64_t> index = leftoverFrameIndex(it->path().filename().string());
        if (index && *index >= first && *index <= last) stale.push_back(it->path());
    }
    for (const fs::path& p : stale) fs::remove(p, ec);
}

// Flushes a finished frame to the storage before it gets its final name, so
// that a crash of the machine (not only of the process) cannot leave a final
// name on a file whose data never arrived; matters on shared network folders.
void syncFile(const fs::path& p) {
    int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    (void)::fsync(fd);
    ::close(fd);
}

// "0-49, 61, 70-99", at most `limit` runs, then ", ..."
std::string missingRuns(const std::vector<int64_t>& missing, size_t limit) {
    std::string text;
    size_t runs = 0;
    for (size_t i = 0; i < missing.size();) {
        size_t j = i;
        while (j + 1 < missing.size() && missing[j + 1] == missing[j] + 1) ++j;
        if (runs == limit) {
            text += ", ...";
            break;
        }
        if (runs > 0) text += ", ";
        text += std::to_string(missing[i]);
        if (j > i) text += "-" + std::to_string(missing[j]);
        ++runs;
        i = j + 1;
    }
    return text;
}

RGBA8Image readFrame(const fs::path& file) {
    std::string bytes;
    try {
        bytes = readFileBounded(file.string(), size_t(1) << 30);
    } catch (const FileReadError& e) {
        throw VideoError("could not read the frame " + file.string() + ": " + e.what());
    }
    std::optional<RGBA8Image> image = decodeImageRGBA8(
        std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), int64_t(1) << 28);
    if (!image) throw VideoError("the frame " + file.string() + " is not a readable PNG");
    return std::move(*image);
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

} // namespace

int64_t PathRender::frameCount(double fps, double durationSeconds) {
    return static_cast<int64_t>(std::round(fps * durationSeconds)) + 1;
}

std::string PathRender::frameFileName(int64_t index) { return strprintf("frame_%05lld.png", (long long)index); }

std::string PathRender::partialFrameFileName(int64_t index) {
    return strprintf(".frame_%05lld.partial.png", (long long)index);
}

fs::path PathRender::framesFolder(const CLIOptions& options) {
    if (options.out) {
        std::string ext = lowerCase(fs::path(*options.out).extension().string());
        if (ext != ".mp4" && ext != ".mov")
            throw HeadlessError(
                "with --path, --out is the video (.mp4 or .mov); the PNG frames go to --frames-dir");
    } else if (!options.framesDir) {
        throw HeadlessError("--path needs --out <video.mp4> and/or --frames-dir <folder>");
    }
    if (options.framesDir) return fs::path(*options.framesDir);
    fs::path video(*options.out);
    fs::path folder = video;
    folder.replace_extension();
    folder += "_frames";
    return folder;
}

CameraDef PathRender::frameCamera(const CameraPath& path, int64_t index, const CameraPathSample& sample) {
    CameraDef camera;
    camera.name = "path frame " + std::to_string(index);
    camera.eye = float3{float(sample.eye[0]), float(sample.eye[1]), float(sample.eye[2])};
    camera.target = float3{float(sample.target[0]), float(sample.target[1]), float(sample.target[2])};
    camera.fovDeg = float(sample.fovDeg);
    camera.fovAxis = path.fovAxisHorizontal ? "horizontal" : "vertical";
    return camera;
}

std::string PathRender::videoDenoiseLine(CLIOptions::VideoDenoise mode, int64_t spp,
                                         std::optional<double> maxSeconds) {
    std::string line = "video denoise: " + std::string(toString(mode));
    if (mode == CLIOptions::VideoDenoise::temporal)
        line += " (MetalFX history across frames, motion vectors from the first hit)";
    line += strprintf(", %lld spp per frame", (long long)spp);
    if (maxSeconds) line += strprintf(" or %.1f s", *maxSeconds);
    return line;
}

void PathRender::run(const CLIOptions& options, const CameraPath& path, const std::string& pathFile,
                     const PathRenderHooks& hooks, const LogSink& out, Clock::time_point start) {
    auto now = [&] { return hooks.now ? hooks.now() : Clock::now(); };

    // Output checks, then the frame range.
    const fs::path folder = framesFolder(options);
    const double fps = options.fps.value_or(path.fps);
    const int64_t total = frameCount(fps, path.duration);
    const int64_t lastFrame = total - 1;
    const FrameRange asked = options.frameRange.value_or(FrameRange{0, lastFrame});
    const int64_t first = std::max<int64_t>(asked.first, 0);
    const int64_t last = std::min(asked.last, lastFrame);
    if (first > last) {
        std::string upper = asked.last == std::numeric_limits<int64_t>::max() ? "" : std::to_string(asked.last);
        throw HeadlessError("--frames " + std::to_string(asked.first) + ":" + upper + " is outside the path's 0:" +
                            std::to_string(lastFrame));
    }
    out(strprintf("path: %s  %zu keyframes, %.2f s at %.3g fps = %lld frames; rendering %lld:%lld into %s",
                  pathFile.c_str(), path.keys.size(), path.duration, fps, (long long)total, (long long)first,
                  (long long)last, folder.c_str()));

    if (!options.encodeOnly) {
        std::error_code ec;
        fs::create_directories(folder, ec);
        if (ec || !fs::is_directory(folder))
            throw HeadlessError("could not create the frame folder " + folder.string() +
                                (ec ? ": " + ec.message() : ""));

        const CLIOptions::VideoDenoise requested = options.videoDenoise.value_or(CLIOptions::VideoDenoise::temporal);
        const bool temporalWanted = requested == CLIOptions::VideoDenoise::temporal;
        PathRenderSetup setup = hooks.prepare ? hooks.prepare(temporalWanted) : PathRenderSetup{};
        out(videoDenoiseLine(requested, options.spp, options.maxSeconds));
        CLIOptions::VideoDenoise mode = requested;
        if (temporalWanted && !setup.temporalUnavailableReason.empty()) {
            out("warning: " + setup.temporalUnavailableReason +
                "; frames use the a-trous denoiser on their own (no temporal history)");
            mode = CLIOptions::VideoDenoise::hybrid;
        }
        const bool temporal = mode == CLIOptions::VideoDenoise::temporal;
        const int64_t warmup = std::max<int64_t>(0, options.warmupFrames.value_or(kDefaultWarmupFrames));

        removeLeftovers(folder, first, last);

        int64_t rendered = 0, alreadyThere = 0;
        double renderedSeconds = 0;
        std::optional<int64_t> previousIndex;
        std::optional<CameraDef> previousCamera;

        auto makeFrame = [&](int64_t index, bool warmUp) {
            PathFrame frame;
            frame.index = index;
            frame.time = static_cast<double>(index) / fps;
            frame.sample = path.at(frame.time);
            frame.camera = frameCamera(path, index, frame.sample);
            if (previousIndex && *previousIndex == index - 1) frame.previousCamera = previousCamera;
            frame.denoise = mode;
            frame.warmUp = warmUp;
            if (!warmUp) frame.partialPng = folder / partialFrameFileName(index);
            return frame;
        };

        for (int64_t f = first; f <= last; ++f) {
            const fs::path finalPng = folder / frameFileName(f);
            if (!options.overwrite && isRegularFile(finalPng)) {
                ++alreadyThere;
                continue;
            }

            // Temporal history is broken at the start and after skipped frames:
            // refill it from the frames just before this one.
            if (temporal && previousIndex != f - 1) {
                for (int64_t g = f - std::min(warmup, f); g < f; ++g) {
                    PathFrame warm = makeFrame(g, true);
                    const Clock::time_point t = now();
                    const int64_t spp = hooks.renderFrame(warm);
                    out(strprintf("  warm-up frame %lld (%lld spp, %.1f s)", (long long)g, (long long)spp,
                                  seconds(now() - t)));
                    previousIndex = g;
                    previousCamera = warm.camera;
                }
            }

            PathFrame frame = makeFrame(f, false);
            const Clock::time_point t = now();
            const int64_t spp = hooks.renderFrame(frame);
            if (!isRegularFile(frame.partialPng))
                throw HeadlessError("frame " + std::to_string(f) + " was not written to " +
                                    frame.partialPng.string());
            syncFile(frame.partialPng);
            fs::rename(frame.partialPng, finalPng, ec);
            if (ec)
                throw HeadlessError("could not move " + frame.partialPng.string() + " to " + finalPng.string() +
                                    ": " + ec.message());
            const double frameSeconds = seconds(now() - t);
            ++rendered;
            renderedSeconds += frameSeconds;
            previousIndex = f;
            previousCamera = frame.camera;

            const double mean = renderedSeconds / static_cast<double>(rendered);
            const double minutesLeft = static_cast<double>(last - f) * mean / 60.0;
            out(strprintf("  frame %lld/%lld  %lld spp  %.2f s  (mean %.2f s, about %.0f min left)  t=%.2f s  eye "
                          "%.2f,%.2f,%.2f",
                          (long long)f, (long long)lastFrame, (long long)spp, frameSeconds, mean, minutesLeft,
                          frame.time, frame.sample.eye[0], frame.sample.eye[1], frame.sample.eye[2]));
        }
        out(strprintf("path frames: %lld rendered (%.2f s each on average), %lld already there", (long long)rendered,
                      rendered > 0 ? renderedSeconds / static_cast<double>(rendered) : 0.0, (long long)alreadyThere));
    }

    if (options.out) encodePathVideo(folder, total, fps, *options.out, options, out, hooks.now);
    out(strprintf("done (total %.1f s)", seconds(now() - start)));
}

bool PathRender::encodePathVideo(const fs::path& framesDir, int64_t total, double fps, const fs::path& videoURL,
                                 const CLIOptions& options, const LogSink& out,
                                 const std::function<Clock::time_point()>& clock) {
    auto now = [&] { return clock ? clock() : Clock::now(); };
    const Clock::time_point start = now();

    std::vector<int64_t> missing;
    for (int64_t f = 0; f < total; ++f)
        if (!isRegularFile(framesDir / frameFileName(f))) missing.push_back(f);
    if (!missing.empty()) {
        out("video: " + std::to_string(missing.size()) + " of " + std::to_string(total) +
            " frames are not rendered yet (missing " + missingRuns(missing, 8) + ")");
        out("the video is written once every frame is there (run again, or with --encode-only)");
        return false;
    }
    if (fps != std::floor(fps))
        throw VideoError("video: --fps must be a whole number to encode (got " + formatDouble(fps) + ")");

    std::optional<VideoWriter> writer;
    for (int64_t f = 0; f < total; ++f) {
        const fs::path file = framesDir / frameFileName(f);
        RGBA8Image image = readFrame(file);
        if (!writer) {
            writer.emplace(videoURL, image.width, image.height, fps, options.codec, options.bitrate);
        } else if (image.width != writer->width() || image.height != writer->height()) {
            throw VideoError("the frame " + file.string() + " is " + std::to_string(image.width) + "x" +
                             std::to_string(image.height) + ", not " + std::to_string(writer->width()) + "x" +
                             std::to_string(writer->height()) + " like the first frame");
        }
        writer->append(image.pixels);
    }
    writer->finish();

    std::error_code ec;
    const uintmax_t bytes = fs::file_size(videoURL, ec);
    out(strprintf("video: %s  %lld frames, %lldx%lld, %.0f fps, %s at %.1f Mbit/s (%.1f MB) in %.1f s",
                  videoURL.c_str(), (long long)total, (long long)writer->width(), (long long)writer->height(), fps,
                  std::string(codecDisplayName(options.codec)).c_str(), double(writer->bitrate()) / 1e6,
                  ec ? 0.0 : double(bytes) / 1e6, seconds(now() - start)));
    return true;
}

} // namespace qv
