// How close the path tracer comes to the ray-query layer's own speed. The
// renderer first renders the view (its rate), then one more sample with the
// light-sampling counters on gives the path shape: scattering vertices per
// path and, per vertex, the sun, sky, lamp and emissive shadow rays traced.
// Then the same camera rays are traced with ray queries alone, in that shape:
// at every vertex the nearest-hit query the kernel makes (one traversal over
// opaque, glass and fittings), the same number of shadow rays of each kind
// (long rays toward the sky and sun, short ones toward the centre of a lamp
// the vertex's grid cell lists and of an emissive triangle, with the glass
// step of a clear shadow ray), a cosine bounce, and nothing else: no
// materials, no light weights, no accumulation. The ratio of the two rates
// says how much of the render the shading costs.
//   bench_render_ceiling [camera=Living] [day|dusk|night] [spp=4] [WxH=1280x720]
#include "BenchView.h"
#include "pathtracer/GeometryBuild.h"
#include "pathtracer/Renderer.h"
#include "scene/EnvironmentPreset.h"
#include "shaders/CameraRays.h"
#include "shaders/FastTrig.h"
#include "shaders/KernelHelpers.h"
#include "shaders/LightSampling.h"
#include "shaders/Random.h"

#include <tbb/blocked_range2d.h>
#include <tbb/combinable.h>
#include <tbb/parallel_for.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace qv;

namespace {

double secondsSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// Per-path and per-vertex means of the renderer's ray work.
struct PathShape {
    double vertices = 0;  // scattering vertices per path
    double sunRays = 0, skyRays = 0, lampRays = 0, emissiveRays = 0; // per vertex
};

// A count drawn so that its mean is `mean`: floor plus a coin for the fraction.
uint32_t drawCount(double mean, uint32_t& seed) {
    double whole = std::floor(mean);
    return uint32_t(whole) + (rnd(seed) < float(mean - whole) ? 1u : 0u);
}

float3 cosineAround(float3 n, uint32_t& seed) {
    float r2 = rnd(seed);
    SinCos phi = sinCosTurns(rnd(seed));
    float r = std::sqrt(r2);
    Basis b = makeBasis(n);
    return normalize(toWorld(b, float3{r * phi.c, r * phi.s, std::sqrt(std::fmax(0.0f, 1.0f - r2))}));
}

struct CeilingCounts {
    uint64_t vertices = 0, nearest = 0, shadow = 0, glass = 0;
};

// One path in the measured shape, traced with ray queries alone.
// Lamp shadow rays go where the renderer's go: to a lamp listed for the
// vertex's grid cell (picked uniformly, without the light weights), else to
// any lamp; so the ceiling's rays are as often unoccluded, and as long.
uint32_t pickLamp(const SceneData& sd, float3 x, float3 n, size_t lamps, uint32_t& seed) {
    const int cell = lightCellOf(sd, x, n);
    const float u = rnd(seed);
    if (cell >= 0 && sd.cellRange[cell].y > 0) {
        const uint4 range = sd.cellRange[cell];
        const uint32_t k = std::min(uint32_t(u * float(range.y)), range.y - 1u);
        return sd.cellEntry[range.x + k] & CELL_ENTRY_LIGHT_MASK;
    }
    return uint32_t(std::min(size_t(u * float(lamps)), lamps - 1));
}

void traceCeilingPath(const GeometryBuild& g, const SceneData& sd, const PathShape& shape, float3 o, float3 d,
                      uint32_t seed, CeilingCounts& counts) {
    const uint32_t targetVertices = drawCount(shape.vertices, seed);
    for (uint32_t vertex = 0;; ++vertex) {
        // One traversal for the segment's nearest hit over every set, as the
        // renderer makes it; a glass or fitting hit counts as a surface here.
        RayHit hit = g.nearestAS->intersect(Ray{o, d, 0.0f, kMissDistance, kRayMaskAll & ~kMaskPlaceholder});
        ++counts.nearest;
        if (!hit.hit() || vertex >= targetVertices) return;
        ++counts.vertices;
        float3 x = o + d * hit.t;
        float3 n = normalize(hit.ng);
        if (dot(n, d) > 0.0f) n = n * -1.0f;
        float3 xo = offsetRay(x, n);

        // A shadow ray as the renderer traces it: opaque occlusion first, and
        // when the way is clear, the nearest glass along it (the renderer
        // then steps through every pane it finds; the first query is kept).
        const bool hasGlass = g.glassTriangles > 0;
        auto shadow = [&](float3 dir, float tmax) {
            ++counts.shadow;
            if (g.opAS->occluded(Ray{xo, dir, 0.0f, tmax, kRayMaskAll}) || !hasGlass) return;
            g.glassAS->intersect(Ray{xo, dir, 0.0f, tmax, kMaskGlass});
            ++counts.glass;
        };
        uint32_t farRays = drawCount(shape.sunRays + shape.skyRays, seed);
        for (uint32_t k = 0; k < farRays; ++k) shadow(cosineAround(n, seed), BIG);
        uint32_t lampRays = g.lights.empty() ? 0u : drawCount(shape.lampRays, seed);
        for (uint32_t k = 0; k < lampRays; ++k) {
            const GPULight& L = g.lights[pickLamp(sd, x, n, g.lights.size(), seed)];
            float3 to = float3{L.posType.x, L.posType.y, L.posType.z} - xo;
            float dist = length(to);
            if (dist > 1e-4f) shadow(to / dist, dist * 0.999f);
        }
        uint32_t emissiveRays = g.emTris.empty() ? 0u : drawCount(shape.emissiveRays, seed);
        for (uint32_t k = 0; k < emissiveRays; ++k) {
            const GPUEmissiveTri& t = g.emTris[std::min(size_t(rnd(seed) * float(g.emTris.size())), g.emTris.size() - 1)];
            const uint32_t* idx = &g.opIdx[size_t(t.tri) * 3];
            float3 centre = (g.opPos[idx[0]] + g.opPos[idx[1]] + g.opPos[idx[2]]) / 3.0f;
            float3 to = centre - xo;
            float dist = length(to);
            if (dist > 1e-4f) shadow(to / dist, dist * 0.999f);
        }
        d = cosineAround(n, seed);
        o = xo;
    }
}

} // namespace

