#include "pathtracer/Renderer.h"

#include "pathtracer/KernelDispatch.h"
#include "pathtracer/SceneTracer.h"
#include "scene/EnvSwitches.h"
#include "scene/SiteLocation.h"
#include "scene/TextFormat.h"

#include <tbb/blocked_range.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <limits>

namespace qv {

namespace {

double secondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

std::string cpuModelName() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("model name", 0) == 0) {
            size_t colon = line.find(':');
            if (colon != std::string::npos) {
                std::string name = line.substr(colon + 1);
                size_t start = name.find_first_not_of(" \t");
                return start == std::string::npos ? "CPU" : name.substr(start);
            }
        }
    }
    return "CPU";
}

double physicalMemoryBytes() {
    long pages = sysconf(_SC_PHYS_PAGES);
    long pageSize = sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || pageSize <= 0) return 8e9;
    return double(pages) * double(pageSize);
}

// Bytes of n pixels at `perPixel` bytes each; overflow counts as the largest value.
double frameBytes(int64_t width, int64_t height, double perPixel) {
    if (width <= 0 || height <= 0) return 0;
    return double(width) * double(height) * perPixel;
}

constexpr int kStatsParts = 64;
constexpr int kStatsBins = 4096;

} // namespace

Renderer::Renderer(const RenderSettings& settings, LogSink log) : settings_(settings), log_(std::move(log)) {
    auto t0 = std::chrono::steady_clock::now();
    // The tables depend on nothing but the BSDF: one build serves every renderer of the process.
    static const EnergyTables tables = buildEnergyTables();
    energy_ = tables;
    deviceName_ = strprintf("%s (%d threads)", cpuModelName().c_str(), tbb::info::default_concurrency());
    compileSeconds_ = secondsSince(t0);
    asyncLightGrid_ = EnvSwitches::process().isOn("QV_ASYNC_GRID");
    clearLightGrid();
}

Renderer::~Renderer() = default;

void Renderer::setSettings(const RenderSettings& settings) {
    settings_ = settings;
    resetAccumulation();
}

void Renderer::checkFrameSize(int64_t width, int64_t height) const {
    double memory = physicalMemoryBytes();
    double plane = frameBytes(width, height, 16.0);
    if (plane > memory)
        throw RendererError(strprintf("image %lldx%lld is too large: one float4 plane needs %.1f GB, this machine's "
                                      "memory is %.1f GB",
                                      static_cast<long long>(width), static_cast<long long>(height), plane / 1e9,
                                      memory / 1e9));
    double frame = frameBytes(width, height, 196.0);
    double workingSet = memory * 0.75;
    if (frame > workingSet)
        throw RendererError(strprintf("image %lldx%lld is too large: the frame needs %.1f GB, this machine's "
                                      "recommended working set is %.1f GB",
                                      static_cast<long long>(width), static_cast<long long>(height), frame / 1e9,
                                      workingSet / 1e9));
}

void Renderer::load(const LoadedModel& model, const SceneDescription& scene) {
    auto t0 = std::chrono::steady_clock::now();
    textures_ = std::make_unique<TextureSet>(TextureSet::build(model, log_));
    const TextureArray& arr = textures_->array;
    textureLevelOffsets_.assign(arr.levelOffset.begin(), arr.levelOffset.end());
    if (!textures_->layerOfTexture.empty() && log_)
        log_(strprintf("textures: %d layer(s) at %d x %d px with mips (%.0f MB) in %.2f s", arr.layers, arr.size,
                       arr.size, double(textures_->bytes) / 1e6, secondsSince(t0)));
    // A bake still running for the previous geometry is of no use any more.
    lightGridJob_.reset();
    geometry_ = std::make_shared<GeometryBuild>(buildGeometry(model, scene, settings_, *textures_, log_));
    coreBoundsMin_ = model.coreBoundsMin;
    coreBoundsMax_ = model.coreBoundsMax;
    buildLightGrid();
    resetAccumulation();
}

