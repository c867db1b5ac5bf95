#pragma once
// The binary contract between the path tracer's host side and its kernels:
// constants, flag bits and the fixed-layout records. Field order, widths and
// sizes are the contract; every record is checked field by field below.
// All scalars are 32 bits; float4/uint4 are 16 bytes and 16-byte aligned,
// packed_float3 is 12 bytes and 4-byte aligned. Where a float slot carries an
// unsigned integer ("uint bits"), the integer's bit pattern is stored unchanged
// (see asFloatBits / asUintBits in KernelHelpers.h), never a numeric conversion.
#include "shaders/KernelPortability.h"
#include "shaders/VecMath.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qv {

// Mathematical constants.
constexpr float PI = 3.14159265358979f;
constexpr float TWO_PI = 6.28318530717959f;
constexpr float INV_PI = 0.31830988618379f;
constexpr float BIG = 1.0e30f; // distance reported for a miss

// Feature bits in GPUUniforms::flags.x.
constexpr uint32_t FLAG_SUN = 1;           // the sun disc exists
constexpr uint32_t FLAG_SKY_NEE = 2;       // the sky is importance-sampled by next-event estimation
constexpr uint32_t FLAG_NO_CAUSTICS = 4;   // drop emitters seen through mirror-like glass after a rough bounce
constexpr uint32_t FLAG_NO_LIGHT_NEE = 8;  // debug: BSDF sampling only for sun, lamps and emissive surfaces
constexpr uint32_t FLAG_NEE_ONLY = 16;     // debug: light sampling only wherever it can reach the emitter
constexpr uint32_t FLAG_CLIP = 32;         // section view: geometry clipped at params1.x, cut solids capped
constexpr uint32_t FLAG_ALBEDO = 64;       // debug: output the first-hit albedo times params1.y
constexpr uint32_t FLAG_NEE_STATS = 128;   // QA: count shadow rays (stats counters 2 and up)
constexpr uint32_t FLAG_MFX_GUIDES = 256;  // accumulate the temporal denoiser's guides (guideX)
constexpr uint32_t FLAG_EQUIRECT = 512;    // equirectangular panorama

// Auxiliary-triangle kinds (auxInfo.x); any other value is a proxy rays pass through.
constexpr uint32_t AUX_GLASS = 0; // a thin glass pane
constexpr uint32_t AUX_LIGHT = 1; // the proxy mesh of an analytic light (a light fitting)

// Material flags in GPUMaterial::params.w, stored as the float sum of these.
constexpr uint32_t MAT_GLASS = 1;
constexpr uint32_t MAT_DOUBLE_SIDED = 2;

// Emissive-triangle flags (GPUEmissiveTri::flags).
constexpr uint32_t EM_TWO_SIDED = 1; // emits from both faces
constexpr uint32_t EM_FLIP = 2;      // the emitting side is opposite the winding normal

// opInfo.y of a triangle that does not emit.
constexpr uint32_t NO_EMISSIVE = 0xFFFFFFFFu;

// The GGX energy tables are DFG_N x DFG_N (cosine mu by roughness).
constexpr int DFG_N = 32;

// Next-event-estimation modes (GPULightGridParams::mode.x).
constexpr uint32_t NEE_TREE = 0;
constexpr uint32_t NEE_CELL = 1;
constexpr uint32_t NEE_RIS_TREE = 2;
constexpr uint32_t NEE_RIS_CELL = 3;

// cellRange.w of a cell where the bake found no free space (the light tree is used there).
constexpr uint32_t CELL_UNKNOWN = 0xFFFFFFFFu;

// Light types (GPULight::posType.w).
constexpr float LIGHT_DISC = 0;
constexpr float LIGHT_SPHERE = 1;
constexpr float LIGHT_QUAD = 2;

