#pragma once
// The path-traced still of a headless run, from the lighting environment to
// the 8-bit image: renderer set-up with its report lines, batched sampling to
// a sample budget or a time limit, automatic exposure and white balance,
// denoising, dumps and the tone-mapped read-back. Camera-path frames reuse
// one session for every frame.
#include "cli/CLIOptions.h"
#include "cli/EnvironmentChoice.h"
#include "image/AtrousDenoiser.h"
#include "pathtracer/Renderer.h"
#include "scene/LoadedModel.h"
#include "scene/LogSink.h"
#include "scene/SceneDescription.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qv {

struct StillImage {
    std::vector<uint8_t> rgba; // width x height x 4, top row first
    int64_t width = 0;
    int64_t height = 0;
};

// A camera path's look at one frame: white balance and exposure keys.
struct FrameLook {
    std::optional<float> exposureEV; // stops, in place of the camera's exposure_ev
    std::optional<float> wbKelvin;   // K, in place of the white balance in force
    std::optional<bool> denoise;     // in place of --denoise
};

class StillSession {
public:
    // Which "environment: " line the session prints: a still's, or a camera
    // path's (EV100 before the path's own exposure).
    enum class Report { still, path };

    // Chooses the environment for `camera`, creates the renderer, loads the
    // scene and sets the environment, printing the "sun by date", "device" and
    // "environment" lines.
    StillSession(const CLIOptions& options, const LoadedModel& model, const SceneDescription& scene,
                 const CameraDef& camera, LogSink out, Report report = Report::still);
    ~StillSession();

    // Prints the "camera: " line for the camera about to be rendered.
    void printCameraLine(const CameraDef& camera) const;

    // Renders the camera with every step of a still (sampling, statistics,
    // exposure, white balance, denoise, dumps) and returns the image at the
    // output size (a panorama's padding cropped). `reportLines` off keeps
    // path frames quiet except for warnings.
    StillImage render(const CameraDef& camera, bool reportLines = true, const FrameLook& look = {});

    Renderer& renderer() { return *renderer_; }
    const EnvironmentChoice& environment() const { return env_; }

private:
    void waitForBackgroundGrid();
    void sample(int64_t spp);
    std::string whiteBalanceDescription(std::optional<float3> measuredGains) const;
    float3 whiteBalanceGains(bool report);

    CLIOptions options_;
    const LoadedModel& model_;
    const SceneDescription& scene_;
    LogSink out_;
    EnvironmentChoice env_;
    std::unique_ptr<Renderer> renderer_;
    std::unique_ptr<AtrousDenoiser> denoiser_;
    WhiteBalance whiteBalance_;
    WhiteBalance sessionWhiteBalance_;
    double denoiseSeconds_ = 0;
    double samplingSeconds_ = 0;
    bool reportLines_ = true;
};

} // namespace qv
