#pragma once
// The path tracer's device side: it owns the scene arrays, ray-query
// structures, energy and sky tables and the frame's per-pixel sums, fills the
// uniforms for every dispatch and runs the camera kernel over the frame on
// all cores, one whole sample (or one band of rows) at a time.
#include "pathtracer/EnergyTables.h"
#include "pathtracer/GeometryBuild.h"
#include "pathtracer/LightGrid.h"
#include "pathtracer/RenderSettings.h"
#include "pathtracer/RendererError.h"
#include "scene/EnvironmentPreset.h"
#include "scene/LoadedModel.h"
#include "scene/LogSink.h"
#include "scene/SceneDescription.h"
#include "scene/SkyModel.h"
#include "scene/SkyTables.h"
#include "scene/TextureSet.h"
#include "shaders/Records.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

struct RadianceStats {
    double mean = 0;          // cd/m2
    double median = 0;        // cd/m2
    double max = 0;           // cd/m2
    double blackFraction = 0; // of all pixels
};

class Renderer {
public:
    // Builds the energy tables and sets up the CPU backend.
    Renderer(const RenderSettings& settings, LogSink log);
    ~Renderer();
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

    // "<cpu model> (<n> threads)".
    const std::string& deviceName() const { return deviceName_; }
    // Seconds spent setting up the backend (the energy tables included).
    double compileSeconds() const { return compileSeconds_; }

    const RenderSettings& settings() const { return settings_; }
    // A new copy of the settings; the caller rebuilds what depends on changed fields.
    void setSettings(const RenderSettings& settings);
    // Changes only how the finished image is exposed: the accumulation stays.
    void setExposureOverride(std::optional<float> ev100) { settings_.ev100Override = ev100; }
    // The camera's own exposure (stops); set before sampling, as the firefly clamp follows the exposure.
    void setCameraExposureEV(float stops) { settings_.cameraExposureEV = stops; }

    // Fails with RendererError when the frame cannot fit in memory.
    void checkFrameSize(int64_t width, int64_t height) const;
    // Textures, geometry, lights and the light-visibility grid; resets the accumulation.
    void load(const LoadedModel& model, const SceneDescription& scene);

    // Light-visibility grid. Built at the end of every load (and by
    // buildLightGrid) when the NEE mode uses cells; until a grid is installed
    // every vertex chooses lamps through the tree, which is unbiased.
    // Bake the grid on a thread of its own (QV_ASYNC_GRID=1 sets it at start).
    void setAsyncLightGrid(bool async) { asyncLightGrid_ = async; }
    bool asyncLightGrid() const { return asyncLightGrid_; }
    // Rebuilds the grid for the current geometry and settings: in place, or
    // started in the background with asyncLightGrid. Throws RendererError.
    void buildLightGrid();
    // Whether the last grid build runs (or ran) in the background.
    bool lightGridInBackground() const { return lightGridInBackground_; }
    // Installs a finished background bake of the current geometry and logs
    // its line; true when the current build's grid is in place (installed
    // now or before). Rethrows a failed bake's RendererError.
    bool installPendingLightGrid();
    // Waits up to `seconds` for a background bake, then installs it; true when installed.
    bool waitForLightGrid(double seconds);
    bool lightGridInstalled() const { return lightGrid_.mode.z != 0; }
    const GPULightGridParams& lightGrid() const { return lightGrid_; }
    const std::vector<uint4>& cellRange() const { return cellRange_; }
    const std::vector<uint32_t>& cellEntry() const { return cellEntry_; }
    double lightGridSeconds() const { return lightGridSeconds_; }
    // Sky map, sun and sky sampling tables; resets the accumulation.
    void setEnvironment(const EnvironmentPreset& preset, float northDeg);
    void setCamera(const CameraDef& camera);
    // Extra columns rendered on each side of a panorama (cropped by the caller).
    void setEquirectPad(int64_t pad) { equirectPad_ = pad; }
    void resize(int64_t width, int64_t height);
    void resetAccumulation();