// Stats counters (uint, incremented atomically). 0 and 1 always count; the
// rest only in a QA build with FLAG_NEE_STATS. The first-vertex variants of
// 2..5 are at 6..9.
constexpr uint32_t STAT_NONFINITE_SAMPLE = 0;  // final sample radiance non-finite (replaced by black)
constexpr uint32_t STAT_DROPPED_SAMPLE = 1;    // a non-finite contribution was dropped in the sample
constexpr uint32_t STAT_LAMP_NEE_TRIED = 2;    // vertices where lamp NEE was attempted
constexpr uint32_t STAT_LAMP_CHOSEN = 3;       // of those, a lamp was chosen
constexpr uint32_t STAT_LAMP_BSDF_NONZERO = 4; // of those, the BSDF toward the lamp point was non-zero
constexpr uint32_t STAT_LAMP_UNOCCLUDED = 5;   // of those, the shadow ray was unoccluded
constexpr uint32_t STAT_FIRST_VERTEX_OFFSET = 4; // 2..5 at the first vertex count at 6..9
constexpr uint32_t STAT_EMISSIVE_RAYS = 10;
constexpr uint32_t STAT_EMISSIVE_UNOCCLUDED = 11;
constexpr uint32_t STAT_SUN_RAYS = 12;
constexpr uint32_t STAT_SUN_UNOCCLUDED = 13;
constexpr uint32_t STAT_SKY_RAYS = 14;
constexpr uint32_t STAT_SKY_UNOCCLUDED = 15;
constexpr uint32_t STAT_SCATTER_VERTICES = 16;
constexpr uint32_t STAT_COUNT = 17;

// guideX holds this many float4 per pixel: (diffuse albedo, roughness),
// (specular albedo, 0), (primary emission, coverage).
constexpr uint32_t GUIDEX_PER_PIXEL = 3;

// One per dispatch, 192 bytes.
struct GPUUniforms {
    float4 camPos;      // xyz eye position (model metres); w = 0
    float4 camRight;    // xyz right vector times tan(half horizontal fov) (unitless); panorama: unit right vector
    float4 camUp;       // xyz up vector times tan(half vertical fov) (unitless); panorama: (0, 1, 0)
    float4 camFwd;      // xyz unit forward vector (levelled for a panorama)
    float4 sunDir;      // xyz unit vector toward the sun; w = 1 - cos(angular radius)
    float4 sunRadiance; // rgb radiance of the sun disc (cd/m2); w = disc solid angle (sr)
    float4 params0;     // x firefly clamp (cd/m2 luminance, 0 = off); y minimum roughness after the first
                        // rough bounce; z pixel spread angle (radians); w texture footprint scale (pixels)
    float4 params1;     // x section clip height (m); y white luminance (cd/m2); z first row of the band (whole
                        // number as float); w unused
    uint4 dims;         // x width, y height (pixels); z samples accumulated before this dispatch; w maximum depth
    uint4 counts;       // x analytic lights; y emissive triangles; z sky table width W; w sky table height H (texels)
    uint4 flags;        // x feature bits FLAG_*; y Russian-roulette start depth; z seed; w glass triangle count
    float4 params2;     // xy fixed sub-pixel offset (pixels from the centre) when z = 1; z 1 = fixed offset, else
                        // tent jitter; w radians per pixel across an equirectangular panorama
};
static_assert(std::is_standard_layout_v<GPUUniforms> && std::is_trivially_copyable_v<GPUUniforms>);
static_assert(sizeof(GPUUniforms) == 192 && alignof(GPUUniforms) == 16);
static_assert(offsetof(GPUUniforms, camPos) == 0 && offsetof(GPUUniforms, camRight) == 16 &&
              offsetof(GPUUniforms, camUp) == 32 && offsetof(GPUUniforms, camFwd) == 48 &&
              offsetof(GPUUniforms, sunDir) == 64 && offsetof(GPUUniforms, sunRadiance) == 80 &&
              offsetof(GPUUniforms, params0) == 96 && offsetof(GPUUniforms, params1) == 112 &&
              offsetof(GPUUniforms, dims) == 128 && offsetof(GPUUniforms, counts) == 144 &&
              offsetof(GPUUniforms, flags) == 160 && offsetof(GPUUniforms, params2) == 176);

