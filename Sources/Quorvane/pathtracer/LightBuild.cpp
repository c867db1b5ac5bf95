#include "pathtracer/LightBuild.h"

#include "pathtracer/LightTree.h"
#include "scene/ColorMath.h"
#include "scene/TextFormat.h"
#include "shaders/KernelHelpers.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
#include <string>

namespace qv {

namespace {

std::string lowerCased(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string formatList(const std::vector<float>& values) {
    std::string out = "[";
    for (size_t i = 0; i < values.size(); ++i) out += (i ? ", " : "") + formatFloat(values[i]);
    return out + "]";
}

// A 3-vector from the first three numbers when there are three and all are finite.
std::optional<float3> finite3(const std::vector<float>& v) {
    if (v.size() < 3) return std::nullopt;
    float3 p{v[0], v[1], v[2]};
    if (!isFinite(p)) return std::nullopt;
    return p;
}

// Parses and checks one lamp definition, appending it to the build.
class LampParser {
public:
    LampParser(LightBuild& out, const LogSink& log) : out_(out), log_(log) {}

    void add(const LightDef& def, size_t index) {
        label_ = "light " + std::to_string(index) + " (" + def.id.value_or("no id") + ")";
        std::optional<float3> position = finite3(def.position);
        if (!position) return skip(label_ + " skipped: position must be 3 finite numbers");
        const std::string kind = lowerCased(def.kind.value_or("downlight"));

        float kelvin = def.kelvin.value_or(3000.0f);
        if (!std::isfinite(kelvin) || kelvin < 1000 || kelvin > 25000) {
            float repaired = std::isfinite(kelvin) ? std::clamp(kelvin, 1000.0f, 25000.0f) : 3000.0f;
            warn(label_ + ": kelvin " + formatFloat(kelvin) + " is outside 1000-25000 K - using " +
                 formatFloat(repaired));
            kelvin = repaired;
        }
        const float3 color = ColorMath::kelvinToLinearSRGB(kelvin);

        float3 direction{0, -1, 0};
        if (def.direction) {
            std::optional<float3> d = finite3(*def.direction);
            if (!d || length(*d) <= 1e-6f)
                warn(label_ + ": direction " + formatList(*def.direction) + " is not a usable vector - using (0,-1,0)");
            else
                direction = normalize(*d);
        }

        std::optional<float> coneDeg = def.coneDeg;
        if (coneDeg && !std::isfinite(*coneDeg)) {
            warn(label_ + ": cone_deg is not finite - using the default");
            coneDeg = 0.0f;
        }

        if (kind == "pendant") {
            float lumens = def.lumens.value_or(600.0f);
            if (!fluxOk(lumens)) return;
            out_.addSphere(*position, radiusOf(def, 0.12f), lumens, color);
        } else if (kind == "strip") {
            addStrip(def, *position, direction, color);
        } else if (kind == "wall" || kind == "exterior" || kind == "vanity") {
            float lumens = def.lumens.value_or(400.0f);
            if (!fluxOk(lumens)) return;
            float radius = radiusOf(def, 0.06f);
            if (!def.direction)
                out_.addSphere(*position, radius, lumens, color);
            else
                out_.addDisc(*position, direction, radius, lumens, coneDeg ? discExponentForCone(*coneDeg) : 1.0f,
                             color);
        } else {
            float lumens = def.lumens.value_or(800.0f);
            if (!fluxOk(lumens)) return;
            out_.addDisc(*position, direction, radiusOf(def, 0.045f), lumens,
                         discExponentForCone(coneDeg.value_or(100.0f)), color);
        }
    }

private:
    void warn(const std::string& text) {
        if (log_) log_("warning: " + text);
    }
    void skip(const std::string& text) {
        warn(text);
        out_.skipped += 1;
    }
    bool fluxOk(float lumens) {
        if (std::isfinite(lumens) && lumens > 0 && lumens <= LightBuild::kMaxLumens) return true;
        skip(label_ + " skipped: lumens " + formatFloat(lumens) + " must be finite, > 0 and <= 1000000");
        return false;
    }
    float radiusOf(const LightDef& def, float fallback) {
        float r = def.radius.value_or(fallback);
        if (!std::isfinite(r) || r < LightBuild::kMinRadius) {
            warn(label_ + ": radius " + formatFloat(r) + " m is below 0.005 m - using 0.005 m");
            r = LightBuild::kMinRadius;
        }
        return r;
    }

    void addStrip(const LightDef& def, float3 start, float3 direction, float3 color) {
        std::optional<float3> end = def.end ? finite3(*def.end) : std::nullopt;
        if (!end || length(*end - start) <= 0.001f) {
            warn("strip light " + def.id.value_or("?") + " has no usable 'end'; using a disc");
            float lumens = def.lumens.value_or(300.0f);
            if (!fluxOk(lumens)) return;
            out_.addDisc(start, direction, radiusOf(def, 0.03f), lumens, 1.0f, color);
            return;
        }
        float lumens;
        if (def.lumens) {
            lumens = *def.lumens;
        } else {
            float perM = def.lumensPerM.value_or(600.0f);
            if (!std::isfinite(perM) || perM <= 0)
                return skip(label_ + " skipped: lumens_per_m " + formatFloat(perM) + " must be finite and > 0");
            lumens = length(*end - start) * perM;
        }
        if (!fluxOk(lumens)) return;
        float width = def.width ? *def.width : 2 * radiusOf(def, 0.006f);
        if (!std::isfinite(width) || width < LightBuild::kMinWidth) {
            warn(label_ + ": width " + formatFloat(width) + " m is below 0.002 m - using 0.002 m");
            width = LightBuild::kMinWidth;
        }
        out_.addQuad(start, *end, direction, width, lumens, color);
    }

    LightBuild& out_;
    const LogSink& log_;
    std::string label_;
};

} // namespace

float discExponentForCone(float coneDeg) {
    if (!(coneDeg > 0) || coneDeg >= 179) return 1;
    const double half = coneDeg * 0.5 * 3.14159265358979 / 180.0;
    return static_cast<float>(std::max(1.0, -std::log(2.0) / std::log(std::cos(half))));
}

LightBuild LightBuild::build(const std::vector<LightDef>& lamps, const LogSink& log) {
    LightBuild out;
    LampParser parser(out, log);
    for (size_t i = 0; i < lamps.size(); ++i) parser.add(lamps[i], i);
    out.buildTree();
    return out;
}

void LightBuild::addSphere(float3 centre, float radius, float lumens, float3 color) {
    const uint32_t light = static_cast<uint32_t>(lights.size());
    GPULight L;
    L.posType = make_float4(centre, LIGHT_SPHERE);
    L.normalRadius = float4{0, 1, 0, radius};
    L.uArea = float4{1, 0, 0, 4 * PI * radius * radius};
    L.vExp = float4{0, 0, 1, 1};
    L.radiance = make_float4(color * (lumens / (4 * PI * PI * radius * radius)), lumens / (4 * PI));
    L.extra = float4{0, lumens, 0, 0};
    lights.push_back(L);

    const TriangleMesh& ico = enclosingIcosphere();
    const uint32_t base = static_cast<uint32_t>(positions.size());
    for (float3 p : ico.positions) positions.push_back(centre + p * radius);
    for (uint32_t i : ico.indices) indices.push_back(base + i);
    triLight.insert(triLight.end(), ico.indices.size() / 3, light);
    totalLumens += lumens;
}

void LightBuild::addDisc(float3 centre, float3 normal, float radius, float lumens, float exponent, float3 color) {
    const uint32_t light = static_cast<uint32_t>(lights.size());
    const float3 n = normalize(normal);
    const Basis basis = makeBasis(n);
    const float3 c = centre + n * kDiscOffset;
    // Area of the regular 24-gon of circumradius r: 24 (r^2 / 2) sin(15 degrees).
    const float area = 12 * radius * radius * 0.258819045f;
    const float p = std::max(exponent, 1.0f);
    const float intensity = lumens * (p + 1) / (2 * PI);
    GPULight L;
    L.posType = make_float4(c, LIGHT_DISC);
    L.normalRadius = make_float4(n, radius);
    L.uArea = make_float4(basis.t, area);
    L.vExp = make_float4(basis.b, p);
    L.radiance = make_float4(color * (intensity / area), intensity);
    L.extra = float4{static_cast<float>(kDiscSegments), lumens, 0, 0};
    lights.push_back(L);

    // A fan from the centre; t x b = n, so increasing angle winds around n.
    const uint32_t base = static_cast<uint32_t>(positions.size());
    positions.push_back(c);
    for (int k = 0; k < kDiscSegments; ++k) {
        const float a = 2 * PI * static_cast<float>(k) / kDiscSegments;
        positions.push_back(c + (basis.t * std::cos(a) + basis.b * std::sin(a)) * radius);
    }
    for (uint32_t k = 0; k < kDiscSegments; ++k) {
        indices.insert(indices.end(), {base, base + 1 + k, base + 1 + (k + 1) % kDiscSegments});
        triLight.push_back(light);
    }
    totalLumens += lumens;
}

void LightBuild::addQuad(float3 start, float3 end, float3 normal, float width, float lumens, float3 color) {
    const uint32_t light = static_cast<uint32_t>(lights.size());
    const float len = length(end - start);
    const float3 a = (end - start) / len;
    float3 facing = normal - a * dot(normal, a);
    facing = length(facing) < 1e-4f ? makeBasis(a).t : facing;
    facing = normalize(facing);
    const float3 across = cross(facing, a);
    const float3 hu = a * (len / 2);
    const float3 hv = across * (std::max(width, kMinWidth) / 2);
    const float area = 4 * length(hu) * length(hv);
    const float3 c = (start + end) * 0.5f + facing * kQuadOffset;
    GPULight L;
    L.posType = make_float4(c, LIGHT_QUAD);
    L.normalRadius = make_float4(facing, std::max(len, width) / 2);
    L.uArea = make_float4(hu, area);
    L.vExp = make_float4(hv, 1);
    L.radiance = make_float4(color * (lumens / (PI * area)), lumens / PI);
    L.extra = float4{0, lumens, 0, 0};
    lights.push_back(L);

    // Corners in the order c - hu - hv, c + hu - hv, c + hu + hv, c - hu + hv;
    // (hu x hv) is along the facing normal because across = facing x a.
    const uint32_t base = static_cast<uint32_t>(positions.size());
    positions.insert(positions.end(), {c - hu - hv, c + hu - hv, c + hu + hv, c - hu + hv});
    indices.insert(indices.end(), {base, base + 1, base + 2, base, base + 2, base + 3});
    triLight.insert(triLight.end(), 2, light);
    totalLumens += lumens;
}

void LightBuild::buildTree() {
    std::vector<uint32_t> newIndexOfOld;
    nodes = buildLightTree(lights, newIndexOfOld);
    for (uint32_t& l : triLight) l = newIndexOfOld[l];
}

TriangleMesh icosphere(int subdivisions) {
    const float t = (1.0f + std::sqrt(5.0f)) / 2;
    TriangleMesh m;
    const float3 corners[12] = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0}, {0, -1, t}, {0, 1, t},
                                {0, -1, -t}, {0, 1, -t}, {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
    for (float3 c : corners) m.positions.push_back(normalize(c));
    m.indices = {0, 11, 5, 0, 5, 1, 0, 1, 7, 0, 7, 10, 0, 10, 11, 1, 5, 9, 5, 11, 4, 11, 10, 2, 10, 7, 6, 7, 1, 8,
                 3, 9, 4, 3, 4, 2, 3, 2, 6, 3, 6, 8, 3, 8, 9, 4, 9, 5, 2, 4, 11, 6, 2, 10, 8, 6, 7, 9, 8, 1};
    for (int s = 0; s < subdivisions; ++s) {
        std::map<std::pair<uint32_t, uint32_t>, uint32_t> midpoints;
        auto midpoint = [&](uint32_t a, uint32_t b) {
            auto key = std::minmax(a, b);
            auto [it, fresh] = midpoints.try_emplace({key.first, key.second}, 0);
            if (fresh) {
                it->second = static_cast<uint32_t>(m.positions.size());
                m.positions.push_back(normalize((m.positions[a] + m.positions[b]) * 0.5f));
            }
            return it->second;
        };
        std::vector<uint32_t> next;
        next.reserve(m.indices.size() * 4);
        for (size_t i = 0; i < m.indices.size(); i += 3) {
            uint32_t a = m.indices[i], b = m.indices[i + 1], c = m.indices[i + 2];
            uint32_t ab = midpoint(a, b), bc = midpoint(b, c), ca = midpoint(c, a);
            next.insert(next.end(), {a, ab, ca, b, bc, ab, c, ca, bc, ab, bc, ca});
        }
        m.indices = std::move(next);
    }
    return m;
}

const TriangleMesh& enclosingIcosphere() {
    static const TriangleMesh mesh = [] {
        TriangleMesh m = icosphere(2);
        float nearest = 1;
        for (size_t i = 0; i < m.indices.size(); i += 3) {
            const float3 a = m.positions[m.indices[i]], b = m.positions[m.indices[i + 1]],
                         c = m.positions[m.indices[i + 2]];
            const float3 n = normalize(cross(b - a, c - a));
            nearest = std::min(nearest, std::fabs(dot(n, a)));
        }
        // Rounding could leave a face a hair inside: scale up by one part in 1e6 more.
        const float scale = (1 / nearest) * (1 + 1e-6f);
        for (float3& p : m.positions) p = p * scale;
        return m;
    }();
    return mesh;
}

} // namespace qv
