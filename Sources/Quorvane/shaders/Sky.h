#pragma once
// The sky: a single-scattering atmosphere (Rayleigh, Mie and an ozone layer
// over a spherical planet) rendered into a latitude-longitude radiance map, the
// sun's light after the atmosphere, and the readers of the sky sampling tables.
//
// Map layout: texel (x, y) of W x H has its centre at phi = (x + 0.5) 2 pi / W,
// theta = (y + 0.5) pi / H (theta from straight up) and looks along
// (sin theta cos phi, cos theta, sin theta sin phi), model space, +Y up.
// Radiance is in cd/m2 per channel (the sun's top-of-atmosphere illuminance is
// given in lux per channel). Lengths are metres, extinction per metre.
//
// The view ray is marched in 64 quadratically spaced steps; at every step the
// optical depth toward the sun (16 midpoint steps to the top of the atmosphere)
// decides how much sunlight arrives there. skyRadianceDirect does exactly that
// per direction. The map generator reaches the same result faster: every
// texel of a row shares its view-ray heights (the planet is a sphere and the
// observer sits on its axis), so the view-side terms are set up once per row
// (skyRowSetup), and the sun-side transmittance, which depends only on height
// and sun cosine, comes from a table (SKY_TLUT_MU x SKY_TLUT_H) whose nodes are
// those same 16-step integrals, in Bruneton's (2017) parameterisation. The
// planet's shadow is decided exactly, not from the table.
#include "shaders/FastTrig.h"
#include "shaders/KernelHelpers.h"
#include "shaders/KernelPortability.h"
#include "shaders/Records.h"
#include "shaders/VecMath.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace qv {

// The sky kernel's parameters, 80 bytes.
struct SkyParams {
    float4 sunDir;   // xyz unit vector toward the sun (moon), model space; w = 0
    float4 sunE;     // rgb top-of-atmosphere illuminance of the sun (lux per channel); w = Mie anisotropy g
    float4 tint;     // rgb multiplier of scattered radiance (unitless); w = Mie density scale (unitless)
    float4 floorRad; // rgb additive radiance floor (cd/m2); w = 0
    uint4 dims;      // x W, y H (texels); z view-ray steps; w light-ray steps
};
static_assert(sizeof(SkyParams) == 80 && alignof(SkyParams) == 16);
static_assert(offsetof(SkyParams, sunDir) == 0 && offsetof(SkyParams, sunE) == 16 && offsetof(SkyParams, tint) == 32 &&
              offsetof(SkyParams, floorRad) == 48 && offsetof(SkyParams, dims) == 64);

// Atmosphere constants (metres; coefficients per metre).
constexpr float SKY_RE = 6360e3f;          // planet radius
constexpr float SKY_RA = 6420e3f;          // top of the atmosphere
constexpr float SKY_OBSERVER_HEIGHT = 100; // observer above the ground
constexpr float SKY_HR = 8000;             // Rayleigh scale height
constexpr float SKY_HM = 1200;             // Mie scale height
constexpr float SKY_BETA_MS = 3.996e-6f;   // Mie scattering
constexpr float SKY_BETA_ME = 4.40e-6f;    // Mie extinction
constexpr float SKY_OZONE_CENTRE = 25000;  // ozone tent profile centre and half width
constexpr float SKY_OZONE_HALF_WIDTH = 15000;
constexpr uint32_t SKY_VIEW_STEPS = 64;
constexpr uint32_t SKY_LIGHT_STEPS = 16;
constexpr uint32_t SKY_SUN_STEPS = 256;
constexpr float SKY_SHADOWED_DEPTH = 1e9f; // optical depth of a path blocked by the planet
constexpr float SKY_BELOW_HORIZON_FLOOR = 0.35f; // darkening reached at 1/6 rad (9.6 deg) below the horizon

QV_KERNEL float3 skyBetaR() { return {5.802e-6f, 13.558e-6f, 33.1e-6f}; }
QV_KERNEL float3 skyBetaO() { return {0.650e-6f, 1.881e-6f, 0.085e-6f}; }