// One per model material, 64 bytes.
struct GPUMaterial {
    float4 baseColor; // rgb linear albedo (glass: per-interface transmission tint), unitless; a = authored alpha
    float4 emission;  // rgb emitted radiance (cd/m2); w = 1 if emissive, else 0 (then rgb = 0)
    float4 params;    // x perceptual roughness (0..1); y metallic (0..1); z index of refraction (unitless);
                      // w material flags MAT_GLASS + MAT_DOUBLE_SIDED as a float
    float4 extra;     // x base-colour texture array layer (-1 = none); y frosted-glass roughness (0 = clear);
                      // z wrap mode S, w wrap mode T (0 repeat, 1 clamp to edge, 2 mirrored repeat)
};
static_assert(std::is_standard_layout_v<GPUMaterial> && std::is_trivially_copyable_v<GPUMaterial>);
static_assert(sizeof(GPUMaterial) == 64 && alignof(GPUMaterial) == 16);
static_assert(offsetof(GPUMaterial, baseColor) == 0 && offsetof(GPUMaterial, emission) == 16 &&
              offsetof(GPUMaterial, params) == 32 && offsetof(GPUMaterial, extra) == 48);

// One per analytic light, 96 bytes.
struct GPULight {
    float4 posType;      // xyz centre (model metres); w type LIGHT_DISC / LIGHT_SPHERE / LIGHT_QUAD
    float4 normalRadius; // xyz unit emitting normal (disc, quad); w radius (sphere, disc) or half extent (m)
    float4 uArea;        // xyz disc: unit in-plane tangent; quad: half-extent vector along the length (m);
                         // w emitting area (m2)
    float4 vExp;         // xyz disc: second unit in-plane vector; quad: half-extent vector across (m);
                         // w cosine exponent p (radiance falls as cos^(p-1); 1 = Lambertian)
    float4 radiance;     // rgb radiance along the normal (cd/m2); w peak intensity (cd), the selection weight
    float4 extra;        // x disc polygon segments; y luminous flux (lm); z light-tree path bits (uint bits, bit k
                         // set = right child at depth k); w leaf depth (uint bits)
};
static_assert(std::is_standard_layout_v<GPULight> && std::is_trivially_copyable_v<GPULight>);
static_assert(sizeof(GPULight) == 96 && alignof(GPULight) == 16);
static_assert(offsetof(GPULight, posType) == 0 && offsetof(GPULight, normalRadius) == 16 &&
              offsetof(GPULight, uArea) == 32 && offsetof(GPULight, vExp) == 48 &&
              offsetof(GPULight, radiance) == 64 && offsetof(GPULight, extra) == 80);

// One light-tree node, 64 bytes; node 0 is the root.
struct GPULightNode {
    float4 bmin; // xyz bounds minimum (m); w summed peak intensity of the lights below (cd)
    float4 bmax; // xyz bounds maximum (m); w cosine of the normal cone's half-angle (-1 = omnidirectional)
    float4 axis; // xyz normal cone axis (unit); w unused
    uint4 info;  // inner: x left child, y right child, z 0; leaf: x first light, y light count, z 1; w unused
};
static_assert(std::is_standard_layout_v<GPULightNode> && std::is_trivially_copyable_v<GPULightNode>);
static_assert(sizeof(GPULightNode) == 64 && alignof(GPULightNode) == 16);
static_assert(offsetof(GPULightNode, bmin) == 0 && offsetof(GPULightNode, bmax) == 16 &&
              offsetof(GPULightNode, axis) == 32 && offsetof(GPULightNode, info) == 48);

// One per emissive opaque triangle, 16 bytes. The companion array emCdf holds
// the running sum of pmf (last entry 1).
struct GPUEmissiveTri {
    uint32_t tri;   // opaque triangle index
    uint32_t flags; // EM_TWO_SIDED | EM_FLIP
    float area;     // m2
    float pmf;      // probability of choosing this triangle (unitless)
};
static_assert(std::is_standard_layout_v<GPUEmissiveTri> && std::is_trivially_copyable_v<GPUEmissiveTri>);
static_assert(sizeof(GPUEmissiveTri) == 16 && alignof(GPUEmissiveTri) == 4);
static_assert(offsetof(GPUEmissiveTri, tri) == 0 && offsetof(GPUEmissiveTri, flags) == 4 &&
              offsetof(GPUEmissiveTri, area) == 8 && offsetof(GPUEmissiveTri, pmf) == 12);

