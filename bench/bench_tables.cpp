// Build times of the tables made at start-up and per environment change: the
// GGX energy tables and, per time-of-day preset, the sky map with its
// sampling tables. Also prints each sky's key figures for reference.
#include "pathtracer/EnergyTables.h"
#include "scene/EnvironmentPreset.h"
#include "scene/SkyModel.h"
#include "scene/SkyTables.h"
#include "scene/TimeOfDay.h"

#include <tbb/global_control.h>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace qv;

namespace {

double seconds(std::chrono::steady_clock::time_point a) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - a).count();
}

// Model-space direction toward a sun at compass bearing az and elevation el
// (degrees), with true north along -Z.
float3 sunDirection(float azDeg, float elDeg) {
    double a = azDeg * M_PI / 180, e = elDeg * M_PI / 180;
    return normalize(float3{float(std::sin(a) * std::cos(e)), float(std::sin(e)), float(-std::cos(a) * std::cos(e))});
}

// Processor seconds of all threads so far: on a busy machine the wall time
// overstates the work, so both are printed.
double cpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + 1e-6 * double(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

} // namespace

int main(int argc, char** argv) {
    int threads = argc > 1 ? std::atoi(argv[1]) : 2;
    int W = argc > 2 ? std::atoi(argv[2]) : 1024, H = argc > 3 ? std::atoi(argv[3]) : 512;
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, size_t(std::max(threads, 1)));
    std::printf("threads: %d\n", threads);

    const int reps = 5;
    double best = 1e9, cpu0 = cpuSeconds();
    for (int i = 0; i < reps; ++i) best = std::min(best, buildEnergyTables().buildSeconds);
    std::printf("energy tables %dx%d: %.3f s wall (best of %d), %.3f s processor time per build\n", 32, 32, best, reps,
                (cpuSeconds() - cpu0) / reps);

    for (TimeOfDay t : {TimeOfDay::day, TimeOfDay::dusk, TimeOfDay::night}) {
        EnvironmentPreset p = EnvironmentPreset::preset(t);
        float3 sun = sunDirection(p.sunAzimuthDeg, p.sunElevationDeg);
        SkyParams params = makeSkyParams(p, sun, W, H);
        double bestMap = 1e9, bestTables = 1e9;
        SkyMap sky;
        double skyCpu0 = cpuSeconds();
        for (int i = 0; i < 3; ++i) {
            sky = generateSkyMap(params);
            bestMap = std::min(bestMap, sky.buildSeconds);
            auto t0 = std::chrono::steady_clock::now();
            SkyTables tables = SkyTables::build(sky.env.data(), sky.width, sky.height);
            bestTables = std::min(bestTables, seconds(t0));
        }
        double skyCpu = (cpuSeconds() - skyCpu0) / 3;
        float3 E = computeSkyIrradiance(sky);
        float3 sunOut = xyz(sky.sunOut);
        std::printf("sky %s %dx%d: map %.3f s + sampling tables %.3f s = %.3f s wall (%.3f s processor); sun %.0f lux (normal), "
                    "sky %.0f lux (horizontal), zenith %.1f cd/m2\n",
                    std::string(toString(t)).c_str(), W, H, bestMap, bestTables, bestMap + bestTables, skyCpu,
                    luminance(sunOut), luminance(E), zenithLuminance(sky));
    }
    return 0;
}
