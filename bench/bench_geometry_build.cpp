// Geometry build time for a house-sized model (about 150,000 triangles):
// the whole buildGeometry and the opaque ray-query structure alone, at both
// build qualities, plus a rough trace rate. Target: under 0.2 s on 2 cores.
#include "pathtracer/GeometryBuild.h"

#include <tbb/global_control.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>

using namespace qv;

namespace {

// A grid of rooms: walls, floors and ceilings as finely tessellated panels,
// plus furniture-like boxes, to about `target` triangles.
LoadedModel makeHouse(size_t target) {
    LoadedModel m;
    m.materials.resize(4);
    m.materials[0].name = "plaster";
    m.materials[1].name = "oak";
    m.materials[2].name = "window";
    m.materials[2].transmission = 1;
    m.materials[3].name = "lamp";
    m.materials[3].emissive = {1, 1, 1};
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> uni(0, 1);
    auto quad = [&](float3 o, float3 u, float3 v, int nu, int nv, uint32_t mat) {
        uint32_t base = static_cast<uint32_t>(m.positions.size());
        float3 n = normalize(cross(u, v));
        for (int j = 0; j <= nv; ++j)
            for (int i = 0; i <= nu; ++i) {
                m.positions.push_back(o + u * (float(i) / nu) + v * (float(j) / nv));
                m.normals.push_back(n);
                m.uvs.push_back(float2{float(i) / nu, float(j) / nv});
            }
        for (int j = 0; j < nv; ++j)
            for (int i = 0; i < nu; ++i) {
                uint32_t a = base + j * (nu + 1) + i, b = a + 1, c = a + nu + 1, d = c + 1;
                m.indices.insert(m.indices.end(), {a, b, d, a, d, c});
                m.triMaterial.insert(m.triMaterial.end(), {mat, mat});
                m.triRole.insert(m.triRole.end(), {1, 1});
            }
    };
    m.roleNames = {"", "wall"};
    while (m.indices.size() / 3 < target) {
        float x = std::floor(uni(rng) * 20), z = std::floor(uni(rng) * 12), y = uni(rng) < 0.5f ? 0.0f : 2.8f;
        quad({x, y, z}, {4, 0, 0}, {0, 2.8f, 0}, 24, 16, 0);
        quad({x, y, z}, {0, 0, 4}, {0, 2.8f, 0}, 24, 16, 0);
        quad({x, y, z}, {4, 0, 0}, {0, 0, 4}, 16, 16, 1);
        quad({x + 1, y + 1, z}, {1, 0, 0}, {0, 1, 0}, 2, 2, 2);
        quad({x + 2, y + 2.7f, z + 2}, {0.3f, 0, 0}, {0, 0, 0.3f}, 1, 1, 3);
    }
    return m;
}

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

} // namespace

int main(int argc, char** argv) {
    const int threads = argc > 1 ? std::atoi(argv[1]) : 2;
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, static_cast<size_t>(threads));
    LoadedModel model = makeHouse(150000);
    std::printf("model: %zu triangles, %zu vertices, %d thread(s)\n", model.triangleCount(), model.positions.size(),
                threads);
    SceneDescription scene;
    for (int i = 0; i < 60; ++i) {
        LightDef d;
        d.kind = i % 3 == 0 ? "pendant" : "downlight";
        d.position = {float(i % 10) * 2, 2.6f, float(i / 10) * 2};
        scene.lights.push_back(d);
    }
    RenderSettings settings;
    TextureSet textures = TextureSet::placeholder();

    for (BuildQuality quality : {BuildQuality::fast, BuildQuality::high}) {
        const char* name = quality == BuildQuality::high ? "high" : "fast";
        double best = 1e9, bestAccel = 1e9;
        for (int run = 0; run < 5; ++run) {
            auto start = std::chrono::steady_clock::now();
            GeometryBuild g = buildGeometry(model, scene, settings, textures, LogSink{}, quality);
            best = std::min(best, seconds(start));
            bestAccel = std::min(bestAccel, g.opAS->buildSeconds());
        }
        std::printf("%s quality: buildGeometry %.3f s, opaque structure %.3f s (best of 5)\n", name, best, bestAccel);
    }

    GeometryBuild g = buildGeometry(model, scene, settings, textures, LogSink{}, BuildQuality::high);
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> uni(-1, 1);
    const int rays = 500000;
    int hits = 0;
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rays; ++i) {
        Ray r{{10 + uni(rng) * 8, 1.4f + uni(rng), 6 + uni(rng) * 5}, normalize(float3{uni(rng), uni(rng), uni(rng)})};
        hits += g.opAS->intersect(r).hit();
    }
    const double t = seconds(start);
    std::printf("trace: %.2f Mrays/s single-threaded closest hit (%d of %d hit)\n", rays / t / 1e6, hits, rays);
    return 0;
}
