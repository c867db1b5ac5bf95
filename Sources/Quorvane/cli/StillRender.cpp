#include "cli/StillRender.h"

#include "cli/NeeStatsReport.h"
#include "image/RawDump.h"
#include "image/ToneMapping.h"
#include "scene/ColorMath.h"
#include "scene/TextFormat.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <filesystem>

namespace qv {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// Seconds of work each batch of samples aims at: long enough to amortise the
// dispatch, short enough for fine-grained progress and time limits.
constexpr double kBatchSeconds = 0.15;
constexpr int64_t kMaxBatch = 64;

// "<stem>_spp<N><ext>", or the count appended when the path has no extension.
std::filesystem::path checkpointPath(const std::string& dumpPath, int64_t spp) {
    std::filesystem::path p(dumpPath);
    std::string suffix = "_spp" + std::to_string(spp);
    if (!p.has_extension()) return std::filesystem::path(dumpPath + suffix);
    return p.parent_path() / (p.stem().string() + suffix + p.extension().string());
}

std::string denoiserName(DenoiserKind kind) {
    switch (kind) {
    case DenoiserKind::atrous: return "a-trous";
    case DenoiserKind::metalfx: return "MetalFX";
    case DenoiserKind::hybrid: return "hybrid";
    }
    return "a-trous";
}

} // namespace

StillSession::StillSession(const CLIOptions& options, const LoadedModel& model, const SceneDescription& scene,
                           const CameraDef& camera, LogSink out, Report report)
    : options_(options), model_(model), scene_(scene), out_(std::move(out)) {
    env_ = chooseEnvironment(options_, scene_.site, &camera);
    if (env_.sunByDateLine) out_(*env_.sunByDateLine);

    RenderSettings settings = options_.settings;
    settings.cameraExposureEV = env_.cameraExposureEV;
    const RenderDefaults* defaults = scene_.renderDefaults ? &*scene_.renderDefaults : nullptr;
    DefaultWhiteBalance dwb = defaultWhiteBalance(&camera, env_.time, model_.isUnderRoof(camera.eye), defaults);
    settings.cameraWhiteBalance = dwb.balance;
    whiteBalance_ = whiteBalanceInForce(settings.whiteBalanceOverride, settings.cameraWhiteBalance,
                                        env_.preset.whiteBalance);
    sessionWhiteBalance_ = whiteBalance_;

    renderer_ = std::make_unique<Renderer>(settings, out_);
    out_(strprintf("device: %s  (shaders compiled in %.2fs)", renderer_->deviceName().c_str(),
                   renderer_->compileSeconds()));
    renderer_->checkFrameSize(options_.renderWidth(), options_.height);
    renderer_->load(model_, scene_);
    renderer_->setEnvironment(env_.preset, scene_.northDeg.value_or(0.0f));
    waitForBackgroundGrid();

    const EnvironmentPreset& p = env_.preset;
    if (report == Report::path) {
        out_(strprintf("environment: %s  sun elev %.1f az %.1f  EV100 %.2f (before the path's exposure)",
                       env_.note.c_str(), p.sunElevationDeg, p.sunAzimuthDeg, renderer_->effectiveEV100()));
        return;
    }
    out_(strprintf("environment: %s  sun elev %.1f az %.1f  sun %.0f lux (normal)  sky %.0f lux (horizontal)  "
                   "zenith %.1f cd/m2  EV100 %.2f  white %.1f cd/m2  WB %s",
                   env_.note.c_str(), p.sunElevationDeg, p.sunAzimuthDeg, renderer_->sunIlluminanceLux(),
                   renderer_->skyIlluminanceLux(), renderer_->zenithLuminance(), renderer_->effectiveEV100(),
                   renderer_->whiteLuminance(), whiteBalanceDescription(std::nullopt).c_str()));
}

StillSession::~StillSession() = default;