// Step i of N along a view ray of length tMax, spaced quadratically so the
// dense air near the ground gets the short steps: the segment's length and
// midpoint; `prev` carries the end of the previous step.
struct SkyStep {
    float tm; // midpoint distance (m)
    float ds; // length (m)
};
QV_KERNEL SkyStep skyViewStep(uint32_t i, uint32_t N, float tMax, float& prev) {
    float f = (float(i) + 1.0f) / float(N);
    float t1 = tMax * f * f;
    float ds = t1 - prev;
    float tm = prev + 0.5f * ds;
    prev = t1;
    return SkyStep{tm, ds};
}

// Densities (Rayleigh, Mie, ozone) relative to sea level at height h.
QV_KERNEL float3 skyDensities(float h) {
    return {std::exp(-h / SKY_HR), std::exp(-h / SKY_HM),
            std::fmax(0.0f, 1.0f - std::fabs(h - SKY_OZONE_CENTRE) / SKY_OZONE_HALF_WIDTH)};
}

// Extinction per metre for densities rho.
QV_KERNEL float3 skyExtinction(float3 rho, float mieScale) {
    return skyBetaR() * rho.x + splat3(SKY_BETA_ME * mieScale * rho.y) + skyBetaO() * rho.z;
}

// The two distances along unit d from o to the sphere of radius R about the
// planet's centre, or (-1, -1) when the line misses it.
QV_KERNEL float2 raySphere(float3 o, float3 d, float R) {
    float b = dot(o, d);
    float c = dot(o, o) - R * R;
    float disc = b * b - c;
    if (disc < 0.0f) return {-1.0f, -1.0f};
    float s = std::sqrt(disc);
    return {-b - s, -b + s};
}

// Height above the ground after travelling t from a point at height h whose
// direction makes cosine mu with the local up. Written so that no large radii
// cancel: |p|^2 - r^2 = 2 r mu t + t^2.
QV_KERNEL float skyHeightAlong(float h, float mu, float t) {
    float r = SKY_RE + h;
    float q = 2.0f * r * mu * t + t * t;
    return h + q / (std::sqrt(r * r + q) + r);
}

// Does the ray from height h with up-cosine mu hit the planet ahead?
QV_KERNEL bool skyHitsPlanet(float h, float mu) {
    float r = SKY_RE + h;
    return mu < 0.0f && h * (2.0f * SKY_RE + h) < r * r * mu * mu;
}

// Distance from height h along up-cosine mu to the top of the atmosphere.
QV_KERNEL float skyDistanceToTop(float h, float mu) {
    float r = SKY_RE + h;
    float c = (SKY_RA - SKY_RE - h) * (SKY_RA + r); // RA^2 - r^2
    float root = std::sqrt(std::fmax(r * r * mu * mu + c, 0.0f));
    return mu > 0.0f ? c / (root + r * mu) : root - r * mu;
}

// Optical depth from height h along up-cosine mu to the top of the atmosphere
// in n equal steps with midpoint samples, ignoring the planet.
QV_KERNEL float3 skyDepthAlong(float h, float mu, uint32_t n, float mieScale) {
    float tTop = skyDistanceToTop(h, mu);
    float ds = tTop / float(n);
    float3 tau{};
    for (uint32_t k = 0; k < n; ++k) {
        float hk = skyHeightAlong(h, mu, (float(k) + 0.5f) * ds);
        tau += skyExtinction(skyDensities(hk), mieScale);
    }
    return tau * ds;
}

// Optical depth toward the sun; SKY_SHADOWED_DEPTH when the planet is in the way.
QV_KERNEL float3 skyDepthToTop(float h, float mu, uint32_t n, float mieScale) {
    if (skyHitsPlanet(h, mu)) return splat3(SKY_SHADOWED_DEPTH);
    return skyDepthAlong(h, mu, n, mieScale);
}

QV_KERNEL float skyPhaseRayleigh(float mu) { return 3.0f / (16.0f * PI) * (1.0f + mu * mu); }

