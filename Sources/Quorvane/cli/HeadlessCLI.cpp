#include "cli/HeadlessCLI.h"

#include "cli/CameraList.h"
#include "cli/CameraResolve.h"
#include "cli/PathRender.h"
#include "cli/StillRender.h"
#include "image/PNGWriter.h"
#include "scene/CameraPath.h"
#include "scene/DefaultSearch.h"
#include "scene/GLBLoader.h"
#include "scene/SceneDescription.h"
#include "scene/TextFormat.h"

#include <chrono>
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <cstdio>
#include <string>

namespace qv {

namespace {

using Clock = std::chrono::steady_clock;

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

void HeadlessCLI::run(const CLIOptions& options) {
    run(options, [](std::string_view line) {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
    });
}

void HeadlessCLI::run(const CLIOptions& options, const LogSink& out) {
    // 1. The model, then its scene.
    const Clock::time_point start = Clock::now();
    const std::string modelPath = options.model.value_or(defaultModel());
    const LoadedModel model = GLBLoader::load(modelPath);
    const double loadSeconds = secondsSince(start);
    const ResolvedScene resolved = resolveSceneSource(options.scene, modelPath, model, out);
    const SceneDescription& scene = resolved.scene;

    // 2. The cameras, and nothing else.
    if (options.listCameras) {
        for (const std::string& line : cameraListLines(scene)) out(line);
        return;
    }

    // 3. A camera path: frames rendered like stills by one session.
    if (options.pathFile) {
        const CameraPath path = CameraPath::load(*options.pathFile);
        CLIOptions pathOptions = options;
        // The path's time of day stands for the whole walk unless --time says otherwise.
        if (path.timeOfDay && !options.timeExplicit)
            if (auto t = enumFromName(kTimeOfDayNames, lowercased(*path.timeOfDay))) {
                pathOptions.time = *t;
                pathOptions.timeExplicit = true;
            }
        std::unique_ptr<StillSession> session;
        PathRenderHooks hooks;
        hooks.prepare = [&](bool) {
            const CameraDef first = PathRender::frameCamera(path, 0, path.at(0.0));
            session = std::make_unique<StillSession>(pathOptions, model, scene, first, out,
                                                     StillSession::Report::path);
            return PathRenderSetup{};
        };
        hooks.renderFrame = [&](const PathFrame& frame) -> int64_t {
            FrameLook look;
            if (frame.sample.exposureEV) look.exposureEV = float(*frame.sample.exposureEV);
            if (frame.sample.wbKelvin) look.wbKelvin = float(*frame.sample.wbKelvin);
            look.denoise = frame.denoise != CLIOptions::VideoDenoise::off;
            StillImage image = session->render(frame.camera, false, look);
            if (!frame.warmUp) PNGWriter::write(image.rgba, image.width, image.height, frame.partialPng);
            return session->renderer().sampleCount();
        };
        PathRender::run(pathOptions, path, *options.pathFile, hooks, out, start);
        return;
    }

    // 4-5. Option combinations that need no renderer to refuse.
    const bool rasterQA = options.raster || options.benchRaster || options.parity;
    if (rasterQA && options.settings.projection == Projection::equirect)
        throw HeadlessError("--projection equirect is for path-traced stills and paths, not --raster / --parity");
    if (!options.out && !options.benchRaster) throw HeadlessError("--out <png> is required in headless mode");
    std::filesystem::path outPath;
    if (options.out) outPath = preflightOutput(*options.out);

    // 6. The camera.
    const CameraDef camera = resolveCamera(options, scene);

    // 7. The model line.
    out(strprintf("model: %s  (%zu tris, %zu materials, bounds %.2f,%.2f,%.2f .. %.2f,%.2f,%.2f, loaded in %.2fs)",
                  modelPath.c_str(), model.triangleCount(), model.materials.size(), model.boundsMin.x,
                  model.boundsMin.y, model.boundsMin.z, model.boundsMax.x, model.boundsMax.y, model.boundsMax.z,
                  loadSeconds));
    if (model.droppedTriangles > 0)
        out(std::to_string(model.droppedTriangles) + " triangle(s) with bad vertex positions were dropped");
    for (const std::string& warning : model.warnings) out("warning: " + warning);

    if (rasterQA) throw HeadlessError("raster QA runs are not built yet in this version of quorvane");

    // 8-23. The still.
    StillSession session(options, model, scene, camera, out);
    StillImage image = session.render(camera);
    PNGWriter::write(image.rgba, image.width, image.height, outPath);
    out(strprintf("wrote %s  (total %.2fs)", options.out->c_str(), secondsSince(start)));
}

} // namespace qv