void Renderer::clearLightGrid() {
    // Placeholders: one element each, never read while mode.z is 0.
    lightGrid_ = geometry_ ? geometry_->grid : GPULightGridParams{};
    lightGrid_.mode.z = 0;
    cellRange_.assign(1, uint4{0, 0, 0, CELL_UNKNOWN});
    cellEntry_.assign(4, 0u);
    lightGridSeconds_ = 0;
}

void Renderer::buildLightGrid() {
    lightGridJob_.reset();
    ++lightGridToken_;
    lightGridInBackground_ = false;
    clearLightGrid();
    if (!geometry_ || !wantsLightGrid(*geometry_, settings_)) return;
    if (asyncLightGrid_) {
        lightGridInBackground_ = true;
        lightGridJob_ = std::make_unique<LightGridJob>(geometry_, coreBoundsMin_, coreBoundsMax_, settings_,
                                                       lightGridToken_);
        return;
    }
    if (std::optional<LightGrid> grid = bakeLightGrid(*geometry_, coreBoundsMin_, coreBoundsMax_, settings_))
        installLightGrid(std::move(*grid), "");
}

void Renderer::installLightGrid(LightGrid grid, std::string_view suffix) {
    if (log_) log_(lightGridSummary(grid, suffix));
    lightGrid_ = grid.params;
    cellRange_ = std::move(grid.cellRange);
    cellEntry_ = std::move(grid.cellEntry);
    lightGridSeconds_ = grid.seconds;
}

bool Renderer::installPendingLightGrid() {
    if (!lightGridJob_) return lightGridInstalled();
    if (!lightGridJob_->finished()) return false;
    std::unique_ptr<LightGridJob> job = std::move(lightGridJob_);
    // A result of an older geometry build is dropped (the tree stays in use).
    if (job->token() != lightGridToken_) return false;
    if (std::optional<LightGrid> grid = job->take()) installLightGrid(std::move(*grid), ", in the background");
    return lightGridInstalled();
}

bool Renderer::waitForLightGrid(double seconds) {
    if (lightGridJob_) lightGridJob_->waitFor(seconds);
    return installPendingLightGrid();
}

void Renderer::setEnvironment(const EnvironmentPreset& preset, float northDeg) {
    environment_ = preset;
    sunDir_ = bearingToModelDirection(preset.sunAzimuthDeg, preset.sunElevationDeg, northDeg);
    SkyParams params = makeSkyParams(preset, sunDir_, settings_.skyWidth, settings_.skyHeight);
    sky_ = generateSkyMap(params);
    sunOn_ = sunVisible(sky_, sunDir_);
    skyTables_ = SkyTables::build(sky_.env.data(), sky_.width, sky_.height);
    skyIrradiance_ = computeSkyIrradiance(sky_);
    sunIlluminance_ = sunOn_ ? xyz(sky_.sunOut) : float3{};
    skyIlluminant_ = skyIrradiance_ + sunIlluminance_ * std::fmax(sunDir_.y, 0.0f);
    zenithLuminance_ = qv::zenithLuminance(sky_);
    resetAccumulation();
}

void Renderer::setCamera(const CameraDef& camera) {
    camera_ = camera;
    resetAccumulation();
}

void Renderer::resize(int64_t width, int64_t height) {
    if (width == width_ && height == height_ && !accum_.empty()) return;
    checkFrameSize(width, height);
    width_ = width;
    height_ = height;
    size_t pixels = size_t(width) * size_t(height);
    try {
        accum_.assign(pixels, float4{});
        guideA_.assign(pixels, float4{});
        guideB_.assign(pixels, float4{});
    } catch (const std::bad_alloc&) {
        throw RendererError(strprintf("could not allocate a %lldx%lld frame (%.0f bytes)",
                                      static_cast<long long>(width), static_cast<long long>(height),
                                      frameBytes(width, height, 48.0)));
    }
    resetAccumulation();
}