// Cornette-Shanks phase function.
QV_KERNEL float skyPhaseMie(float mu, float g) {
    float g2 = g * g;
    float denom = std::fmax(1.0f + g2 - 2.0f * g * mu, 1e-4f);
    return 3.0f / (8.0f * PI) * (1.0f - g2) * (1.0f + mu * mu) / ((2.0f + g2) * denom * std::sqrt(denom));
}

// Below the horizon the map shows the horizon, darkened to 35% by 9.6 degrees down.
QV_KERNEL float skyBelowHorizonFactor(float vy) {
    return vy < 0.0f ? mixf(1.0f, SKY_BELOW_HORIZON_FLOOR, clampf(-6.0f * vy, 0.0f, 1.0f)) : 1.0f;
}

// The view direction of a texel centre.
QV_KERNEL float3 skyTexelDirection(uint32_t x, uint32_t y, uint32_t W, uint32_t H) {
    float phi = (float(x) + 0.5f) / float(W) * TWO_PI;
    float theta = (float(y) + 0.5f) / float(H) * PI;
    float st = std::sin(theta);
    return {st * std::cos(phi), std::cos(theta), st * std::sin(phi)};
}

// Folds a view direction onto the horizon when it points down.
QV_KERNEL float3 skyViewAboveHorizon(float3 v) {
    if (v.y >= 0.0f) return v;
    float3 w{v.x, 0.0f, v.z};
    float len = length(w);
    return len > 0.0f ? w / len : float3{1.0f, 0.0f, 0.0f};
}

QV_KERNEL float3 skyFinish(const SkyParams& P, float3 sumR, float3 sumM, float mu, float vy) {
    float g = P.sunE.w, mieScale = P.tint.w;
    float3 L = xyz(P.sunE) * (sumR * skyBetaR() * skyPhaseRayleigh(mu) +
                              sumM * (SKY_BETA_MS * mieScale * skyPhaseMie(mu, g)));
    L = L * xyz(P.tint) + xyz(P.floorRad);
    return L * skyBelowHorizonFactor(vy);
}

// Single-scattered radiance seen along unit direction v, marched directly
// (every step integrates its own light ray). The reference the map generator
// is checked against, and usable per texel on a device with time to spare.
QV_KERNEL float3 skyRadianceDirect(const SkyParams& P, float3 vIn) {
    float vy = vIn.y;
    float3 v = skyViewAboveHorizon(vIn);
    float3 s = xyz(P.sunDir);
    const float h0 = SKY_OBSERVER_HEIGHT;
    float tMax = skyDistanceToTop(h0, v.y);
    if (skyHitsPlanet(h0, v.y)) {
        float3 o{0.0f, SKY_RE + h0, 0.0f};
        tMax = std::fmin(tMax, raySphere(o, v, SKY_RE).x);
    }
    float mu = dot(v, s);
    float mieScale = P.tint.w;
    uint32_t N = P.dims.z, NL = P.dims.w;
    float3 depth{}, sumR{}, sumM{};
    float prev = 0.0f;
    const float r0 = SKY_RE + h0;
    for (uint32_t i = 0; i < N; ++i) {
        SkyStep step = skyViewStep(i, N, tMax, prev);
        float ds = step.ds, tm = step.tm;
        float h = skyHeightAlong(h0, v.y, tm);
        float3 rho = skyDensities(h);
        float3 ext = skyExtinction(rho, mieScale);
        float3 tauMid = depth + ext * (0.5f * ds);
        depth += ext * ds;
        // Cosine between the sun and the local up at the sample point.
        float cosS = (r0 * s.y + tm * mu) / (SKY_RE + h);
        float3 tauL = skyDepthToTop(h, cosS, NL, mieScale);
        if (tauL.x > 1e8f) continue;
        float3 tau = tauMid + tauL;
        float3 T{std::exp(-tau.x), std::exp(-tau.y), std::exp(-tau.z)};
        sumR += T * (rho.x * ds);
        sumM += T * (rho.y * ds);
    }
    return skyFinish(P, sumR, sumM, mu, vy);
}