// A grid baked in the background must be in place before sampling starts,
// so that every sample chooses lamps the same way.
void StillSession::waitForBackgroundGrid() {
    Renderer& r = *renderer_;
    if (!r.lightGridInBackground()) return;
    bool installed = r.installPendingLightGrid();
    out_(strprintf("async grid: load returned, grid installed: %s", installed ? "true" : "false"));
    if (installed) return;
    const Clock::time_point t0 = Clock::now();
    while (!installed && secondsSince(t0) < 30.0) installed = r.waitForLightGrid(0.01);
    out_(strprintf("async grid: installed %s after %.2f s on the main run loop", installed ? "true" : "false",
                   secondsSince(t0)));
}

std::string StillSession::whiteBalanceDescription(std::optional<float3> measuredGains) const {
    switch (whiteBalance_.kind) {
    case WhiteBalance::Kind::kelvin: return whiteBalance_.description();
    case WhiteBalance::Kind::sky:
        return whiteBalance_.description(ColorMath::whiteBalanceGains(renderer_->skyIlluminant()));
    case WhiteBalance::Kind::scene: return whiteBalance_.description(measuredGains);
    }
    return whiteBalance_.description();
}

void StillSession::printCameraLine(const CameraDef& camera) const {
    float aspect = float(options_.width) / float(std::max<int64_t>(options_.height, 1));
    if (options_.settings.projection == Projection::equirect) {
        float3 fwd = camera.target - camera.eye;
        double heading = std::atan2(double(fwd.x), double(-fwd.z)) * 180.0 / M_PI;
        if (heading < 0) heading += 360.0;
        long long pad = static_cast<long long>((options_.renderWidth() - options_.width) / 2);
        out_(strprintf("camera: %s  eye %s  equirectangular 360 x 180 degrees, %lldx%lld (+%lld px each side for the "
                       "denoiser, cropped), centre heading %.1f degrees from plan north, level",
                       camera.name.c_str(), formatFloatList(camera.eye).c_str(),
                       static_cast<long long>(options_.width), static_cast<long long>(options_.height), pad, heading));
        return;
    }
    out_(strprintf("camera: %s  eye %s target %s  fov %.1f v / %.1f h (given %.1f %s)", camera.name.c_str(),
                   formatFloatList(camera.eye).c_str(), formatFloatList(camera.target).c_str(),
                   camera.verticalFovDeg(aspect), camera.horizontalFovDeg(aspect), camera.fovAngleDeg(),
                   camera.fovAxisName().c_str()));
}

void StillSession::sample(int64_t spp) {
    Renderer& r = *renderer_;
    const Clock::time_point samplingStart = Clock::now();
    Clock::time_point lastProgress = samplingStart;
    int64_t perBatch = options_.sppPerBatch ? std::max<int64_t>(1, *options_.sppPerBatch) : 1;
    double longestBatch = 0;
    std::vector<int64_t> checkpoints;
    if (options_.dump)
        for (int64_t c : options_.dumpAt)
            if (c <= spp) checkpoints.push_back(c);
    size_t nextCheckpoint = 0;

    while (r.sampleCount() < spp) {
        if (options_.maxSeconds && secondsSince(samplingStart) >= *options_.maxSeconds) {
            if (reportLines_)
                out_(strprintf("  time limit %.0f s reached at %lld spp", *options_.maxSeconds,
                               static_cast<long long>(r.sampleCount())));
            break;
        }
        int64_t n = std::min(perBatch, spp - r.sampleCount());
        if (nextCheckpoint < checkpoints.size()) n = std::min(n, checkpoints[nextCheckpoint] - r.sampleCount());
        n = std::max<int64_t>(n, 1);
        const Clock::time_point batchStart = Clock::now();
        r.encodeSamples(n);
        double t = secondsSince(batchStart);
        longestBatch = std::max(longestBatch, t);
        if (!options_.sppPerBatch && t > 0)
            perBatch = std::clamp<int64_t>(int64_t(kBatchSeconds / (t / double(n))), 1, kMaxBatch);

        while (nextCheckpoint < checkpoints.size() && r.sampleCount() >= checkpoints[nextCheckpoint]) {
            std::filesystem::path path = checkpointPath(*options_.dump, checkpoints[nextCheckpoint]);
            RawDump::writeLinear(path, r.accum().data(), uint32_t(r.width()), uint32_t(r.height()),
                                 uint32_t(r.sampleCount()));
            ++nextCheckpoint;
        }
        if (reportLines_ && secondsSince(lastProgress) >= 2.0 && r.sampleCount() < spp) {
            double elapsed = secondsSince(samplingStart);
            out_(strprintf("  %lld / %lld spp  (%.1f spp/s, %lld spp per buffer)",
                           static_cast<long long>(r.sampleCount()), static_cast<long long>(spp),
                           double(r.sampleCount()) / elapsed, static_cast<long long>(perBatch)));
            lastProgress = Clock::now();
        }
    }
    samplingSeconds_ = secondsSince(samplingStart);
    if (reportLines_) {
        double s = std::max(samplingSeconds_, 1e-9);
        double samples = double(r.sampleCount());
        out_(strprintf("rendered %lld spp at %lldx%lld in %.2fs  ->  %.1f spp/s  (%.1f Mpaths/s, longest command "
                       "buffer %.0f ms)",
                       static_cast<long long>(r.sampleCount()), static_cast<long long>(r.width()),
                       static_cast<long long>(r.height()), samplingSeconds_, samples / s,
                       samples * double(r.width()) * double(r.height()) / s / 1e6, longestBatch * 1000.0));
    }
}