void Renderer::resetAccumulation() {
    std::fill(accum_.begin(), accum_.end(), float4{});
    std::fill(guideA_.begin(), guideA_.end(), float4{});
    std::fill(guideB_.begin(), guideB_.end(), float4{});
    stats_.fill(0u);
    statTotals_.fill(0u);
    sampleCount_ = 0;
    bandRow_ = 0;
    ++accumulationGeneration_;
}

float Renderer::effectiveEV100() const {
    float ev = settings_.ev100Override ? *settings_.ev100Override
                                       : environment_.ev100 - settings_.cameraExposureEV;
    return ev - settings_.exposureCompensation;
}

float Renderer::whiteLuminance() const { return 1.2f * std::exp2(effectiveEV100()); }

float Renderer::sunIlluminanceLux() const { return luminance(sunIlluminance_); }

float Renderer::skyIlluminanceLux() const { return luminance(skyIrradiance_); }

GPUUniforms Renderer::updateUniforms() const {
    GPUUniforms u{};
    float3 eye = camera_.eye;
    float3 target = camera_.target;
    float3 fwd = target - eye;
    fwd = length(fwd) < 1e-5f ? float3{1.0f, 0.0f, 0.0f} : normalize(fwd);
    float3 worldUp{0.0f, 1.0f, 0.0f};
    float3 right = cross(fwd, worldUp);
    right = length(right) < 1e-5f ? float3{1.0f, 0.0f, 0.0f} : normalize(right);
    float3 up = cross(right, fwd);
    float w = float(std::max<int64_t>(width_, 1)), h = float(std::max<int64_t>(height_, 1));
    float aspect = w / h;
    bool panorama = settings_.projection == Projection::equirect;
    float t = std::tan(camera_.verticalFovDeg(aspect) * PI / 360.0f);
    if (panorama) {
        float3 level{fwd.x, 0.0f, fwd.z};
        level = length(level) < 1e-5f ? float3{0.0f, 0.0f, -1.0f} : normalize(level);
        float3 r = normalize(cross(level, worldUp));
        u.camRight = make_float4(r, 0.0f);
        u.camUp = float4{0.0f, 1.0f, 0.0f, 0.0f};
        u.camFwd = make_float4(level, 0.0f);
    } else {
        u.camRight = make_float4(right * (aspect * t), 0.0f);
        u.camUp = make_float4(up * t, 0.0f);
        u.camFwd = make_float4(fwd, 0.0f);
    }
    u.camPos = make_float4(eye, 0.0f);

    float a = environment_.sunAngularRadiusDeg * PI / 180.0f;
    float omc = 2.0f * std::sin(a * 0.5f) * std::sin(a * 0.5f);
    float omega = TWO_PI * omc;
    u.sunDir = make_float4(sunDir_, omc);
    u.sunRadiance = make_float4(omega > 0.0f ? sunIlluminance_ / omega : float3{}, omega);

    float white = whiteLuminance();
    float spread = panorama ? PI / (h < 2.0f ? 1.0f : h) : 2.0f * t / (h < 2.0f ? 1.0f : h);
    u.params0 = float4{settings_.clampMultiple > 0.0f ? settings_.clampMultiple * white : 0.0f,
                       settings_.regularizeRoughness, spread, settings_.textureFootprint};
    u.params1 = float4{settings_.clipAbove.value_or(0.0f), white, 0.0f, 0.0f};

    const GeometryBuild* g = geometry_.get();
    u.dims = uint4{uint32_t(width_), uint32_t(height_), uint32_t(sampleCount_), settings_.maxDepth};
    u.counts = uint4{g ? g->lightCount : 0u, g ? g->emissiveCount : 0u, sky_.width, sky_.height};
    uint32_t f = 0;
    if (sunOn_) f |= FLAG_SUN;
    if (!settings_.debugNoSkyNEE) f |= FLAG_SKY_NEE;
    if (settings_.noCaustics) f |= FLAG_NO_CAUSTICS;
    if (settings_.debugNoLightNEE) f |= FLAG_NO_LIGHT_NEE;
    if (settings_.debugNeeOnly) f |= FLAG_NEE_ONLY;
    if (settings_.clipAbove) f |= FLAG_CLIP;
    if (settings_.debugAlbedo) f |= FLAG_ALBEDO;
    if (settings_.debugNeeStats) f |= FLAG_NEE_STATS;
    if (panorama) f |= FLAG_EQUIRECT;
    u.flags = uint4{f, settings_.rrDepth, 17u + settings_.seed * 7919u, g ? g->glassTriangles : 0u};
    float radPerPixel = panorama ? TWO_PI / float(std::max<int64_t>(1, width_ - 2 * equirectPad_)) : 0.0f;
    u.params2 = float4{0.0f, 0.0f, 0.0f, radPerPixel};
    return u;
}

