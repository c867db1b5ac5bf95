#pragma once
// Small synthetic scenes for end-to-end renderer tests: a model built from
// triangles in code, a camera, an environment without sun or sky, and the
// image mean with its standard error taken from the per-pixel sums.
#include "pathtracer/Renderer.h"
#include "shaders/KernelHelpers.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qv::testscenes {

struct SceneMaker {
    LoadedModel model;
    SceneDescription scene;

    uint32_t material(float3 base, float roughness, float metallic = 0, float3 emissive = {}, bool doubleSided = false) {
        ModelMaterial m;
        m.name = "m";
        m.name += std::to_string(model.materials.size()); // one append: GCC 12 misreads the concatenation
        m.baseColor[0] = base.x;
        m.baseColor[1] = base.y;
        m.baseColor[2] = base.z;
        m.metallic = metallic;
        m.roughness = roughness;
        m.emissive = emissive;
        m.doubleSided = doubleSided;
        model.materials.push_back(m);
        return uint32_t(model.materials.size() - 1);
    }
    // The vertex normals are the winding normal (b - a) x (c - a).
    void triangle(float3 a, float3 b, float3 c, uint32_t mat) {
        uint32_t n = uint32_t(model.positions.size());
        float3 normal = normalize(cross(b - a, c - a));
        model.positions.insert(model.positions.end(), {a, b, c});
        model.normals.insert(model.normals.end(), {normal, normal, normal});
        model.uvs.insert(model.uvs.end(), {float2{0, 0}, float2{1, 0}, float2{0, 1}});
        model.indices.insert(model.indices.end(), {n, n + 1, n + 2});
        model.triMaterial.push_back(mat);
        model.triRole.push_back(0);
    }
    // The quadrilateral a b c d (in order round its edge) as two triangles
    // with the winding normal (b - a) x (c - a).
    void quad(float3 a, float3 b, float3 c, float3 d, uint32_t mat) {
        triangle(a, b, c, mat);
        triangle(a, c, d, mat);
    }
    // A horizontal rectangle at height y, facing up (or down).
    void rectangle(float y, float x0, float x1, float z0, float z1, uint32_t mat, bool down = false) {
        float3 a{x0, y, z0}, b{x1, y, z0}, c{x1, y, z1}, d{x0, y, z1};
        if (down) quad(a, b, c, d, mat);
        else quad(a, d, c, b, mat);
    }
    void lamp(LightDef d) { scene.lights.push_back(std::move(d)); }
    void finish() {
        float3 lo{1e30f, 1e30f, 1e30f}, hi{-1e30f, -1e30f, -1e30f};
        for (float3 p : model.positions) {
            lo = min(lo, p);
            hi = max(hi, p);
        }
        model.boundsMin = model.coreBoundsMin = lo;
        model.boundsMax = model.coreBoundsMax = hi;
    }
};

// A lamp of the given kind at 4000 K; the caller sets its shape.
inline LightDef lampDef(const char* kind, std::vector<float> position, float lumens) {
    LightDef d;
    d.kind = kind;
    d.position = std::move(position);
    d.lumens = lumens;
    d.kelvin = 4000;
    return d;
}

inline CameraDef camera(float3 eye, float3 target, float fovDeg) {
    CameraDef c;
    c.name = "test";
    c.eye = eye;
    c.target = target;
    c.fovDeg = fovDeg;
    return c;
}

// No sun, no sky: the only light is the scene's.
inline EnvironmentPreset blackSky() {
    EnvironmentPreset p = EnvironmentPreset::preset(TimeOfDay::night);
    p.sunScale = 0;
    p.skyFloor = float3{0, 0, 0};
    return p;
}

inline RenderSettings smallSettings(int64_t w, int64_t h, uint32_t maxDepth) {
    RenderSettings s;
    s.width = w;
    s.height = h;
    s.maxDepth = maxDepth;
    s.clampMultiple = 0; // the firefly clamp is a bias; these tests want the unbiased estimate
    s.neeMode = NEEMode::tree;
    s.skyWidth = 64;
    s.skyHeight = 32;
    return s;
}

struct Render {
    std::unique_ptr<Renderer> r;
    std::vector<std::string> log;
};

inline Render render(const SceneMaker& sm, const RenderSettings& settings, const EnvironmentPreset& env,
                     const CameraDef& cam, int64_t samples) {
    Render out;
    auto* lines = &out.log;
    out.r = std::make_unique<Renderer>(settings, [lines](std::string_view l) { lines->emplace_back(l); });
    out.r->load(sm.model, sm.scene);
    out.r->setEnvironment(env, 0.0f);
    out.r->setCamera(cam);
    out.r->resize(settings.width, settings.height);
    if (samples > 0) out.r->encodeSamples(samples);
    return out;
}

// The mean pixel luminance and its standard error, from each pixel's sample
// mean and second moment (guideB.w holds the sum of squared sample
// luminances). Pixels are independent, so their variances add.
struct ImageMean {
    double mean = 0, se = 0;
};

inline ImageMean imageMean(const Renderer& r) {
    const auto& a = r.accum();
    const auto& b = r.guideB();
    double sum = 0, var = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        double n = a[i].w;
        double m = luminance(xyz(a[i])) / n;
        double m2 = double(b[i].w) / n;
        sum += m;
        var += std::max(m2 - m * m, 0.0) / (n - 1);
    }
    double P = double(a.size());
    return ImageMean{sum / P, std::sqrt(var) / P};
}

} // namespace qv::testscenes