float3 StillSession::whiteBalanceGains(bool report) {
    switch (whiteBalance_.kind) {
    case WhiteBalance::Kind::kelvin:
        return ColorMath::whiteBalanceGains(ColorMath::kelvinToLinearSRGB(whiteBalance_.kelvinValue));
    case WhiteBalance::Kind::sky: return ColorMath::whiteBalanceGains(renderer_->skyIlluminant());
    case WhiteBalance::Kind::scene: break;
    }
    if (std::optional<float3> illuminant = renderer_->measureSceneIlluminant()) {
        float3 gains = ColorMath::whiteBalanceGains(*illuminant);
        if (report) out_("white balance: " + whiteBalanceDescription(gains));
        return gains;
    }
    if (report) out_("white balance: auto found no visible surface - using sun + sky");
    return ColorMath::whiteBalanceGains(renderer_->skyIlluminant());
}

StillImage StillSession::render(const CameraDef& camera, bool reportLines, const FrameLook& look) {
    reportLines_ = reportLines;
    Renderer& r = *renderer_;
    whiteBalance_ = look.wbKelvin ? WhiteBalance::kelvin(*look.wbKelvin) : sessionWhiteBalance_;
    r.setCameraExposureEV(look.exposureEV.value_or(env_.cameraExposureEV));
    if (reportLines_) printCameraLine(camera);
    r.setEquirectPad((options_.renderWidth() - options_.width) / 2);
    r.resize(options_.renderWidth(), options_.height);
    r.setCamera(camera);
    r.resetAccumulation();

    std::optional<DenoiserKind> denoiseKind;
    if (look.denoise.value_or(options_.denoise)) {
        // No temporal denoiser exists on this platform: every kind falls back
        // to the edge-avoiding filter.
        DenoiserKind requested = options_.denoiser.value_or(DenoiserKind::atrous);
        denoiseKind = DenoiserKind::atrous;
        if (!denoiser_) denoiser_ = std::make_unique<AtrousDenoiser>();
        if (reportLines_) {
            if (requested == DenoiserKind::atrous) out_("denoiser: a-trous");
            else
                out_("denoiser: " + denoiserName(requested) +
                     " (no temporal denoiser on this platform); using the a-trous denoiser");
        }
        denoiser_->ensureBuffers(uint32_t(r.width()), uint32_t(r.height()));
    }

    sample(options_.spp);

    if (reportLines_) {
        RadianceStats st = r.radianceStats();
        // The counts print as %u does; the totals are 64-bit so long renders do not wrap.
        out_(strprintf("stats: NaN/Inf samples %llu, samples with dropped non-finite contributions %llu, luminance "
                       "mean %.2f / median %.2f / max %.0f cd/m2, black pixels %.3f%%",
                       static_cast<unsigned long long>(r.statCounter(STAT_NONFINITE_SAMPLE)),
                       static_cast<unsigned long long>(r.statCounter(STAT_DROPPED_SAMPLE)), st.mean, st.median, st.max,
                       100.0 * st.blackFraction));
        if (r.settings().debugNeeStats) {
            std::array<uint64_t, STAT_COUNT> counters{};
            for (uint32_t i = 0; i < STAT_COUNT; ++i) counters[i] = r.statCounter(i);
            for (const std::string& line : neeStatsLines(counters)) out_(line);
        }
    }
    if (options_.autoExposure) {
        double m = std::max(r.radianceStats().median, 0.0001);
        float ev = float(std::log2(m / 0.264));
        r.setExposureOverride(ev);
        if (reportLines_) out_(strprintf("auto exposure: EV100 %.2f", ev));
    }
    float3 gains = whiteBalanceGains(reportLines_);

    const float4* image = r.accum().data();
    denoiseSeconds_ = 0;
    if (denoiseKind && denoiser_) {
        const Clock::time_point t0 = Clock::now();
        bool ok = denoiser_->denoise(r.accum().data(), r.guideA().data(), r.guideB().data(), uint32_t(r.width()),
                                     uint32_t(r.height()), uint32_t(r.sampleCount()));
        denoiseSeconds_ = secondsSince(t0);
        if (ok) {
            image = denoiser_->output();
            if (reportLines_)
                out_(strprintf("denoised (%s) in %.0f ms of GPU time", denoiserName(*denoiseKind).c_str(),
                               denoiseSeconds_ * 1000.0));
        } else {
            denoiseKind.reset();
            out_("warning: could not allocate the denoiser's buffers - the image is not denoised");
        }
    }

    ToneParams tone = makeToneParams(r.settings(), r.effectiveEV100(), gains, uint32_t(r.width()),
                                     uint32_t(r.height()));
    if (options_.dump) {
        RawDump::writeLinear(*options_.dump, image, uint32_t(r.width()), uint32_t(r.height()),
                             uint32_t(r.sampleCount()));
        DumpRunInfo info;
        info.denoiser = denoiseKind;
        info.denoiseSeconds = denoiseSeconds_;
        info.camera = camera.name;
        info.time = std::string(toString(env_.time));
        info.seed = r.settings().seed;
        info.samplingSeconds = samplingSeconds_;
        info.samplesPerPixel = uint32_t(r.sampleCount());
        info.nanSamples = r.statCounter(STAT_NONFINITE_SAMPLE);
        info.droppedSamples = r.statCounter(STAT_DROPPED_SAMPLE);
        nlohmann::json meta = toneMetadata(tone, r.effectiveEV100(), uint32_t(r.sampleCount()),
                                           whiteBalanceDescription(gains));
        RawDump::writeSidecar(*options_.dump, RawDump::makeSidecar(meta, info));
    }
    if (options_.dumpGuides)
        RawDump::writeGuides(*options_.dumpGuides, r.accum().data(), r.guideA().data(), r.guideB().data(),
                             uint32_t(r.width()), uint32_t(r.height()), uint32_t(r.sampleCount()));

    std::vector<uint8_t> rgba = toneMapToRGBA(image, tone);
    StillImage out;
    out.width = options_.width;
    out.height = options_.height;
    int64_t pad = (r.width() - options_.width) / 2;
    if (pad <= 0) {
        out.rgba = std::move(rgba);
        return out;
    }
    out.rgba.resize(size_t(out.width) * size_t(out.height) * 4u);
    for (int64_t y = 0; y < out.height; ++y) {
        const uint8_t* src = rgba.data() + (size_t(y) * size_t(r.width()) + size_t(pad)) * 4u;
        std::copy(src, src + size_t(out.width) * 4u, out.rgba.data() + size_t(y) * size_t(out.width) * 4u);
    }
    return out;
}

} // namespace qv
