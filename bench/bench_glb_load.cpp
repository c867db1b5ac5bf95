// Load time of a house-sized GLB: about 150,000 triangles in about 5 MB, laid
// out the way exporters write walkthrough models (many meshes of a few hundred
// triangles, each placed by a node with a transform, positions + normals +
// texture coordinates, 32-bit indices). Timed on one core and on all cores.
//
//   bench_glb_load [triangles [write-to.glb]]
#include "scene/GLBLoader.h"

#include "../Tests/support/GLBWriter.h"

#include <tbb/global_control.h>
#include <tbb/info.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using qv::float2;
using qv::float3;
using qv::test::GLBWriter;
using Json = nlohmann::json;

// A gently curved grid of quads: `cells` x `cells` cells, two triangles each.
struct Patch {
    std::vector<float3> positions, normals;
    std::vector<float2> uvs;
    std::vector<uint32_t> indices;
};

Patch makePatch(int cells, float bend) {
    Patch p;
    for (int j = 0; j <= cells; ++j)
        for (int i = 0; i <= cells; ++i) {
            const float u = float(i) / float(cells), v = float(j) / float(cells);
            p.positions.push_back({u, bend * std::sin(3.0f * u + 2.0f * v), v});
            p.normals.push_back(qv::normalize(float3{-0.1f * bend, 1.0f, -0.05f * bend}));
            p.uvs.push_back({u * 4.0f, v * 4.0f});
        }
    for (int j = 0; j < cells; ++j)
        for (int i = 0; i < cells; ++i) {
            const uint32_t a = uint32_t(j * (cells + 1) + i), b = a + 1, c = a + uint32_t(cells + 1), d = c + 1;
            p.indices.insert(p.indices.end(), {a, c, b, b, c, d});
        }
    return p;
}

std::vector<uint8_t> makeHouse(int targetTriangles) {
    GLBWriter w;
    for (int m = 0; m < 12; ++m)
        w.addMaterial({{"name", "material" + std::to_string(m)},
                       {"pbrMetallicRoughness", {{"baseColorFactor", {0.8, 0.7, 0.6, 1.0}}, {"roughnessFactor", 0.6}}}});
    // 12 x 12 cells = 288 triangles per mesh; each mesh drawn by one node.
    constexpr int kCells = 12;
    const int meshes = std::max(1, targetTriangles / (2 * kCells * kCells));
    std::vector<int> roots;
    for (int m = 0; m < meshes; ++m) {
        const Patch p = makePatch(kCells, 0.02f * float(m % 7));
        Json prim = GLBWriter::primitive(w.addPositions(p.positions), w.addIndices(p.indices), m % 12);
        prim["attributes"]["NORMAL"] = w.addNormals(p.normals);
        prim["attributes"]["TEXCOORD_0"] = w.addUVs(p.uvs);
        const int mesh = w.addMesh(Json{{"primitives", {prim}}});
        const float x = float(m % 40) * 0.5f, z = float(m / 40) * 0.5f;
        Json node = {{"mesh", mesh}, {"translation", {x, float(m % 3) * 2.8, z}}, {"rotation", {0, 0.3826834, 0, 0.9238795}}};
        if (m % 10 == 0) node["extras"] = {{"role", m % 20 == 0 ? "roof" : "site"}};
        roots.push_back(w.addNode(node));
    }
    w.setScene(roots);
    return w.bytes();
}

double secondsOf(const std::vector<uint8_t>& bytes, int repeats, size_t& triangles) {
    std::vector<double> times;
    for (int r = 0; r < repeats; ++r) {
        const auto t0 = std::chrono::steady_clock::now();
        const qv::LoadedModel model = qv::GLBLoader::loadBytes(bytes);
        const auto t1 = std::chrono::steady_clock::now();
        triangles = model.triangleCount();
        times.push_back(std::chrono::duration<double>(t1 - t0).count());
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    const int target = argc > 1 ? std::atoi(argv[1]) : 150000;
    const std::vector<uint8_t> bytes = makeHouse(target);
    std::printf("model: %.2f MB\n", double(bytes.size()) / 1e6);
    if (argc > 2) {
        std::FILE* f = std::fopen(argv[2], "wb");
        if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) std::perror(argv[2]);
        if (f) std::fclose(f);
    }

    size_t triangles = 0;
    {
        tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
        const double s = secondsOf(bytes, 9, triangles);
        std::printf("load, 1 core:   %.4f s  (%zu triangles, %.1f M triangles/s)\n", s, triangles,
                    double(triangles) / s / 1e6);
    }
    {
        const double s = secondsOf(bytes, 9, triangles);
        std::printf("load, %d cores: %.4f s  (%zu triangles, %.1f M triangles/s)\n", tbb::info::default_concurrency(), s,
                    triangles, double(triangles) / s / 1e6);
    }
    return 0;
}