void Renderer::dispatchRows(int64_t firstRow, int64_t rows) {
    if (!geometry_) throw RendererError("no scene is loaded");
    if (sky_.env.empty()) throw RendererError("no environment is set");
    const GeometryBuild& g = *geometry_;
    SceneData s = geometrySceneData(g);
    s.sky = sky_.env.data();
    s.skyRowCdf = skyTables_.rowCdf.data();
    s.skyColCdf = skyTables_.colCdf.data();
    s.skyPdf = skyTables_.pdf.data();
    s.skyRowGuide = skyTables_.rowGuide.data();
    s.skyColGuide = skyTables_.colGuide.data();
    s.dfg = energy_.dfg.data();
    s.dfgAvg = energy_.dfgAvg.data();
    s.dbg = stats_.data();
    s.grid = lightGrid_;
    s.grid.mode.x = static_cast<uint32_t>(settings_.neeMode);
    s.grid.mode.y = settings_.risCandidates;
    // The choice parameters do not depend on the bake: the current settings apply.
    s.grid.params = float4{settings_.lightGridEps, settings_.lightGridVisFloor, settings_.lightGridOffset,
                           settings_.emissiveRoulette};
    s.cellRange = cellRange_.data();
    s.cellEntry = cellEntry_.data();
    s.dbgOn = settings_.debugNeeStats;

    KernelTextures tex;
    const TextureArray& arr = textures_->array;
    tex.texels = arr.texels.data();
    tex.levelOffset = textureLevelOffsets_.data();
    tex.srgbToLinear = TextureMath::srgbToLinear().data();
    tex.layerBytes = arr.layerBytes;
    tex.size = arr.size;
    tex.layers = arr.layers;
    tex.levels = arr.levels;

    SceneTracer tracer(g.opAS.get(), g.auxAS.get(), g.glassAS.get(), g.nearestAS.get());
    GPUUniforms u = updateUniforms();
    u.params1.z = float(firstRow);
    FrameSums sums{accum_.data(), guideA_.data(), guideB_.data(), nullptr, stats_.data()};
    runCameraKernel(u, s, tracer, tex, sums, firstRow, rows);
    for (uint32_t i = 0; i < STAT_COUNT; ++i) {
        statTotals_[i] += stats_[i];
        stats_[i] = 0u;
    }
}

int64_t Renderer::encodeRows(int64_t rows) {
    if (lightGridJob_) installPendingLightGrid();
    int64_t done = 0;
    while (rows > 0 && height_ > 0) {
        int64_t n = std::min(height_ - bandRow_, rows);
        dispatchRows(bandRow_, n);
        bandRow_ += n;
        rows -= n;
        if (bandRow_ >= height_) {
            bandRow_ = 0;
            ++sampleCount_;
            ++done;
        }
    }
    return done;
}

int64_t Renderer::encodeSamples(int64_t count) {
    if (count < 1 || height_ <= 0) return 0;
    if (lightGridJob_) installPendingLightGrid();
    int64_t done = 0;
    if (bandRow_ > 0) {
        done += encodeRows(height_ - bandRow_);
        --count;
    }
    for (int64_t i = 0; i < count; ++i) {
        dispatchRows(0, height_);
        ++sampleCount_;
        ++done;
    }
    return done;
}

