#include "pathtracer/GeometryBuild.h"

#include "pathtracer/LightBuild.h"
#include "scene/CutawayRules.h"
#include "scene/TextFormat.h"
#include "shaders/KernelHelpers.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <set>
#include <string>

namespace qv {

namespace {

std::string lowerCased(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string joined(const std::vector<std::string>& parts) {
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) out += (i ? ", " : "") + parts[i];
    return out;
}

bool anyPositive(float3 c) { return c.x > 0 || c.y > 0 || c.z > 0; }

using Tri = std::array<uint32_t, 3>;

// The working opaque vertex arrays: the model's, with clip and ground vertices appended.
struct VertexArrays {
    std::vector<float3>& pos;
    std::vector<float3>& nrm;
    std::vector<float2>& uv;

    ClipVertex at(uint32_t i) const { return ClipVertex{pos[i], nrm[i], uv[i]}; }
    uint32_t append(const ClipVertex& v) {
        pos.push_back(v.position);
        nrm.push_back(v.normal);
        uv.push_back(v.uv);
        return static_cast<uint32_t>(pos.size() - 1);
    }
    // The triangle's part at or below h, as 0 to 2 triangles of vertex indices.
    int clip(const Tri& t, float h, Tri out[2]) {
        const ClipVertex in[3] = {at(t[0]), at(t[1]), at(t[2])};
        const ClippedPolygon poly = clipTriangleBelow(in, h);
        if (poly.count < 3) return 0;
        uint32_t idx[4];
        for (int k = 0; k < poly.count; ++k) idx[k] = poly.isNew[k] ? append(poly.v[k]) : t[poly.corner[k]];
        out[0] = Tri{idx[0], idx[1], idx[2]};
        if (poly.count == 3) return 1;
        out[1] = Tri{idx[0], idx[2], idx[3]};
        return 2;
    }
};

} // namespace

bool isGlassMaterial(const ModelMaterial& m) {
    return (m.alphaMode == "BLEND" && m.baseColor[3] < 0.999f) || m.transmission > 0.01f;
}

GPUMaterial packMaterial(const ModelMaterial& m, float emissiveNits, const TextureSet& textures) {
    GPUMaterial g;
    const bool glass = isGlassMaterial(m);
    float3 base{m.baseColor[0], m.baseColor[1], m.baseColor[2]};
    if (glass) {
        // Transmission tint: the colour pulled toward its own luminance in
        // proportion to the (clamped) alpha, so a faint tint stays faint.
        base = clamp(base, 0, 1);
        const float lum = luminance(base);
        base = clamp(splat3(lum) + (base - splat3(lum)) * clampf(m.baseColor[3], 0, 1), 0, 1);
    } else {
        base = clamp(base, 0, 0.98f);
    }
    g.baseColor = make_float4(base, m.baseColor[3]);
    if (anyPositive(m.emissive)) g.emission = make_float4(m.emissive * emissiveNits, 1);
    const float flags = (glass ? float(MAT_GLASS) : 0.0f) + (m.doubleSided ? float(MAT_DOUBLE_SIDED) : 0.0f);
    g.params = float4{clampf(m.roughness, 0, 1), clampf(m.metallic, 0, 1), m.ior, flags};
    g.extra = float4{-1, 0, 0, 0};
    if (!glass && m.baseColorTexture) {
        auto layer = textures.layerOfTexture.find(*m.baseColorTexture);
        if (layer != textures.layerOfTexture.end()) {
            float2 wrap = textures.wrapOfTexture.count(*m.baseColorTexture)
                              ? textures.wrapOfTexture.at(*m.baseColorTexture)
                              : float2{};
            g.extra = float4{static_cast<float>(layer->second), 0, wrap.x, wrap.y};
        }
    }
    if (glass && m.transmissionRoughness > 0.001f) g.extra.y = m.transmissionRoughness;
    return g;
}

ClippedPolygon clipTriangleBelow(const ClipVertex (&tri)[3], float h) {
    ClippedPolygon out;
    auto push = [&](const ClipVertex& v, bool made, int corner) {
        if (out.count >= 4) return; // a plane cuts a triangle into at most a quadrilateral
        out.v[out.count] = v;
        out.isNew[out.count] = made;
        out.corner[out.count] = corner;
        ++out.count;
    };
    for (int k = 0; k < 3; ++k) {
        const ClipVertex& a = tri[k];
        const ClipVertex& b = tri[(k + 1) % 3];
        const bool aIn = a.position.y <= h, bIn = b.position.y <= h;
        if (aIn) push(a, false, k);
        if (aIn != bIn) {
            const float t = (h - a.position.y) / (b.position.y - a.position.y);
            ClipVertex v;
            v.position = a.position + (b.position - a.position) * t;
            v.position.y = h;
            const float3 n = a.normal + (b.normal - a.normal) * t;
            v.normal = length(n) > 1e-12f ? normalize(n) : n;
            v.uv = float2{a.uv.x + (b.uv.x - a.uv.x) * t, a.uv.y + (b.uv.y - a.uv.y) * t};
            push(v, true, -1);
        }
    }
    if (out.count < 3) out.count = 0;
    return out;
}

GeometryBuild buildGeometry(const LoadedModel& model, const SceneDescription& scene, const RenderSettings& settings,
                            const TextureSet& textures, const LogSink& log, BuildQuality quality) {
    auto emit = [&](const std::string& line) {
        if (log) log(line);
    };
    GeometryBuild g;
    g.builtLightScale = settings.lightScale;
    g.builtEmissiveNits = settings.emissiveNits;
    const Cutaway cutaway =
        settings.cutaway == Cutaway::whole && settings.hideRoof ? Cutaway::noRoof : settings.cutaway;
    const uint32_t materialCount = static_cast<uint32_t>(model.materials.size());

    // Materials.
    std::vector<bool> glass(materialCount), emissive(materialCount);
    g.materials.reserve(materialCount + 1);
    for (uint32_t i = 0; i < materialCount; ++i) {
        const ModelMaterial& m = model.materials[i];
        glass[i] = isGlassMaterial(m);
        emissive[i] = !glass[i] && anyPositive(m.emissive);
        g.materials.push_back(packMaterial(m, settings.emissiveNits, textures));
        if (!glass[i] && g.materials.back().extra.x >= 0) ++g.texturedMaterials;
        if (glass[i] && g.materials.back().extra.y > 0) ++g.frostedMaterials;
    }
    for (uint32_t i = 0; i < materialCount; ++i) {
        const ModelMaterial& m = model.materials[i];
        if (lowerCased(m.name) != "lawn_grass" || glass[i] || anyPositive(m.emissive)) continue;
        g.groundAlbedo = clamp(float3{m.baseColor[0], m.baseColor[1], m.baseColor[2]}, 0.01f, 0.98f);
        g.groundFromModel = true;
        break;
    }
    GPUMaterial ground;
    ground.baseColor = make_float4(g.groundAlbedo, 1);
    ground.params = float4{0.95f, 0, 1.5f, float(MAT_DOUBLE_SIDED)};
    ground.extra = float4{-1, 0, 0, 0};
    g.materials.push_back(ground);

    // Hidden materials.
    std::set<std::string> hideNames;
    for (const std::string& name : settings.hideMaterials) hideNames.insert(lowerCased(name));
    std::vector<bool> hidden(materialCount);
    std::vector<std::string> hiddenNames;
    for (uint32_t i = 0; i < materialCount; ++i) {
        if (!hideNames.count(lowerCased(model.materials[i].name))) continue;
        hidden[i] = true;
        hiddenNames.push_back(model.materials[i].name);
    }
    for (const std::string& name : settings.hideMaterials) {
        bool found = false;
        for (const ModelMaterial& m : model.materials) found = found || lowerCased(m.name) == lowerCased(name);
        if (!found) emit("warning: --hide-material: no material named '" + name + "'");
    }

    // Triangles.
    g.opPos = model.positions;
    g.opNrm = model.normals;
    g.opUV = model.uvs;
    g.opNrm.resize(g.opPos.size());
    g.opUV.resize(g.opPos.size());
    VertexArrays verts{g.opPos, g.opNrm, g.opUV};
    const size_t triangles = model.triangleCount();
    g.opIdx.reserve(model.indices.size() + 6);
    g.opInfo.reserve(triangles + 2);
    std::vector<double> emWeight;
    std::vector<Tri> glassTris;
    std::vector<uint32_t> glassMat;
    int64_t hiddenByMaterial = 0;
    const size_t vertexCount = model.positions.size();

    auto route = [&](const Tri& t, uint32_t mat) {
        if (glass[mat]) {
            glassTris.push_back(t);
            glassMat.push_back(mat);
            return;
        }
        const uint32_t opIndex = static_cast<uint32_t>(g.opInfo.size());
        g.opIdx.insert(g.opIdx.end(), t.begin(), t.end());
        uint2 info{mat, NO_EMISSIVE};
        if (emissive[mat]) {
            const float3 p0 = g.opPos[t[0]], p1 = g.opPos[t[1]], p2 = g.opPos[t[2]];
            const float3 ng = cross(p1 - p0, p2 - p0);
            const float area = 0.5f * length(ng);
            if (area > 1e-10f) {
                const ModelMaterial& m = model.materials[mat];
                uint32_t flags = 0;
                const float3 ns = g.opNrm[t[0]] + g.opNrm[t[1]] + g.opNrm[t[2]];
                if (length(ns) > 1e-6f && dot(ns, ng) < 0) flags |= EM_FLIP;
                const bool twoSided = m.doubleSided && !settings.emissiveOneSided;
                if (twoSided) flags |= EM_TWO_SIDED;
                info.y = static_cast<uint32_t>(g.emTris.size());
                g.emTris.push_back(GPUEmissiveTri{opIndex, flags, area, 0});
                emWeight.push_back((twoSided ? 2.0 : 1.0) * area * PI *
                                   luminance(m.emissive * settings.emissiveNits));
            }
        }
        g.opInfo.push_back(info);
    };

    for (size_t t = 0; t < triangles; ++t) {
        const Tri tri{model.indices[3 * t], model.indices[3 * t + 1], model.indices[3 * t + 2]};
        const uint32_t mat = t < model.triMaterial.size() ? model.triMaterial[t] : materialCount;
        if (tri[0] >= vertexCount || tri[1] >= vertexCount || tri[2] >= vertexCount || mat >= materialCount)
            continue; // the loader never hands these over; never read out of bounds
        if (hidden[mat]) {
            ++hiddenByMaterial;
            continue;
        }
        Tri pieces[2] = {tri, tri};
        int pieceCount = 1;
        const float y[3] = {g.opPos[tri[0]].y, g.opPos[tri[1]].y, g.opPos[tri[2]].y};
        const float ny[3] = {g.opNrm[tri[0]].y, g.opNrm[tri[1]].y, g.opNrm[tri[2]].y};
        switch (applyStoreyOutcome(storeyRule(cutaway, triangleCutRole(model, t)), y, ny)) {
        case StoreyVerdict::keep: break;
        case StoreyVerdict::hideRoofCeiling: ++g.roofCeilingHidden; continue;
        case StoreyVerdict::hideAboveCut: ++g.storeyHidden; continue;
        case StoreyVerdict::clip:
            ++g.storeyClipped;
            pieceCount = verts.clip(tri, kStoreyHeight, pieces);
            break;
        }
        for (int p = 0; p < pieceCount; ++p) {
            const Tri& piece = pieces[p];
            if (settings.clipAbove) {
                const float cut = *settings.clipAbove;
                const float a = g.opPos[piece[0]].y, b = g.opPos[piece[1]].y, c = g.opPos[piece[2]].y;
                if (std::min({a, b, c}) > cut) {
                    ++g.sectionRemoved;
                    continue;
                }
                if (std::max({a, b, c}) > cut) {
                    ++g.sectionCut;
                    Tri sub[2];
                    const int n = verts.clip(piece, cut, sub);
                    for (int s = 0; s < n; ++s) route(sub[s], mat);
                    continue;
                }
            }
            route(piece, mat);
        }
    }

    // Emissive table.
    double totalWeight = 0;
    for (double w : emWeight) totalWeight += w;
    if (totalWeight > 0) {
        double running = 0;
        g.emCdf.reserve(g.emTris.size());
        for (size_t i = 0; i < g.emTris.size(); ++i) {
            g.emTris[i].pmf = static_cast<float>(emWeight[i] / totalWeight);
            running += emWeight[i];
            g.emCdf.push_back(static_cast<float>(running / totalWeight));
        }
        g.emCdf.back() = 1.0f;
        g.emGuide.resize(CDF_GUIDE_N + 1);
        buildCdfGuide(g.emCdf.data(), static_cast<uint32_t>(g.emCdf.size()), g.emGuide.data());
    } else {
        g.emTris.clear();
        for (uint2& info : g.opInfo) info.y = NO_EMISSIVE;
    }

    // Ground plane, after every cut so that none ever touches it.
    {
        const float3 c = model.robustCentre();
        const uint32_t n = static_cast<uint32_t>(g.opPos.size());
        const float h = kGroundHalfSize;
        for (float3 p : {float3{c.x - h, kGroundHeight, c.z - h}, float3{c.x + h, kGroundHeight, c.z - h},
                         float3{c.x + h, kGroundHeight, c.z + h}, float3{c.x - h, kGroundHeight, c.z + h}})
            verts.append(ClipVertex{p, {0, 1, 0}, {0, 0}});
        g.opIdx.insert(g.opIdx.end(), {n, n + 2, n + 1, n, n + 3, n + 2});
        g.opInfo.push_back(uint2{materialCount, NO_EMISSIVE});
        g.opInfo.push_back(uint2{materialCount, NO_EMISSIVE});
    }

    // Lights.
    LightBuild lightBuild;
    if (settings.sceneLights) {
        std::vector<LightDef> lamps = lampsInEnabledRooms(scene.lightList(), settings.disabledRooms);
        if (settings.clipAbove) {
            const float cut = *settings.clipAbove;
            std::vector<LightDef> below;
            int removed = 0;
            for (const LightDef& lamp : lamps) {
                const float y = lamp.position.size() >= 3 ? lamp.position[1] : 0.0f;
                if (y > cut)
                    ++removed;
                else
                    below.push_back(lamp);
            }
            lamps = std::move(below);
            if (removed > 0)
                emit("section: " + std::to_string(removed) + " light(s) above y=" + formatFloat(cut) + " removed");
        }
        lamps = lampsKeptInView(lamps, cutaway, g.lightsOffUpstairs);
        lightBuild = LightBuild::build(lamps, log);
        if (settings.lightScale != 1)
            for (GPULight& L : lightBuild.lights) {
                L.radiance.x *= settings.lightScale;
                L.radiance.y *= settings.lightScale;
                L.radiance.z *= settings.lightScale;
                L.radiance.w *= settings.lightScale;
            }
    }
    g.lights = std::move(lightBuild.lights);
    g.nodes = std::move(lightBuild.nodes);
    g.totalLumens = lightBuild.totalLumens;
    g.lightsSkipped = lightBuild.skipped;

    // Auxiliary set: glass first (own vertex copies), then the lamp proxies.
    for (size_t i = 0; i < glassTris.size(); ++i) {
        const uint32_t n = static_cast<uint32_t>(g.auxPos.size());
        for (uint32_t v : glassTris[i]) g.auxPos.push_back(g.opPos[v]);
        g.auxIdx.insert(g.auxIdx.end(), {n, n + 1, n + 2});
        g.auxInfo.push_back(uint2{AUX_GLASS, glassMat[i]});
    }
    g.glassTriangles = static_cast<uint32_t>(glassTris.size());
    for (size_t t = 0; t < lightBuild.triLight.size(); ++t) {
        const uint32_t n = static_cast<uint32_t>(g.auxPos.size());
        for (int k = 0; k < 3; ++k) g.auxPos.push_back(lightBuild.positions[lightBuild.indices[3 * t + k]]);
        g.auxIdx.insert(g.auxIdx.end(), {n, n + 1, n + 2});
        g.auxInfo.push_back(uint2{AUX_LIGHT, lightBuild.triLight[t]});
    }
    const uint32_t proxyTriangles = static_cast<uint32_t>(lightBuild.triLight.size());
    const bool placeholder = g.auxInfo.empty();
    if (placeholder) {
        // Far below the scene, of a kind that rays pass through.
        g.auxPos = {{0, -10000, 0}, {0.001f, -10000, 0}, {0, -10000, 0.001f}};
        g.auxIdx = {0, 1, 2};
        g.auxInfo = {uint2{2, 0}};
    }

    // Ray query structures.
    {
        const std::span<const float3> auxPos(g.auxPos);
        const std::span<const uint32_t> auxIdx(g.auxIdx);
        const size_t glassIdx = size_t(g.glassTriangles) * 3, proxyIdx = size_t(proxyTriangles) * 3;
        TriangleSet opaque[] = {TriangleSet{g.opPos, g.opIdx, kRayMaskAll}};
        TriangleSet aux[] = {TriangleSet{auxPos, auxIdx.subspan(0, glassIdx), kMaskGlass},
                             TriangleSet{auxPos, auxIdx.subspan(glassIdx, proxyIdx), kMaskLightProxy},
                             TriangleSet{auxPos, auxIdx.subspan(glassIdx + proxyIdx), kMaskPlaceholder}};
        g.opAS = std::make_shared<const RayQuery>(RayQuery::build(opaque, quality));
        g.auxAS = std::make_shared<const RayQuery>(RayQuery::build(aux, quality));
        // Everything a path segment can hit, in one structure: one traversal
        // finds the nearest opaque or auxiliary hit (placeholder included,
        // for numbering only; rays never select it).
        TriangleSet all[] = {opaque[0], aux[0], aux[1], aux[2]};
        g.nearestAS = std::make_shared<const RayQuery>(RayQuery::build(all, quality));
        g.accelSeconds = g.opAS->buildSeconds() + g.auxAS->buildSeconds() + g.nearestAS->buildSeconds();
        if (g.glassTriangles > 0) {
            TriangleSet glassOnly[] = {TriangleSet{auxPos, auxIdx.subspan(0, glassIdx), kMaskGlass}};
            g.glassAS = std::make_shared<const RayQuery>(RayQuery::build(glassOnly, quality));
            g.accelSeconds += g.glassAS->buildSeconds();
        } else {
            g.glassAS = g.auxAS;
        }
    }

    // The visibility grid is built afterwards; until then the tree is used everywhere.
    g.grid.params = float4{settings.lightGridEps, settings.lightGridVisFloor, settings.lightGridOffset,
                           settings.emissiveRoulette};
    g.grid.mode = uint4{static_cast<uint32_t>(settings.neeMode), settings.risCandidates, 0, 0};

    g.lightCount = static_cast<uint32_t>(g.lights.size());
    g.lightNodes = static_cast<uint32_t>(g.nodes.size());
    g.emissiveCount = static_cast<uint32_t>(g.emTris.size());
    g.opaqueTriangles = static_cast<uint32_t>(g.opInfo.size());
    g.auxTriangles = static_cast<uint32_t>(g.auxInfo.size());
    g.hiddenTriangles = hiddenByMaterial + g.roofCeilingHidden + g.storeyHidden;
    g.clippedTriangles = g.sectionRemoved;

    // Summary.
    std::string tail;
    if (!settings.hideMaterials.empty())
        tail += strprintf(", %lld tris hidden (%s)", static_cast<long long>(hiddenByMaterial),
                          joined(hiddenNames).c_str());
    const std::string viewName(toString(cutaway));
    if (cutaway != Cutaway::whole)
        tail += strprintf(", cut-away %s: %lld roof/ceiling tris hidden", viewName.c_str(),
                          static_cast<long long>(g.roofCeilingHidden));
    if (cutaway == Cutaway::firstFloor || cutaway == Cutaway::groundFloor) {
        const std::string lampNote =
            g.lightsOffUpstairs > 0 ? ", " + std::to_string(g.lightsOffUpstairs) + " first-floor light(s) off" : "";
        tail += strprintf(", storey cut at y=%.2f (%lld tris above it hidden, %lld clipped%s)", double(kStoreyHeight),
                          static_cast<long long>(g.storeyHidden), static_cast<long long>(g.storeyClipped),
                          lampNote.c_str());
    }
    if (settings.clipAbove)
        tail += strprintf(", section at y=%.3f (%lld tris removed, %lld cut)", double(*settings.clipAbove),
                          static_cast<long long>(g.sectionRemoved), static_cast<long long>(g.sectionCut));
    if (g.texturedMaterials > 0) tail += ", " + std::to_string(g.texturedMaterials) + " textured material(s)";
    if (g.frostedMaterials > 0) tail += ", " + std::to_string(g.frostedMaterials) + " frosted glass material(s)";
    if (g.groundFromModel)
        tail += strprintf(", ground plane lawn_grass (%.3f, %.3f, %.3f)", double(g.groundAlbedo.x),
                          double(g.groundAlbedo.y), double(g.groundAlbedo.z));
    emit(strprintf("geometry: %u opaque tris, %u glass/light-proxy tris, %u lights (%.0f lm, %u tree nodes), "
                   "%u emissive tris%s",
                   g.opaqueTriangles, g.auxTriangles, g.lightCount, g.totalLumens, g.lightNodes, g.emissiveCount,
                   tail.c_str()));
    if (!settings.hideMaterials.empty() && hiddenByMaterial == 0)
        emit("warning: hiding " + joined(std::vector<std::string>(hideNames.begin(), hideNames.end())) +
             " removed no triangles");
    if (cutaway != Cutaway::whole && g.roofCeilingHidden == 0)
        emit("warning: cut-away " + viewName +
             ": the model has no roof or ceiling (no node role or material named roof / ceil)");
    if (g.lightsSkipped > 0)
        emit("warning: " + std::to_string(g.lightsSkipped) + " scene light(s) skipped - see the warnings above");
    return g;
}

SceneData geometrySceneData(const GeometryBuild& g) {
    SceneData s;
    s.opPos = g.opPos.data();
    s.opIdx = g.opIdx.data();
    s.opNrm = g.opNrm.data();
    s.opInfo = g.opInfo.data();
    s.opUV = g.opUV.data();
    s.auxPos = g.auxPos.data();
    s.auxIdx = g.auxIdx.data();
    s.auxInfo = g.auxInfo.data();
    s.mats = g.materials.data();
    s.lights = g.lights.data();
    s.nodes = g.nodes.data();
    s.emTris = g.emTris.data();
    s.emCdf = g.emCdf.data();
    s.emGuide = g.emGuide.empty() ? nullptr : g.emGuide.data();
    s.hasGlass = g.glassTriangles > 0;
    return s;
}

} // namespace qv