// The sun's illuminance at the ground after extinction (lux per channel, w = 1),
// or all zero when the planet hides it.
QV_KERNEL float4 skySunOut(const SkyParams& P) {
    float3 tau = skyDepthToTop(SKY_OBSERVER_HEIGHT, P.sunDir.y, SKY_SUN_STEPS, P.tint.w);
    if (tau.x > 1e8f) return float4{};
    return float4{P.sunE.x * std::exp(-tau.x), P.sunE.y * std::exp(-tau.y), P.sunE.z * std::exp(-tau.z), 1.0f};
}

// ---- Sun-side transmittance table ------------------------------------------
// Node (i, j) holds exp(-optical depth) (rgb, w = 1) from height h_j toward
// up-cosine mu_i, integrated in SKY_LIGHT_STEPS midpoint steps. Coordinates:
// x_r = rho / Hmax with rho = sqrt(r^2 - RE^2), Hmax = sqrt(RA^2 - RE^2); x_mu
// runs the distance to the top of the atmosphere from its minimum (straight up)
// to its maximum (the horizon), so the table ends exactly at the planet's shadow.
constexpr uint32_t SKY_TLUT_MU = 1024;
constexpr uint32_t SKY_TLUT_H = 128;

QV_KERNEL float skyHmax() { return std::sqrt((SKY_RA - SKY_RE) * (SKY_RA + SKY_RE)); }

QV_KERNEL float4 skyTransmittanceLutTexel(const SkyParams& P, uint32_t i, uint32_t j) {
    float Hm = skyHmax();
    float rho = float(j) / float(SKY_TLUT_H - 1) * Hm;
    float r = std::sqrt(rho * rho + SKY_RE * SKY_RE);
    float h = rho * rho / (r + SKY_RE);
    float dMin = SKY_RA - r, dMax = rho + Hm;
    float d = dMin + float(i) / float(SKY_TLUT_MU - 1) * (dMax - dMin);
    float mu = d <= 0.0f ? 1.0f : clampf((Hm * Hm - rho * rho - d * d) / (2.0f * r * d), -1.0f, 1.0f);
    float3 tau = skyDepthAlong(h, mu, P.dims.w, P.tint.w);
    return float4{std::exp(-tau.x), std::exp(-tau.y), std::exp(-tau.z), 1.0f};
}

// Fractional table row for height h.
QV_KERNEL float skyLutRow(float h) {
    float rho = std::sqrt(std::fmax(h * (2.0f * SKY_RE + h), 0.0f));
    return clampf(rho / skyHmax(), 0.0f, 1.0f) * float(SKY_TLUT_H - 1);
}

// Per-height terms of the table's column coordinate.
struct SkyLutColumnTerms {
    float r = 0;      // distance from the planet's centre (m)
    float c = 0;      // RA^2 - r^2 (m2)
    float dMin = 0;   // distance to the top straight up (m)
    float scale = 0;  // (SKY_TLUT_MU - 1) / (distance at the horizon - dMin) (1/m)
};

QV_KERNEL SkyLutColumnTerms skyLutColumnTerms(float h) {
    SkyLutColumnTerms k;
    k.r = SKY_RE + h;
    k.c = (SKY_RA - SKY_RE - h) * (SKY_RA + k.r);
    float rho = std::sqrt(std::fmax(h * (2.0f * SKY_RE + h), 0.0f));
    k.dMin = SKY_RA - k.r;
    k.scale = float(SKY_TLUT_MU - 1) / (rho + skyHmax() - k.dMin);
    return k;
}

// Fractional table column for the height behind k and up-cosine mu.
QV_KERNEL float skyLutColumn(const SkyLutColumnTerms& k, float mu) {
    float rmu = k.r * mu;
    float root = std::sqrt(std::fmax(rmu * rmu + k.c, 0.0f));
    float d = mu > 0.0f ? k.c / (root + rmu) : root - rmu;
    return clampf((d - k.dMin) * k.scale, 0.0f, float(SKY_TLUT_MU - 1));
}

