// Path-tracing throughput on the bundled house: loads the model and its
// sample scene, renders one camera at one time of day and prints the build
// times and the render rate in Mpaths/s (samples x pixels per second).
//   bench_render [camera] [day|dusk|night] [spp] [WxH] [out.png]
#include "BenchView.h"
#include "image/PNGWriter.h"
#include "image/ToneMapping.h"
#include "pathtracer/Renderer.h"
#include "scene/ColorMath.h"
#include "scene/EnvironmentPreset.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/resource.h>

using namespace qv;

int main(int argc, char** argv) {
    const bench::BenchView view = bench::parseView(argc, argv, 16);
    const int spp = view.spp, width = view.width, height = view.height;
    std::string out = argc > 5 ? argv[5] : "";

    auto log = [](std::string_view line) { std::printf("%.*s\n", int(line.size()), line.data()); };
    auto t0 = std::chrono::steady_clock::now();
    const bench::BundledHouse house = bench::loadBundledHouse(log);
    auto seconds = [](auto a) { return std::chrono::duration<double>(std::chrono::steady_clock::now() - a).count(); };
    std::printf("load: %.3f s (%zu triangles)\n", seconds(t0), house.model.triangleCount());
    const CameraDef* camera = bench::viewCamera(house, view);
    if (!camera) return 1;
    RenderSettings settings;
    settings.width = width;
    settings.height = height;

    auto t1 = std::chrono::steady_clock::now();
    Renderer renderer(settings, log);
    std::printf("device: %s  (set up in %.3f s)\n", renderer.deviceName().c_str(), renderer.compileSeconds());
    auto t2 = std::chrono::steady_clock::now();
    renderer.load(house.model, house.scene);
    std::printf("scene build: %.3f s (of which the light grid's bake %.3f s)\n", seconds(t2),
                renderer.lightGridSeconds());
    auto t3 = std::chrono::steady_clock::now();
    EnvironmentPreset preset = EnvironmentPreset::preset(view.time());
    renderer.setEnvironment(preset, house.scene.northDeg.value_or(0.0f));
    std::printf("environment: %.3f s\n", seconds(t3));
    (void)t1;
    renderer.setCamera(*camera);
    renderer.resize(width, height);

    auto cpuSeconds = [] {
        rusage r{};
        getrusage(RUSAGE_SELF, &r);
        return double(r.ru_utime.tv_sec) + 1e-6 * double(r.ru_utime.tv_usec);
    };
    double cpu0 = cpuSeconds();
    auto t4 = std::chrono::steady_clock::now();
    renderer.encodeSamples(spp);
    double s = seconds(t4);
    double cpu = cpuSeconds() - cpu0;
    double mpaths = double(spp) * double(width) * double(height) / s / 1e6;
    std::printf("rendered %d spp at %dx%d in %.2fs  ->  %.1f spp/s  (%.3f Mpaths/s)\n", spp, width, height, s,
                double(spp) / s, mpaths);
    std::printf("processor time: %.2f s (%.3f Mpaths per processor-second)\n", cpu,
                double(spp) * double(width) * double(height) / cpu / 1e6);
    RadianceStats st = renderer.radianceStats();
    std::printf("stats: NaN/Inf samples %llu, dropped %llu, mean %.2f / median %.2f / max %.0f cd/m2, black %.3f%%\n",
                static_cast<unsigned long long>(renderer.statCounter(STAT_NONFINITE_SAMPLE)),
                static_cast<unsigned long long>(renderer.statCounter(STAT_DROPPED_SAMPLE)), st.mean, st.median, st.max,
                100.0 * st.blackFraction);

    if (!out.empty()) {
        float3 gains{1, 1, 1};
        if (auto ill = renderer.measureSceneIlluminant()) gains = ColorMath::whiteBalanceGains(*ill);
        ToneParams tp = makeToneParams(renderer.settings(), renderer.effectiveEV100(), gains, uint32_t(width),
                                       uint32_t(height));
        PNGWriter::write(toneMapToRGBA(renderer.accum().data(), tp), width, height, out);
        std::printf("wrote %s\n", out.c_str());
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("peak resident memory: %.1f MB\n", double(usage.ru_maxrss) / 1024.0);
    return 0;
}