    // Adds `count` whole samples to every pixel; returns the samples completed.
    int64_t encodeSamples(int64_t count);
    // Adds `rows` rows of the current sample; returns whole samples completed.
    int64_t encodeRows(int64_t rows);

    // The uniforms of the next dispatch (band row 0).
    GPUUniforms updateUniforms() const;

    int64_t width() const { return width_; }
    int64_t height() const { return height_; }
    int64_t sampleCount() const { return sampleCount_; }
    const std::vector<float4>& accum() const { return accum_; }
    const std::vector<float4>& guideA() const { return guideA_; }
    const std::vector<float4>& guideB() const { return guideB_; }
    // Stats counter `index` (STAT_*) summed since the last accumulation reset.
    uint64_t statCounter(uint32_t index) const { return index < STAT_COUNT ? statTotals_[index] : 0u; }

    RadianceStats radianceStats() const;
    // The light reaching the visible surfaces, normalised to luminance 1;
    // nothing when no pixel shows a surface.
    std::optional<float3> measureSceneIlluminant() const;

    float effectiveEV100() const;
    float whiteLuminance() const;
    const EnvironmentPreset& environment() const { return environment_; }
    float3 sunDirection() const { return sunDir_; }
    bool sunOn() const { return sunOn_; }
    // The sun's illuminance on a surface facing it (lux, luminance).
    float sunIlluminanceLux() const;
    // The sky's illuminance on a horizontal surface (lux, luminance).
    float skyIlluminanceLux() const;
    // The grey-card illuminant of the sun and sky (rgb lux).
    float3 skyIlluminant() const { return skyIlluminant_; }
    float zenithLuminance() const { return zenithLuminance_; }

    const GeometryBuild* geometry() const { return geometry_.get(); }
    uint64_t accumulationGeneration() const { return accumulationGeneration_; }

private:
    void dispatchRows(int64_t firstRow, int64_t rows);
    void clearLightGrid();
    void installLightGrid(LightGrid grid, std::string_view suffix);

    RenderSettings settings_;
    LogSink log_;
    std::string deviceName_;
    double compileSeconds_ = 0;
    EnergyTables energy_;

    std::shared_ptr<GeometryBuild> geometry_; // shared with a background grid bake
    float3 coreBoundsMin_{}, coreBoundsMax_{};   // of the loaded model
    std::unique_ptr<TextureSet> textures_;
    std::vector<uint64_t> textureLevelOffsets_;

    GPULightGridParams lightGrid_{};          // mode.z = 0 until a grid is installed
    std::vector<uint4> cellRange_;
    std::vector<uint32_t> cellEntry_;
    double lightGridSeconds_ = 0;
    bool asyncLightGrid_ = false;
    bool lightGridInBackground_ = false;
    uint64_t lightGridToken_ = 0;             // the geometry build a bake result must belong to
    std::unique_ptr<LightGridJob> lightGridJob_;

    EnvironmentPreset environment_;
    SkyMap sky_;
    SkyTables skyTables_;
    float3 sunDir_{0.0f, 1.0f, 0.0f};
    bool sunOn_ = false;
    float3 sunIlluminance_{}; // rgb lux at the ground, facing the sun
    float3 skyIrradiance_{};  // rgb lux on a horizontal surface
    float3 skyIlluminant_{};
    float zenithLuminance_ = 0;

    CameraDef camera_;
    int64_t width_ = 0, height_ = 0;
    int64_t equirectPad_ = 0;
    int64_t sampleCount_ = 0;
    int64_t bandRow_ = 0;
    std::vector<float4> accum_, guideA_, guideB_;
    std::array<uint32_t, STAT_COUNT> stats_{};      // the kernel's 32-bit counters of one dispatch
    std::array<uint64_t, STAT_COUNT> statTotals_{}; // their sums since the reset, which 32 bits could not hold
    uint64_t accumulationGeneration_ = 0;
};

} // namespace qv
