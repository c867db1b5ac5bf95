#pragma once
// Scattering functions of the path tracer.
//
// Conventions: every vector is in the local shading frame (z = shading normal,
// tangents from makeBasis); v points toward the viewer (outgoing), l toward
// the light (incoming). Every BSDF value f is returned WITHOUT the cosine
// factor: the reflected radiance is f * |l.z| * Li. Densities are per unit
// solid angle. A pdf of 0 means "no sample" (test with isValid).
//
// The opaque BSDF is a Lambert lobe coupled to a GGX specular lobe with
// multiple-scattering compensation: the specular lobe is scaled by
// 1 + F0 (1/E - 1) for the energy single-scatter GGX loses (E its directional
// albedo), and the diffuse lobe is weighted by (1 - Es(mu_o)) (1 - Es(mu_i)) /
// (1 - Es_avg), which makes a white dielectric's total albedo 1 at every angle.
// Both rest on the GGX energy tables (T1, T2) with E(F0) = F0 T1 + T2.
#include "shaders/FastTrig.h"
#include "shaders/KernelHelpers.h"
#include "shaders/KernelPortability.h"
#include "shaders/Records.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstdint>

namespace qv {

// Lobe flags of a sample.
constexpr uint32_t LOBE_DIFFUSE = 1;
constexpr uint32_t LOBE_SPECULAR = 2;     // GGX reflection (opaque or frosted)
constexpr uint32_t LOBE_TRANSMISSION = 4; // through a pane
constexpr uint32_t LOBE_DELTA = 8;        // a clear pane's mirror reflection or straight passage

// Stratification of the energy-table integration: DFG_SAMPLES^2 cell centres.
constexpr int DFG_SAMPLES = 96;

// GGX normal distribution, a2 = alpha^2.
QV_KERNEL float D_GGX(float NoH, float a2) {
    float d = NoH * NoH * (a2 - 1.0f) + 1.0f;
    return a2 / (PI * d * d);
}

// Smith masking for GGX.
QV_KERNEL float G1_GGX(float NoX, float a2) {
    return 2.0f * NoX / (NoX + std::sqrt(a2 + (1.0f - a2) * NoX * NoX));
}

QV_KERNEL float3 F_Schlick(float3 F0, float c) {
    float m = clampf(1.0f - c, 0.0f, 1.0f);
    float m5 = m * m * m * m * m;
    return F0 + (splat3(1.0f) - F0) * m5;
}

// Unpolarised Fresnel reflectance of a dielectric interface entered from the
// medium of index 1 into index eta; 1 under total internal reflection.
QV_KERNEL float fresnelDielectric(float cosi, float eta) {
    cosi = clampf(cosi, 0.0f, 1.0f);
    float sin2t = (1.0f - cosi * cosi) / (eta * eta);
    if (sin2t >= 1.0f) return 1.0f;
    float cost = std::sqrt(1.0f - sin2t);
    float rs = (cosi - eta * cost) / (cosi + eta * cost);
    float rp = (eta * cosi - cost) / (eta * cosi + cost);
    return 0.5f * (rs * rs + rp * rp);
}

// Bilinear fetch of the (T1, T2) table at cosine mu and perceptual roughness.
QV_KERNEL float2 dfgLookup(const float2* table, float mu, float rough) {
    const float last = float(DFG_N - 1);
    float fx = clampf(mu, 0.0f, 1.0f) * last;
    float fy = clampf(rough, 0.0f, 1.0f) * last;
    int x0 = int(std::fmin(std::floor(fx), last - 1.0f));
    int y0 = int(std::fmin(std::floor(fy), last - 1.0f));
    float tx = fx - float(x0), ty = fy - float(y0);
    float2 a = table[y0 * DFG_N + x0], b = table[y0 * DFG_N + x0 + 1];
    float2 c = table[(y0 + 1) * DFG_N + x0], d = table[(y0 + 1) * DFG_N + x0 + 1];
    float2 lo = a + (b - a) * tx;
    float2 hi = c + (d - c) * tx;
    return lo + (hi - lo) * ty;
}

// Linear fetch of the average-albedo polynomial (x + y F0 + z F0^2) at a roughness.
QV_KERNEL float3 dfgAvgLookup(const float4* table, float rough) {
    const float last = float(DFG_N - 1);
    float fy = clampf(rough, 0.0f, 1.0f) * last;
    int y0 = int(std::fmin(std::floor(fy), last - 1.0f));
    float t = fy - float(y0);
    float4 a = table[y0], b = table[y0 + 1];
    return xyz(a) + (xyz(b) - xyz(a)) * t;
}

// Directional albedo of the compensated specular lobe for table entry t.
QV_KERNEL float3 specAlbedo(float3 F0, float2 t) {
    float E = std::fmax(t.x + t.y, 0.01f);
    return (F0 * t.x + splat3(t.y)) * (splat3(1.0f) + F0 * (1.0f / E - 1.0f));
}

// The opaque BSDF at one shading point, built for one outgoing cosine.
struct BSDF {
    float3 diffuse;      // albedo/pi (1 - Es(mu_o)) / (1 - Es_avg): outgoing side of the coupled diffuse lobe (1/sr)
    float3 F0;           // normal-incidence reflectance (unitless)
    float3 msScale;      // multiple-scattering factor at mu_o (unitless)
    float alpha = 0;     // GGX alpha = roughness^2
    float rough = 0;     // perceptual roughness
    float pSpec = 1;     // probability of sampling the specular lobe
    const float2* dfg = nullptr; // energy table for the incoming-side coupling
};

struct BSDFEval {
    float3 f;      // BSDF value without the cosine (1/sr)
    float pdf = 0; // solid-angle density of sampling l (1/sr)
};

struct BSDFSample {
    float3 l;            // sampled incoming direction (local frame)
    float3 f;            // BSDF value without the cosine (1/sr); zero for a delta event
    float pdf = 0;       // solid-angle density; for a delta event the discrete probability of the event
    float3 weight;       // throughput factor f |l.z| / pdf (for a delta event: the event's throughput)
    uint32_t lobe = 0;   // LOBE_* of the chosen lobe
};
QV_KERNEL bool isValid(const BSDFSample& s) { return s.pdf > 0.0f; }

QV_KERNEL BSDF makeBSDF(const float2* dfg, const float4* dfgAvg, float3 base, float metallic, float rough, float mu) {
    BSDF b;
    b.alpha = rough * rough;
    b.rough = rough;
    b.dfg = dfg;
    float3 diffuseBase = base * (1.0f - metallic);
    b.F0 = mix(splat3(0.04f), base, metallic);
    float2 tv = dfgLookup(dfg, mu, rough);
    float Ev = std::fmax(tv.x + tv.y, 0.01f);
    b.msScale = splat3(1.0f) + b.F0 * (1.0f / Ev - 1.0f);
    float3 Es = clamp((b.F0 * tv.x + splat3(tv.y)) * b.msScale, 0.0f, 1.0f);
    float3 av = dfgAvgLookup(dfgAvg, rough);
    float3 EsAvg = clamp(splat3(av.x) + b.F0 * av.y + b.F0 * b.F0 * av.z, 0.0f, 0.999f);
    b.diffuse = diffuseBase * INV_PI * (splat3(1.0f) - Es) / (splat3(1.0f) - EsAvg);
    float sw = luminance(Es);
    float dw = luminance(diffuseBase * (splat3(1.0f) - Es));
    b.pSpec = dw <= 0.0f ? 1.0f : clampf(sw / (sw + dw), 0.1f, 0.9f);
    return b;
}

// The two lobes of the opaque BSDF, evaluated apart (no cosine).
struct BSDFLobes {
    float3 diffuse;  // coupled Lambert lobe (1/sr)
    float3 specular; // compensated GGX lobe (1/sr)
    float pdf = 0;   // mixture density of bsdfSample (1/sr)
};

QV_KERNEL BSDFLobes bsdfEvalLobes(const BSDF& b, float3 v, float3 l) {
    BSDFLobes r;
    if (!(l.z > 0.0f && v.z > 0.0f)) return r;
    float3 h = normalize(v + l);
    float VoH = std::fmax(dot(v, h), 1e-6f);
    float a2 = b.alpha * b.alpha;
    float D = D_GGX(std::fmax(h.z, 0.0f), a2);
    float G1v = G1_GGX(v.z, a2);
    float G = G1v * G1_GGX(l.z, a2);
    float3 F = F_Schlick(b.F0, VoH);
    r.specular = F * (D * G / (4.0f * v.z * l.z)) * b.msScale;
    if (b.diffuse.x != 0.0f || b.diffuse.y != 0.0f || b.diffuse.z != 0.0f) {
        float3 Ei = clamp(specAlbedo(b.F0, dfgLookup(b.dfg, l.z, b.rough)), 0.0f, 1.0f);
        r.diffuse = b.diffuse * (splat3(1.0f) - Ei);
    }
    r.pdf = b.pSpec * G1v * D / (4.0f * v.z) + (1.0f - b.pSpec) * l.z * INV_PI;
    return r;
}

// Value (no cosine) and mixture sampling density of the opaque BSDF; zero
// unless both directions are above the surface.
QV_KERNEL BSDFEval bsdfEval(const BSDF& b, float3 v, float3 l) {
    BSDFLobes r = bsdfEvalLobes(b, v, l);
    return BSDFEval{r.diffuse + r.specular, r.pdf};
}

// Visible-normal sampling of GGX (Heitz 2018): a microfacet normal drawn with
// density G1(v) max(v.h, 0) D(h) / v.z.
QV_KERNEL float3 sampleVNDF(float3 v, float alpha, float2 u) {
    float3 Vh = normalize(float3{alpha * v.x, alpha * v.y, v.z});
    float len2 = Vh.x * Vh.x + Vh.y * Vh.y;
    float3 T1 = len2 > 0.0f ? float3{-Vh.y, Vh.x, 0.0f} / std::sqrt(len2) : float3{1.0f, 0.0f, 0.0f};
    float3 T2 = cross(Vh, T1);
    float r = std::sqrt(u.x);
    SinCos phi = sinCosTurns(u.y);
    float t1 = r * phi.c;
    float t2 = r * phi.s;
    float s = 0.5f * (1.0f + Vh.z);
    t2 = (1.0f - s) * std::sqrt(std::fmax(0.0f, 1.0f - t1 * t1)) + s * t2;
    float3 Nh = T1 * t1 + T2 * t2 + Vh * std::sqrt(std::fmax(0.0f, 1.0f - t1 * t1 - t2 * t2));
    return normalize(float3{alpha * Nh.x, alpha * Nh.y, std::fmax(0.0f, Nh.z)});
}

// Draws l from the lobe mixture with three uniform numbers: u.x picks the lobe,
// (u.y, u.z) the direction. The pdf is that of the whole mixture.
QV_KERNEL BSDFSample bsdfSample(const BSDF& b, float3 v, float3 u) {
    BSDFSample s;
    float3 l;
    if (u.x < b.pSpec) {
        float3 h = sampleVNDF(v, b.alpha, float2{u.y, u.z});
        l = reflect(-v, h);
        s.lobe = LOBE_SPECULAR;
    } else {
        float r = std::sqrt(u.y);
        SinCos phi = sinCosTurns(u.z);
        l = float3{r * phi.c, r * phi.s, std::sqrt(std::fmax(0.0f, 1.0f - u.y))};
        s.lobe = LOBE_DIFFUSE;
    }
    if (!(l.z > 0.0f)) return BSDFSample{};
    BSDFEval e = bsdfEval(b, v, l);
    if (!(e.pdf > 0.0f)) return BSDFSample{};
    s.l = l;
    s.f = e.f;
    s.pdf = e.pdf;
    s.weight = e.f * (l.z / e.pdf);
    return s;
}

// A cheap stand-in for bsdfEval's value, used only as a resampling target:
// the outgoing-side diffuse plus the compensated specular term, no table
// lookup. Positive wherever bsdfEval is.
QV_KERNEL float3 bsdfEvalTarget(const BSDF& b, float3 v, float3 l) {
    if (!(l.z > 0.0f && v.z > 0.0f)) return float3{};
    float3 h = normalize(v + l);
    float VoH = std::fmax(dot(v, h), 1e-6f);
    float a2 = b.alpha * b.alpha;
    float D = D_GGX(std::fmax(h.z, 0.0f), a2);
    float G = G1_GGX(v.z, a2) * G1_GGX(l.z, a2);
    return b.diffuse + F_Schlick(b.F0, VoH) * (D * G / (4.0f * v.z * l.z)) * b.msScale;
}

// ---- Thin glass panes ------------------------------------------------------
// Frame: z is the pane normal on the incident side (v.z > 0); l.z < 0 is
// transmission. A frosted pane is one rough interface whose transmitted ray is
// the microfacet reflection mirrored through the pane plane, tinted.

// The pane's GGX alpha: a floor keeps a near-clear frosted pane finite.
QV_KERNEL float frostedAlpha(float frostedRoughness) {
    return std::fmax(frostedRoughness * frostedRoughness, 1e-3f);
}

QV_KERNEL BSDFEval frostedEval(float3 v, float3 l, float alpha, float eta, float3 tint) {
    if (v.z <= 1e-6f) return BSDFEval{};
    bool refl = l.z > 0.0f;
    float3 lr = refl ? l : float3{l.x, l.y, -l.z};
    if (lr.z <= 1e-6f) return BSDFEval{};
    float3 h = normalize(v + lr);
    float a2 = alpha * alpha;
    float D = D_GGX(std::fmax(h.z, 0.0f), a2);
    float G1v = G1_GGX(v.z, a2);
    float G = G1v * G1_GGX(lr.z, a2);
    float F = fresnelDielectric(dot(v, h), eta);
    float pr = refl ? F : 1.0f - F;
    BSDFEval e;
    e.pdf = pr * G1v * D / (4.0f * v.z);
    e.f = (refl ? splat3(1.0f) : tint) * (pr * D * G / (4.0f * v.z * lr.z));
    return e;
}

// Samples the frosted pane with three uniform numbers: (u.x, u.y) the visible
// normal, u.z reflection (below F) or transmission. The weight is exactly
// G1(lr), times the tint for transmission.
QV_KERNEL BSDFSample frostedSample(float3 v, float alpha, float eta, float3 tint, float3 u) {
    if (v.z <= 1e-6f) return BSDFSample{};
    float3 h = sampleVNDF(v, alpha, float2{u.x, u.y});
    float3 lr = reflect(-v, h);
    if (lr.z <= 1e-6f) return BSDFSample{};
    float a2 = alpha * alpha;
    float F = fresnelDielectric(dot(v, h), eta);
    bool refl = u.z < F;
    float pr = refl ? F : 1.0f - F;
    float D = D_GGX(std::fmax(h.z, 0.0f), a2);
    float G1v = G1_GGX(v.z, a2);
    float G1l = G1_GGX(lr.z, a2);
    BSDFSample s;
    s.pdf = pr * G1v * D / (4.0f * v.z);
    if (!(s.pdf > 0.0f)) return BSDFSample{};
    float3 colour = refl ? splat3(1.0f) : tint;
    s.l = refl ? lr : float3{lr.x, lr.y, -lr.z};
    s.f = colour * (pr * D * G1v * G1l / (4.0f * v.z * lr.z));
    s.weight = colour * G1l;
    s.lobe = LOBE_SPECULAR | (refl ? 0u : LOBE_TRANSMISSION);
    return s;
}

// A clear pane is a delta interface: with probability F (Fresnel at the
// incidence cosine v.z) the ray mirrors about the normal, otherwise it passes
// straight through, tinted. u is one uniform number.
QV_KERNEL BSDFSample clearGlassSample(float3 v, float eta, float3 tint, float u) {
    BSDFSample s;
    float F = fresnelDielectric(v.z, eta);
    if (u < F) {
        s.l = float3{-v.x, -v.y, v.z};
        s.pdf = F;
        s.weight = splat3(1.0f);
        s.lobe = LOBE_DELTA;
    } else {
        s.l = -v;
        s.pdf = 1.0f - F;
        s.weight = tint;
        s.lobe = LOBE_DELTA | LOBE_TRANSMISSION;
    }
    return s;
}

// What a clear pane lets through along a shadow ray: (1 - F) tint.
QV_KERNEL float3 clearGlassTransmittance(float cosi, float eta, float3 tint) {
    return tint * (1.0f - fresnelDielectric(std::fabs(cosi), eta));
}

// ---- GGX energy tables -------------------------------------------------------

// One cell (x = cosine column, y = roughness row) of the (T1, T2) table: the
// single-scatter GGX directional albedo split into the parts multiplying F0
// and 1, integrated over a stratified grid of visible normals, where the VNDF
// sample weight is G1(l). Cells at mu = 0 are taken at 0.001 and roughness 0 at 0.03.
QV_KERNEL float2 dfgGenCell(int x, int y) {
    const float last = float(DFG_N - 1);
    float mu = std::fmax(float(x) / last, 1e-3f);
    float rough = std::fmax(float(y) / last, 0.03f);
    float alpha = rough * rough;
    float a2 = alpha * alpha;
    float3 v{std::sqrt(std::fmax(0.0f, 1.0f - mu * mu)), 0.0f, mu};
    // sampleVNDF unrolled over the stratified grid: the stretched view vector,
    // its frame and the disc radii and angles are shared by all samples.
    const float inv = 1.0f / float(DFG_SAMPLES);
    float3 Vh = normalize(float3{alpha * v.x, alpha * v.y, v.z});
    float len2 = Vh.x * Vh.x + Vh.y * Vh.y;
    float3 T1v = len2 > 0.0f ? float3{-Vh.y, Vh.x, 0.0f} / std::sqrt(len2) : float3{1.0f, 0.0f, 0.0f};
    float3 T2v = cross(Vh, T1v);
    float sHalf = 0.5f * (1.0f + Vh.z);
    float cosPhi[DFG_SAMPLES], sinPhi[DFG_SAMPLES];
    for (int k = 0; k < DFG_SAMPLES; ++k) {
        float phi = TWO_PI * ((float(k) + 0.5f) * inv);
        cosPhi[k] = std::cos(phi);
        sinPhi[k] = std::sin(phi);
    }
    float T1 = 0.0f, T2 = 0.0f;
    for (int i = 0; i < DFG_SAMPLES; ++i) {
        float r = std::sqrt((float(i) + 0.5f) * inv);
        for (int k = 0; k < DFG_SAMPLES; ++k) {
            float t1 = r * cosPhi[k];
            float t2 = (1.0f - sHalf) * std::sqrt(std::fmax(0.0f, 1.0f - t1 * t1)) + sHalf * (r * sinPhi[k]);
            float3 Nh = T1v * t1 + T2v * t2 + Vh * std::sqrt(std::fmax(0.0f, 1.0f - t1 * t1 - t2 * t2));
            float3 h = normalize(float3{alpha * Nh.x, alpha * Nh.y, std::fmax(0.0f, Nh.z)});
            float VoH = dot(v, h);
            float lz = 2.0f * VoH * h.z - v.z; // z of the reflection of -v about h
            if (lz <= 0.0f) continue;
            float g = G1_GGX(lz, a2);
            float m = clampf(1.0f - VoH, 0.0f, 1.0f);
            float fc = m * m * m * m * m;
            T1 += g * (1.0f - fc);
            T2 += g * fc;
        }
    }
    float n = float(DFG_SAMPLES * DFG_SAMPLES);
    return float2{T1 / n, T2 / n};
}

// One roughness row r of the average-albedo table: the cosine-weighted
// average 2 int_0^1 E(mu) mu dmu of the compensated albedo
// (F0 T1 + T2)(1 + F0 k), k = 1 / max(T1 + T2, 0.01) - 1, as the polynomial
// T2 + F0 (T1 + k T2) + F0^2 (k T1), by the trapezoid rule on the table's columns.
QV_KERNEL float4 dfgAvgRow(const float2* dfg, int r) {
    double c0 = 0, c1 = 0, c2 = 0;
    const double last = double(DFG_N - 1);
    for (int i = 1; i < DFG_N; ++i) {
        double mu = double(i) / last;
        double w = i < DFG_N - 1 ? mu * 2.0 / last : mu / last;
        float2 t = dfg[r * DFG_N + i];
        double T1 = t.x, T2 = t.y;
        double k = 1.0 / std::fmax(T1 + T2, 0.01) - 1.0;
        c0 += w * T2;
        c1 += w * (T1 + k * T2);
        c2 += w * (k * T1);
    }
    return float4{float(c0), float(c1), float(c2), 0.0f};
}

} // namespace qv