QV_KERNEL float3 skyLutFetch(const float4* lut, float row, float col) {
    uint32_t j0 = uint32_t(std::fmin(std::floor(row), float(SKY_TLUT_H - 2)));
    uint32_t i0 = uint32_t(std::fmin(std::floor(col), float(SKY_TLUT_MU - 2)));
    float ty = row - float(j0), tx = col - float(i0);
    const float4* a = lut + size_t(j0) * SKY_TLUT_MU + i0;
    const float4* b = a + SKY_TLUT_MU;
    float3 lo = xyz(a[0]) + (xyz(a[1]) - xyz(a[0])) * tx;
    float3 hi = xyz(b[0]) + (xyz(b[1]) - xyz(b[0])) * tx;
    return lo + (hi - lo) * ty;
}

// The view-ray terms every texel of one map row shares: step distances,
// heights, densities and the view-side transmittance to each step's midpoint.
struct SkyRowSteps {
    float cosUp = 0;                   // view direction's y (>= 0)
    float tm[SKY_VIEW_STEPS];          // midpoint distance of each step (m)
    float invR[SKY_VIEW_STEPS];        // 1 / distance of the midpoint from the planet's centre (1/m)
    float rho2[SKY_VIEW_STEPS];        // r^2 - RE^2 at the midpoint (m2)
    float r2[SKY_VIEW_STEPS];          // r^2 at the midpoint (m2)
    float lutRow[SKY_VIEW_STEPS];      // fractional transmittance-table row of the midpoint
    SkyLutColumnTerms lutCol[SKY_VIEW_STEPS]; // the midpoint's terms of the table column
    float3 viewT[SKY_VIEW_STEPS];      // transmittance from the observer to the midpoint
    float dR[SKY_VIEW_STEPS];          // Rayleigh density times step length (m)
    float dM[SKY_VIEW_STEPS];          // Mie density times step length (m)
    uint32_t n = 0;
};

QV_KERNEL void skyRowSetup(const SkyParams& P, float cosUp, SkyRowSteps& row) {
    const float h0 = SKY_OBSERVER_HEIGHT;
    row.cosUp = cosUp;
    uint32_t N = P.dims.z < SKY_VIEW_STEPS ? P.dims.z : SKY_VIEW_STEPS;
    row.n = N;
    float tMax = skyDistanceToTop(h0, cosUp);
    float3 depth{};
    float prev = 0.0f;
    for (uint32_t i = 0; i < N; ++i) {
        SkyStep step = skyViewStep(i, N, tMax, prev);
        float ds = step.ds, tm = step.tm;
        float h = skyHeightAlong(h0, cosUp, tm);
        float3 rho = skyDensities(h);
        float3 ext = skyExtinction(rho, P.tint.w);
        float3 tauMid = depth + ext * (0.5f * ds);
        depth += ext * ds;
        float r = SKY_RE + h;
        row.tm[i] = tm;
        row.invR[i] = 1.0f / r;
        row.rho2[i] = h * (2.0f * SKY_RE + h);
        row.r2[i] = r * r;
        row.lutRow[i] = skyLutRow(h);
        row.lutCol[i] = skyLutColumnTerms(h);
        row.viewT[i] = float3{std::exp(-tauMid.x), std::exp(-tauMid.y), std::exp(-tauMid.z)};
        row.dR[i] = rho.x * ds;
        row.dM[i] = rho.y * ds;
    }
}

// Radiance along unit v (v.y = the row's cosUp) from the row's shared terms and
// the transmittance table. vy is the original direction's y (for darkening).
QV_KERNEL float3 skyRadianceRow(const SkyParams& P, const SkyRowSteps& row, const float4* lut, float3 v, float vy) {
    float3 s = xyz(P.sunDir);
    float mu = dot(v, s);
    const float r0s = (SKY_RE + SKY_OBSERVER_HEIGHT) * s.y;
    float3 sumR{}, sumM{};
    for (uint32_t i = 0; i < row.n; ++i) {
        float cosS = (r0s + row.tm[i] * mu) * row.invR[i];
        if (cosS < 0.0f && row.rho2[i] < row.r2[i] * cosS * cosS) continue; // the planet hides the sun
        float3 T = row.viewT[i] * skyLutFetch(lut, row.lutRow[i], skyLutColumn(row.lutCol[i], cosS));
        sumR += T * row.dR[i];
        sumM += T * row.dM[i];
    }
    return skyFinish(P, sumR, sumM, mu, vy);
}

