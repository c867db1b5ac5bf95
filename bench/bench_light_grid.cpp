// The light-visibility grid on the bundled house: the bake time at the
// default cell size on a fixed number of cores, then the noise of a many-lamp
// interior rendered with lamp choice by the light tree and by the grid's cell
// lists at equal samples, each as the mean squared error against a
// high-sample reference.
//   bench_light_grid [threads=2] [camera=Living] [spp=16] [WxH=160x90] [reference spp=1024] [runs=4]
#include "pathtracer/LightGrid.h"
#include "pathtracer/Renderer.h"
#include "scene/EnvironmentPreset.h"
#include "scene/GLBLoader.h"
#include "scene/SceneDescription.h"
#include "shaders/KernelHelpers.h"

#include <tbb/global_control.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <cstdlib>
#include <string>
#include <vector>

using namespace qv;

namespace {

double secondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

std::vector<float3> meanImage(const Renderer& r) {
    std::vector<float3> out(r.accum().size());
    for (size_t i = 0; i < out.size(); ++i) {
        const float4& a = r.accum()[i];
        out[i] = a.w > 0 ? xyz(a) / a.w : float3{};
    }
    return out;
}

// Mean over pixels and channels of the squared difference (cd/m2)^2.
double meanSquaredError(const std::vector<float3>& img, const std::vector<float3>& ref) {
    double sum = 0;
    for (size_t i = 0; i < img.size(); ++i) {
        float3 d = img[i] - ref[i];
        sum += double(d.x) * d.x + double(d.y) * d.y + double(d.z) * d.z;
    }
    return sum / (3.0 * double(img.size()));
}

struct ModeResult {
    double mse = 0;     // averaged over the runs
    double seconds = 0; // per run
};

} // namespace

int main(int argc, char** argv) {
    const int threads = argc > 1 ? std::atoi(argv[1]) : 2;
    const std::string cameraName = argc > 2 ? argv[2] : "Living";
    const int spp = argc > 3 ? std::atoi(argv[3]) : 16;
    int width = 160, height = 90;
    if (argc > 4) std::sscanf(argv[4], "%dx%d", &width, &height);
    const int referenceSpp = argc > 5 ? std::atoi(argv[5]) : 1024;
    const int runs = argc > 6 ? std::atoi(argv[6]) : 4;

    const std::string root = QV_SOURCE_DIR;
    auto quiet = [](std::string_view) {};
    LoadedModel model = GLBLoader::load(root + "/Resources/house.glb");
    SceneDescription scene = SceneDescription::load(root + "/Resources/sample_scene.json", quiet);
    const CameraDef* camera = scene.camera(cameraName);
    if (!camera) {
        std::fprintf(stderr, "no camera %s\n", cameraName.c_str());
        return 1;
    }

    RenderSettings settings;
    settings.width = width;
    settings.height = height;
    settings.neeMode = NEEMode::cell;
    auto print = [](std::string_view line) { std::printf("%.*s\n", int(line.size()), line.data()); };

    // Bake time: the bake alone, on `threads` cores, at the default cell size.
    Renderer renderer(settings, quiet);
    renderer.setAsyncLightGrid(false);
    renderer.load(model, scene);
    {
        tbb::global_control limit(tbb::global_control::max_allowed_parallelism, size_t(std::max(threads, 1)));
        double best = 1e30, bestCpu = 1e30;
        std::optional<LightGrid> grid;
        for (int i = 0; i < 3; ++i) {
            auto t0 = std::chrono::steady_clock::now();
            std::clock_t c0 = std::clock();
            grid = bakeLightGrid(*renderer.geometry(), model.coreBoundsMin, model.coreBoundsMax, settings);
            best = std::min(best, secondsSince(t0));
            bestCpu = std::min(bestCpu, double(std::clock() - c0) / CLOCKS_PER_SEC);
        }
        if (!grid) {
            std::fprintf(stderr, "no light grid was built\n");
            return 1;
        }
        print(lightGridSummary(*grid, ""));
        // On a shared machine the processor time divided by the threads is
        // the wall time the bake would take with the cores to itself.
        std::printf("bake: %.3f s on %d threads (best of 3; %.3f s of processor time, %.3f s per thread), cell "
                    "%.2f m, %d points, %zu entries\n",
                    best, threads, bestCpu, bestCpu / std::max(threads, 1), double(grid->params.origin.w),
                    int(grid->points), grid->cellEntry.size());
        std::fflush(stdout);
    }

    // Noise at equal samples: Living at night, lamps only.
    renderer.setEnvironment(EnvironmentPreset::preset(TimeOfDay::night), scene.northDeg.value_or(0.0f));
    renderer.setCamera(*camera);
    renderer.resize(width, height);
    auto render = [&](NEEMode mode, uint32_t seed, int samples, double* seconds) {
        RenderSettings s = settings;
        s.neeMode = mode;
        s.seed = seed;
        renderer.setSettings(s);
        auto t0 = std::chrono::steady_clock::now();
        renderer.encodeSamples(samples);
        if (seconds) *seconds = secondsSince(t0);
        return meanImage(renderer);
    };
    auto t0 = std::chrono::steady_clock::now();
    const std::vector<float3> reference = render(NEEMode::cell, 1000, referenceSpp, nullptr);
    double refLum = 0;
    for (const float3& c : reference) refLum += luminance(c);
    refLum /= double(reference.size());
    std::printf("reference: %d spp at %dx%d (cell lists) in %.1f s, mean luminance %.3f cd/m2\n", referenceSpp, width,
                height, secondsSince(t0), refLum);

    auto measure = [&](NEEMode mode) {
        ModeResult r;
        for (int run = 0; run < runs; ++run) {
            double sec = 0;
            std::vector<float3> img = render(mode, uint32_t(1 + run), spp, &sec);
            r.mse += meanSquaredError(img, reference) / runs;
            r.seconds += sec / runs;
        }
        return r;
    };
    const ModeResult tree = measure(NEEMode::tree);
    const ModeResult cell = measure(NEEMode::cell);
    // The reference's own error adds about MSE(1 spp) / referenceSpp to both figures.
    std::printf("noise at %d spp (%s, night, %dx%d, mean of %d runs):\n", spp, cameraName.c_str(), width, height,
                runs);
    std::printf("  --nee tree: MSE %.5g (cd/m2)^2, relative %.5g, %.2f s per render\n", tree.mse,
                tree.mse / (refLum * refLum), tree.seconds);
    std::printf("  --nee cell: MSE %.5g (cd/m2)^2, relative %.5g, %.2f s per render\n", cell.mse,
                cell.mse / (refLum * refLum), cell.seconds);
    std::printf("  cell / tree: MSE %.3f, MSE x time %.3f\n", cell.mse / tree.mse,
                (cell.mse * cell.seconds) / (tree.mse * tree.seconds));
    return 0;
}