// Passed by value to every path-tracing dispatch, 64 bytes.
struct GPULightGridParams {
    float4 origin; // xyz grid minimum corner (m); w cell size (m)
    uint4 dims;    // nx, ny, nz, total cell count
    float4 params; // x defensive light-tree probability; y visibility floor; z lookup offset (m);
                   // w emissive roulette probability (all unitless but z)
    uint4 mode;    // x NEE_* mode; y RIS candidate count; z grid valid (0 = no grid); w unused
};
static_assert(std::is_standard_layout_v<GPULightGridParams> && std::is_trivially_copyable_v<GPULightGridParams>);
static_assert(sizeof(GPULightGridParams) == 64 && alignof(GPULightGridParams) == 16);
static_assert(offsetof(GPULightGridParams, origin) == 0 && offsetof(GPULightGridParams, dims) == 16 &&
              offsetof(GPULightGridParams, params) == 32 && offsetof(GPULightGridParams, mode) == 48);

// cellEntry packing: bits 0..15 light index, bits 16..23 unoccluded fraction x 255.
constexpr uint32_t CELL_ENTRY_LIGHT_MASK = 0xFFFFu;
constexpr uint32_t CELL_ENTRY_VIS_SHIFT = 16;

// The read-only scene as the shading code sees it, assembled per dispatch
// from the host's arrays. The CPU backend passes arrays by pointer; the ray
// intersection structures are reached through the ray-query interface, not here.
struct SceneData {
    const packed_float3* opPos = nullptr;   // opaque vertex positions (m)
    const uint32_t* opIdx = nullptr;        // three vertex indices per opaque triangle
    const packed_float3* opNrm = nullptr;   // opaque vertex normals (unit, zero = none)
    const uint2* opInfo = nullptr;          // per opaque triangle: x material, y emissive index or NO_EMISSIVE
    const packed_float3* auxPos = nullptr;  // auxiliary vertex positions (m)
    const uint32_t* auxIdx = nullptr;       // three vertex indices per auxiliary triangle
    const uint2* auxInfo = nullptr;         // per auxiliary triangle: x AUX_*, y material (glass) or light index
    const GPUMaterial* mats = nullptr;
    const GPULight* lights = nullptr;
    const GPUEmissiveTri* emTris = nullptr;
    const float* emCdf = nullptr;           // running sum of emTris[i].pmf
    const uint32_t* emGuide = nullptr;      // CDF_GUIDE_N + 1 search guides of emCdf, or none
    const float4* sky = nullptr;            // W x H radiance texels (cd/m2), latitude-longitude
    const float* skyRowCdf = nullptr;       // H
    const float* skyColCdf = nullptr;       // H x W
    const float* skyPdf = nullptr;          // W x H, density per unit (theta, phi) times sin(theta)
    const uint32_t* skyRowGuide = nullptr;  // CDF_GUIDE_N + 1 search guides of skyRowCdf
    const uint32_t* skyColGuide = nullptr;  // H x (CDF_GUIDE_N + 1) search guides of skyColCdf
    const GPULightNode* nodes = nullptr;
    const float2* dfg = nullptr;            // DFG_N x DFG_N (T1, T2)
    const float4* dfgAvg = nullptr;         // DFG_N average-albedo coefficients
    const float2* opUV = nullptr;           // base-colour texture coordinates per opaque vertex
    uint32_t* dbg = nullptr;                // STAT_COUNT stats counters
    GPULightGridParams grid{};
    const uint4* cellRange = nullptr;
    const uint32_t* cellEntry = nullptr;
    bool hasGlass = false;                  // flags.w != 0
    bool dbgOn = false;                     // FLAG_NEE_STATS set (camera kernel only)
};

} // namespace qv