// One map texel, GPU style (each thread sets up its own row).
QV_KERNEL float4 skyGenTexel(const SkyParams& P, const float4* lut, uint32_t x, uint32_t y) {
    float3 dir = skyTexelDirection(x, y, P.dims.x, P.dims.y);
    float3 v = skyViewAboveHorizon(dir);
    SkyRowSteps row;
    skyRowSetup(P, v.y, row);
    return make_float4(skyRadianceRow(P, row, lut, v, dir.y), 1.0f);
}

// ---- Reading the sky tables ----------------------------------------------------

struct SkyAngles {
    float phi = 0;   // azimuth atan2(z, x) in [0, 2 pi)
    float theta = 0; // polar angle from +Y
};

QV_KERNEL SkyAngles skyAngles(float3 d) {
    SkyAngles a;
    a.phi = (std::fabs(d.x) + std::fabs(d.z) <= 1e-20f) ? 0.0f : std::atan2(d.z, d.x);
    if (a.phi < 0.0f) a.phi += TWO_PI;
    a.theta = std::acos(clampf(d.y, -1.0f, 1.0f));
    return a;
}

// Bilinear radiance of the map along d: columns wrap, rows clamp.
QV_KERNEL float3 skyLookup(const float4* sky, uint32_t W, uint32_t H, float3 d) {
    SkyAngles a = skyAngles(d);
    float fx = a.phi * float(W) / TWO_PI - 0.5f;
    float fy = a.theta * float(H) / PI - 0.5f;
    float x0f = std::floor(fx), y0f = std::floor(fy);
    float tx = fx - x0f, ty = fy - y0f;
    int x0 = int(x0f) % int(W);
    if (x0 < 0) x0 += int(W);
    int x1 = (x0 + 1) % int(W);
    int y0 = int(y0f), y1 = y0 + 1;
    y0 = y0 < 0 ? 0 : (y0 > int(H) - 1 ? int(H) - 1 : y0);
    y1 = y1 < 0 ? 0 : (y1 > int(H) - 1 ? int(H) - 1 : y1);
    float3 a0 = mix(xyz(sky[size_t(y0) * W + x0]), xyz(sky[size_t(y0) * W + x1]), tx);
    float3 a1 = mix(xyz(sky[size_t(y1) * W + x0]), xyz(sky[size_t(y1) * W + x1]), tx);
    return mix(a0, a1, ty);
}

// Solid-angle density with which sampleSky produces direction d.
QV_KERNEL float skyPdfDir(const float* skyPdf, uint32_t W, uint32_t H, float3 d) {
    SkyAngles a = skyAngles(d);
    float st = std::sin(a.theta);
    if (st <= 1e-6f) return 0.0f;
    uint32_t x = uint32_t(std::fmin(std::floor(a.phi * float(W) / TWO_PI), float(W - 1)));
    uint32_t y = uint32_t(std::fmin(std::floor(a.theta * float(H) / PI), float(H - 1)));
    return skyPdf[size_t(y) * W + x] / st;
}

struct SkySample {
    float3 dir;    // unit direction, model space
    float pdf = 0; // solid-angle density (1/sr); 0 = no sample
};


// A texel chosen by the tables and a direction in it, before its density is
// read: a caller that may discard the direction avoids that memory access.
struct SkyTexelSample {
    float3 dir;           // unit direction, model space
    uint32_t row = 0, col = 0;
    float sinTheta = 0;
};