int main(int argc, char** argv) {
    const bench::BenchView view = bench::parseView(argc, argv, 4);
    const int spp = view.spp, width = view.width, height = view.height;
    auto quiet = [](std::string_view) {};
    const bench::BundledHouse house = bench::loadBundledHouse(quiet);
    const CameraDef* camera = bench::viewCamera(house, view);
    if (!camera) return 1;

    RenderSettings settings;
    settings.width = width;
    settings.height = height;
    Renderer renderer(settings, quiet);
    renderer.load(house.model, house.scene);
    renderer.setEnvironment(EnvironmentPreset::preset(view.time()), house.scene.northDeg.value_or(0.0f));
    renderer.setCamera(*camera);
    renderer.resize(width, height);
    const double paths = view.paths();

    // The renderer's rate, then its path shape from the counters.
    auto t0 = std::chrono::steady_clock::now();
    renderer.encodeSamples(spp);
    const double renderSeconds = secondsSince(t0);

    RenderSettings counting = renderer.settings();
    counting.debugNeeStats = true;
    renderer.setSettings(counting);
    renderer.encodeSamples(1);
    const double shapePaths = double(width) * double(height);
    const double vertices = renderer.statCounter(16);
    if (vertices <= 0) {
        std::fprintf(stderr, "the light-sampling counters are not counting\n");
        return 1;
    }
    PathShape shape;
    shape.vertices = vertices / shapePaths;
    shape.lampRays = renderer.statCounter(4) / vertices;
    shape.emissiveRays = renderer.statCounter(10) / vertices;
    shape.sunRays = renderer.statCounter(12) / vertices;
    shape.skyRays = renderer.statCounter(14) / vertices;

    // The same camera rays in that shape, with ray queries alone.
    const GeometryBuild& g = *renderer.geometry();
    SceneData sd = geometrySceneData(g);
    sd.grid = renderer.lightGrid();
    sd.cellRange = renderer.cellRange().data();
    sd.cellEntry = renderer.cellEntry().data();
    const GPUUniforms u = renderer.updateUniforms();
    tbb::combinable<CeilingCounts> perThread;
    auto t1 = std::chrono::steady_clock::now();
    for (int s = 0; s < spp; ++s) {
        tbb::parallel_for(tbb::blocked_range2d<int>(0, height, 8, 0, width, 8), [&](const tbb::blocked_range2d<int>& r) {
            CeilingCounts& counts = perThread.local();
            for (int y = r.rows().begin(); y < r.rows().end(); ++y)
                for (int x = r.cols().begin(); x < r.cols().end(); ++x) {
                    uint32_t seed = pixelSeed(uint32_t(y * width + x), uint32_t(s), 17u);
                    float2 pixel{float(x) + rnd(seed), float(y) + rnd(seed)};
                    traceCeilingPath(g, sd, shape, xyz(u.camPos), cameraRayDir(u, pixel), seed, counts);
                }
        });
    }
    const double ceilingSeconds = secondsSince(t1);
    CeilingCounts total = perThread.combine([](CeilingCounts a, const CeilingCounts& b) {
        a.vertices += b.vertices;
        a.nearest += b.nearest;
        a.shadow += b.shadow;
        a.glass += b.glass;
        return a;
    });

    const double renderRate = paths / renderSeconds / 1e6, ceilingRate = paths / ceilingSeconds / 1e6;
    std::printf("view: %s, %s, %dx%d, %d spp\n", view.cameraName.c_str(), view.timeName.c_str(), width, height, spp);
    std::printf("path shape (renderer): %.3f vertices per path; per vertex %.3f sun, %.3f sky, %.3f lamp, %.3f emissive "
                "shadow rays\n",
                shape.vertices, shape.sunRays, shape.skyRays, shape.lampRays, shape.emissiveRays);
    std::printf("path shape (ceiling):  %.3f vertices per path; %.3f shadow rays per vertex; %.3f nearest-hit "
                "queries per path; %.3f glass queries per shadow ray\n",
                double(total.vertices) / paths, double(total.shadow) / double(std::max<uint64_t>(total.vertices, 1)),
                double(total.nearest) / paths, double(total.glass) / double(std::max<uint64_t>(total.shadow, 1)));
    std::printf("renderer: %.3f Mpaths/s (%.2f s)\n", renderRate, renderSeconds);
    std::printf("ceiling:  %.3f Mpaths/s (%.2f s)\n", ceilingRate, ceilingSeconds);
    std::printf("renderer / ceiling: %.0f%%\n", 100.0 * renderRate / ceilingRate);
    return 0;
}