RadianceStats Renderer::radianceStats() const {
    RadianceStats st;
    size_t pixels = accum_.size();
    if (pixels == 0) return st;
    struct Part {
        double sum = 0;
        double max = 0;
        uint64_t black = 0;
        std::vector<uint32_t> hist = std::vector<uint32_t>(kStatsBins, 0u);
    };
    int64_t rowsPerPart = (height_ + kStatsParts - 1) / kStatsParts;
    std::vector<Part> parts(size_t((height_ + rowsPerPart - 1) / rowsPerPart));
    tbb::parallel_for(size_t(0), parts.size(), [&](size_t pi) {
        Part& p = parts[pi];
        int64_t y0 = int64_t(pi) * rowsPerPart, y1 = std::min(height_, y0 + rowsPerPart);
        for (int64_t y = y0; y < y1; ++y)
            for (int64_t x = 0; x < width_; ++x) {
                const float4& a = accum_[size_t(y * width_ + x)];
                double lum = a.w > 0 ? double(luminance(xyz(a))) / double(a.w) : 0.0;
                p.sum += lum;
                p.max = std::max(p.max, lum);
                if (lum <= 0) {
                    ++p.black;
                    continue;
                }
                int bin = int(std::floor(64.0 * (std::log2(lum) + 32.0)));
                p.hist[size_t(std::clamp(bin, 0, kStatsBins - 1))]++;
            }
    });
    std::vector<uint64_t> hist(kStatsBins, 0);
    double sum = 0, max = 0;
    uint64_t black = 0;
    for (const Part& p : parts) {
        sum += p.sum;
        max = std::max(max, p.max);
        black += p.black;
        for (int b = 0; b < kStatsBins; ++b) hist[size_t(b)] += p.hist[size_t(b)];
    }
    st.mean = sum / double(pixels);
    st.max = max;
    st.blackFraction = double(black) / double(pixels);
    // The median counts the black pixels as the darkest ones.
    uint64_t half = (pixels + 1) / 2;
    uint64_t running = black;
    if (running >= half) {
        st.median = 0;
    } else {
        for (int b = 0; b < kStatsBins; ++b) {
            running += hist[size_t(b)];
            if (running >= half) {
                st.median = std::exp2((b + 0.5) / 64.0 - 32.0);
                break;
            }
        }
    }
    return st;
}

std::optional<float3> Renderer::measureSceneIlluminant() const {
    // Light reaching each visible surface: mean radiance over mean albedo.
    auto surfaceLight = [&](size_t i, float3& E) {
        const float4& a = accum_[i];
        const float4& g = guideA_[i];
        if (!(a.w > 0)) return false;
        float n = a.w;
        if (!(g.w / n < 1000.0f)) return false;
        float3 alb = max(xyz(g) / n, splat3(0.02f));
        E = (xyz(a) / n) / alb;
        return isFinite(E);
    };
    double lumSum = 0;
    uint64_t count = 0;
    for (size_t i = 0; i < accum_.size(); ++i) {
        float3 E;
        if (!surfaceLight(i, E)) continue;
        lumSum += luminance(E);
        ++count;
    }
    if (count == 0 || !(lumSum > 0)) return std::nullopt;
    // A few very bright pixels (lamps, sunlit patches) must not decide the
    // colour of the whole room: each pixel's weight is capped at four times
    // the mean luminance.
    double cap = 4.0 * lumSum / double(count);
    double r = 0, gsum = 0, b = 0;
    for (size_t i = 0; i < accum_.size(); ++i) {
        float3 E;
        if (!surfaceLight(i, E)) continue;
        double lum = luminance(E);
        if (!(lum > 0)) continue;
        double w = std::min(cap, lum) / lum;
        r += E.x * w;
        gsum += E.y * w;
        b += E.z * w;
    }
    float3 total{float(r), float(gsum), float(b)};
    float lum = luminance(total);
    if (!(lum > 0) || !isFinite(total)) return std::nullopt;
    return total / lum;
}

} // namespace qv