QV_KERNEL SkyTexelSample skyTexelDirection(uint32_t W, uint32_t H, uint32_t row, uint32_t col, float4 u) {
    SinCos phi = sinCosTurns((float(col) + u.z) / float(W));
    SinCos theta = sinCosTurns((float(row) + u.w) / float(2 * H));
    return SkyTexelSample{float3{theta.s * phi.c, theta.c, theta.s * phi.s}, row, col, theta.s};
}

// Solid-angle density of a texel sample; 0 at the poles.
QV_KERNEL float skyTexelPdf(const float* skyPdf, uint32_t W, const SkyTexelSample& t) {
    return t.sinTheta <= 1e-6f ? 0.0f : skyPdf[size_t(t.row) * W + t.col] / t.sinTheta;
}

// Picks a row, then a column, by the cumulative tables, then a point uniform in
// (theta, phi) within the texel; four uniform numbers.
QV_KERNEL SkySample sampleSky(const float* rowCdf, const float* colCdf, const float* skyPdf, uint32_t W, uint32_t H,
                              float4 u) {
    uint32_t row = searchCdf(rowCdf, H, u.x);
    uint32_t col = searchCdf(colCdf + size_t(row) * W, W, u.y);
    SkyTexelSample t = skyTexelDirection(W, H, row, col, u);
    return SkySample{t.dir, skyTexelPdf(skyPdf, W, t)};
}

// The choice of sampleSky through the tables' search guides (CDF_GUIDE_N + 1
// entries for the rows, as many per row for the columns): identical results,
// a fraction of the memory traffic. The texel's density and radiance are left
// to the caller: a shadowed sample needs neither.
QV_KERNEL SkyTexelSample sampleSkyTexelGuided(const float* rowCdf, const float* colCdf, const uint32_t* rowGuide,
                                              const uint32_t* colGuide, uint32_t W, uint32_t H, float4 u) {
    uint32_t row = searchCdfGuided(rowCdf, H, u.x, rowGuide);
    const size_t rowStart = size_t(row) * W;
    CdfRange range = cdfGuideRange(W, u.y, colGuide + size_t(row) * (CDF_GUIDE_N + 1u));
    uint32_t col = searchCdfRange(colCdf + rowStart, range, u.y);
    return skyTexelDirection(W, H, row, col, u);
}

// Prefetching for a sky sample whose random numbers are known early, in two
// stages so that neither waits on memory: the first finds the row (its
// tables are small and stay cached) and starts loading the row's column
// guide; the second, some work later, reads that guide and starts loading
// the column table entries that sampleSkyTexelGuided will search.
QV_KERNEL uint32_t prefetchSkyRow(const float* rowCdf, const uint32_t* rowGuide, const uint32_t* colGuide, uint32_t H,
                                  float u0, float u1) {
    uint32_t row = searchCdfGuided(rowCdf, H, u0, rowGuide);
    float scaled = u1 * float(CDF_GUIDE_N);
    uint32_t k = scaled >= float(CDF_GUIDE_N) ? CDF_GUIDE_N - 1u : (scaled > 0.0f ? uint32_t(scaled) : 0u);
    QV_PREFETCH(colGuide + size_t(row) * (CDF_GUIDE_N + 1u) + k);
    return row;
}

QV_KERNEL void prefetchSkyColumns(const float* colCdf, const uint32_t* colGuide, uint32_t W, uint32_t row, float u1) {
    CdfRange range = cdfGuideRange(W, u1, colGuide + size_t(row) * (CDF_GUIDE_N + 1u));
    QV_PREFETCH(colCdf + size_t(row) * W + range.lo);
}

QV_KERNEL SkySample sampleSkyGuided(const float* rowCdf, const float* colCdf, const float* skyPdf,
                                    const uint32_t* rowGuide, const uint32_t* colGuide, uint32_t W, uint32_t H,
                                    float4 u) {
    SkyTexelSample t = sampleSkyTexelGuided(rowCdf, colCdf, rowGuide, colGuide, W, H, u);
    return SkySample{t.dir, skyTexelPdf(skyPdf, W, t)};
}

} // namespace qv
