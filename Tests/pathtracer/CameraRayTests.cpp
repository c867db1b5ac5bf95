// Camera rays land in the pixel they were made for. Each ray is taken from
// the renderer's own output (an escaped ray's normal guide is minus its
// direction, so one new sample's guide is one ray) or from the camera kernel
// run against a stub scene that records the ray, and is projected back to
// image coordinates with the camera model written out here from the camera's
// eye, target and field of view: x grows to the right, rows grow downward,
// pixel (px, py) has its centre at (px + 0.5, py + 0.5), and the tent filter
// spreads samples at most one pixel from the centre. Panoramas: longitude 0
// at the centre column along the levelled forward vector, growing to the
// right; latitude +90 degrees at the top row; the W - 2 pad inner columns
// span 360 degrees and the pad columns continue across the seam.
#include "RenderTestScenes.h"

#include "shaders/CameraRays.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>
#include <vector>

namespace qv {
namespace {

using namespace testscenes;

// Projections of the test are in double precision; float rounding of the
// renderer's ray (and of the sums it is read back from) moves a point by far
// less than this many pixels.
constexpr double kPixelSlack = 1e-3;
constexpr double kPi = 3.14159265358979323846;

struct Vec {
    double x, y, z;
};
Vec vec(float3 v) { return Vec{v.x, v.y, v.z}; }
double dotv(Vec a, Vec b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Vec crossv(Vec a, Vec b) { return Vec{a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
Vec unit(Vec a) {
    double l = std::sqrt(dotv(a, a));
    return Vec{a.x / l, a.y / l, a.z / l};
}

struct ImagePoint {
    double x, y; // pixels from the image's top-left corner
};

// A pinhole camera: the vertical field of view, either given or derived from
// the horizontal one through the aspect ratio.
struct PinholeModel {
    Vec fwd, right, up;
    double tanHalfV, aspect;
    int W, H;

    PinholeModel(const CameraDef& c, int w, int h) : W(w), H(h) {
        fwd = unit(Vec{c.target.x - c.eye.x, c.target.y - c.eye.y, c.target.z - c.eye.z});
        right = unit(crossv(fwd, Vec{0, 1, 0}));
        up = crossv(right, fwd);
        aspect = double(w) / h;
        double half = c.fovAngleDeg() * kPi / 360.0;
        tanHalfV = c.fovIsHorizontal() ? std::tan(half) / aspect : std::tan(half);
    }
    ImagePoint project(Vec d) const {
        double a = dotv(d, fwd);
        double sx = dotv(d, right) / a / (aspect * tanHalfV);
        double sy = dotv(d, up) / a / tanHalfV;
        return ImagePoint{(sx + 1) * 0.5 * W, (1 - sy) * 0.5 * H};
    }
};

// The panorama's longitude and latitude of a direction, as image positions.
// A position past the top or bottom edge continues over the pole, where the
// same direction is also reached half a turn round: both readings are given.
struct PanoramaModel {
    Vec fwd, right;
    int W, H, pad;

    PanoramaModel(const CameraDef& c, int w, int h, int p) : W(w), H(h), pad(p) {
        fwd = unit(Vec{c.target.x - c.eye.x, 0, c.target.z - c.eye.z});
        right = unit(crossv(fwd, Vec{0, 1, 0}));
    }
    double columns() const { return W - 2.0 * pad; } // columns per full turn
    // Whether direction d is within `reach` pixels of position (cx, cy) on
    // both axes, longitudes compared modulo a full turn.
    bool near(Vec d, double cx, double cy, double reach) const {
        double lon = std::atan2(dotv(d, right), dotv(d, fwd));
        double lat = std::asin(std::clamp(d.y, -1.0, 1.0));
        double x = W * 0.5 + lon / (2 * kPi) * columns();
        double y = (kPi / 2 - lat) / kPi * H;
        const double N = columns();
        struct Reading {
            double x, y;
        };
        // At a pole every longitude is the same direction.
        const bool atPole = std::sqrt(std::max(1 - d.y * d.y, 0.0)) < 1e-6;
        for (Reading r : {Reading{x, y}, Reading{x + N / 2, -y}, Reading{x + N / 2, 2.0 * H - y}}) {
            double dx = r.x - cx;
            dx -= N * std::round(dx / N);
            if ((atPole || std::fabs(dx) <= reach) && std::fabs(r.y - cy) <= reach) return true;
        }
        return false;
    }
};

// ---- The renderer's rays, read back from the normal guide -------------------------

// Far above the model and its ground plane (3 km across), so that every
// camera ray, even straight down within a few hundredths of a degree, escapes.
const float3 kHighEye{0.0f, 1.0e7f, 0.0f};

SceneMaker emptyScene() {
    SceneMaker sm;
    sm.triangle({50, 0, 50}, {50.1f, 0, 50}, {50, 0, 50.1f}, sm.material({0.5f, 0.5f, 0.5f}, 1));
    sm.finish();
    return sm;
}

// Renders `samples` samples one at a time and returns, for each pixel, the
// direction of each sample's camera ray.
std::vector<std::vector<Vec>> renderedRays(Renderer& r, int samples) {
    const size_t P = size_t(r.width() * r.height());
    std::vector<std::vector<Vec>> rays(P);
    std::vector<float4> before(P, float4{});
    for (int k = 0; k < samples; ++k) {
        r.encodeSamples(1);
        for (size_t p = 0; p < P; ++p) {
            const float4 g = r.guideB()[p];
            const float4 dist = r.guideA()[p];
            EXPECT_FLOAT_EQ(dist.w, 1e4f * float(k + 1)) << "pixel " << p << ": a camera ray hit something";
            rays[p].push_back(unit(Vec{before[p].x - g.x, before[p].y - g.y, before[p].z - g.z}));
            before[p] = g;
        }
    }
    return rays;
}

struct PerspectiveCase {
    std::string name;
    int W, H;
    float fovDeg;
    const char* axis;
    float3 look; // direction from the eye to the target
};

void PrintTo(const PerspectiveCase& c, std::ostream* os) { *os << c.name; }

class PerspectiveRays : public ::testing::TestWithParam<PerspectiveCase> {};

// The tent filter's distribution function on (-1, 1).
double tentCdf(double t) { return t < 0 ? 0.5 * (1 + t) * (1 + t) : 1 - 0.5 * (1 - t) * (1 - t); }

// Kolmogorov-Smirnov distance of the offsets from the tent distribution.
double ksDistance(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    double d = 0, n = double(v.size());
    for (size_t i = 0; i < v.size(); ++i)
        d = std::max({d, std::fabs(tentCdf(v[i]) - double(i) / n), std::fabs(double(i + 1) / n - tentCdf(v[i]))});
    return d;
}

TEST_P(PerspectiveRays, EverySampleLandsWithinTheTentOfItsPixel) {
    const PerspectiveCase& c = GetParam();
    CameraDef cam = camera(kHighEye, kHighEye + c.look, c.fovDeg);
    cam.fovAxis = c.axis;
    RenderSettings s = smallSettings(c.W, c.H, 1);
    s.seed = 4;
    Render rd = render(emptyScene(), s, blackSky(), cam, 0);
    const int samples = 8;
    const auto rays = renderedRays(*rd.r, samples);
    const PinholeModel model(cam, c.W, c.H);

    int outside = 0;
    std::vector<double> dx, dy;
    for (int py = 0; py < c.H; ++py)
        for (int px = 0; px < c.W; ++px)
            for (const Vec& d : rays[size_t(py * c.W + px)]) {
                ImagePoint p = model.project(d);
                double ox = p.x - (px + 0.5), oy = p.y - (py + 0.5);
                if (std::fabs(ox) > 1 + kPixelSlack || std::fabs(oy) > 1 + kPixelSlack) {
                    ++outside;
                    ADD_FAILURE() << "pixel (" << px << ", " << py << ") sample lands at (" << p.x << ", " << p.y
                                  << ")";
                }
                dx.push_back(ox);
                dy.push_back(oy);
            }
    EXPECT_EQ(outside, 0);
    // The offsets follow the tent: the KS distance stays below the 0.1%
    // critical value 1.95 / sqrt(n); a box filter or a missing half would not.
    const double crit = 1.95 / std::sqrt(double(dx.size()));
    EXPECT_LT(ksDistance(dx), crit) << "horizontal offsets";
    EXPECT_LT(ksDistance(dy), crit) << "vertical offsets";
}

INSTANTIATE_TEST_SUITE_P(
    Cameras, PerspectiveRays,
    ::testing::Values(PerspectiveCase{"Level7x5Vertical60", 7, 5, 60, "vertical", {0, 0, -1}},
                      PerspectiveCase{"Up9x5Horizontal90", 9, 5, 90, "h", {1, 0.6f, 0.2f}},
                      PerspectiveCase{"Down5x9Vertical40", 5, 9, 40, "v", {-0.3f, -0.4f, 1}},
                      PerspectiveCase{"Wide8x6Horizontal120", 8, 6, 120, "horizontal", {0.7f, 0.1f, 0.7f}},
                      PerspectiveCase{"SinglePixel", 1, 1, 30, "vertical", {0, 0.2f, 1}}),
    [](const ::testing::TestParamInfo<PerspectiveCase>& i) { return i.param.name; });

struct PanoramaCase {
    std::string name;
    int W, H, pad;
    float3 look;
};

void PrintTo(const PanoramaCase& c, std::ostream* os) { *os << c.name; }

class PanoramaRays : public ::testing::TestWithParam<PanoramaCase> {};

TEST_P(PanoramaRays, EverySampleLandsWithinTheTentOfItsPixel) {
    const PanoramaCase& c = GetParam();
    const CameraDef cam = camera(kHighEye, kHighEye + c.look, 70);
    RenderSettings s = smallSettings(c.W, c.H, 1);
    s.projection = Projection::equirect;
    s.seed = 9;
    Render rd = render(emptyScene(), s, blackSky(), cam, 0);
    rd.r->setEquirectPad(c.pad);
    const auto rays = renderedRays(*rd.r, 6);
    const PanoramaModel model(cam, c.W, c.H, c.pad);

    int outside = 0;
    for (int py = 0; py < c.H; ++py)
        for (int px = 0; px < c.W; ++px)
            for (const Vec& d : rays[size_t(py * c.W + px)])
                if (!model.near(d, px + 0.5, py + 0.5, 1 + kPixelSlack)) {
                    ++outside;
                    ADD_FAILURE() << "pixel (" << px << ", " << py << ") sample direction (" << d.x << ", " << d.y
                                  << ", " << d.z << ") is not within one pixel of the pixel centre";
                }
    EXPECT_EQ(outside, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Panoramas, PanoramaRays,
    ::testing::Values(PanoramaCase{"NoPad12x6", 12, 6, 0, {0, 0, -1}},
                      PanoramaCase{"OddPad3_13x7", 13, 7, 3, {1, 0.5f, 1}},
                      PanoramaCase{"Pad2_9x5PitchedDown", 9, 5, 2, {-1, -2, 0.3f}}),
    [](const ::testing::TestParamInfo<PanoramaCase>& i) { return i.param.name; });

// ---- The camera kernel with a fixed sub-pixel offset -------------------------------

// A scene with nothing in it: records the first ray of the camera path.
struct RecordingTracer {
    mutable float3 origin{}, dir{};
    mutable int rays = 0;
    KernelHit opaque(float3 o, float3 d, float) const {
        if (rays++ == 0) {
            origin = o;
            dir = d;
        }
        return KernelHit{};
    }
    KernelHit aux(float3, float3, float) const { return KernelHit{}; }
    KernelHit glass(float3, float3, float, float) const { return KernelHit{}; }
    bool opaqueOccluded(float3, float3, float) const { return false; }
};

// The ray the camera kernel makes for pixel (x, row) at one sample index.
float3 kernelRay(GPUUniforms u, uint32_t x, uint32_t row, uint32_t sampleIndex) {
    const float4 skyTexel{0.25f, 0.5f, 1.0f, 0.0f};
    SceneData scene;
    scene.sky = &skyTexel;
    u.counts = uint4{0, 0, 1, 1};
    u.flags.x &= FLAG_EQUIRECT; // nothing but the projection
    u.dims.z = sampleIndex;
    std::vector<float4> accum(size_t(u.dims.x * u.dims.y)), guideA(accum.size()), guideB(accum.size());
    FrameSums sums;
    sums.accum = accum.data();
    sums.guideA = guideA.data();
    sums.guideB = guideB.data();
    RecordingTracer tracer;
    KernelTextures textures;
    pathTracePixel<false>(KernelContext<RecordingTracer>{u, scene, tracer, textures}, sums, x, row);
    EXPECT_EQ(tracer.rays, 1);
    EXPECT_EQ(tracer.origin, xyz(u.camPos));
    return tracer.dir;
}

TEST(FixedOffset, EverySampleStartsAtTheSameSubPixelPosition) {
    const int W = 7, H = 5;
    const CameraDef cam = camera({1, 2, 3}, {2, 2.5f, 1}, 65);
    Renderer r(smallSettings(W, H, 1), nullptr);
    r.setCamera(cam);
    r.resize(W, H);
    GPUUniforms u = r.updateUniforms();
    const PinholeModel model(cam, W, H);
    struct Offset {
        float x, y;
    };
    for (Offset off : {Offset{0, 0}, Offset{0.25f, -0.4f}, Offset{-0.5f, 0.5f}}) {
        u.params2 = float4{off.x, off.y, 1.0f, 0.0f};
        for (uint32_t py : {0u, 2u, 4u})
            for (uint32_t px : {0u, 3u, 6u}) {
                const float3 first = kernelRay(u, px, py, 0);
                for (uint32_t sample : {1u, 2u, 17u})
                    EXPECT_EQ(kernelRay(u, px, py, sample), first) << "the fixed offset ignores the random jitter";
                ImagePoint p = model.project(vec(first));
                EXPECT_NEAR(p.x, px + 0.5 + off.x, kPixelSlack) << "pixel " << px << ", " << py;
                EXPECT_NEAR(p.y, py + 0.5 + off.y, kPixelSlack) << "pixel " << px << ", " << py;
            }
    }
}

TEST(FixedOffset, PanoramaCentreColumnLooksForwardAndTopRowUp) {
    const int W = 10, H = 6, pad = 1;
    const CameraDef cam = camera({0, 1, 0}, {3, 2, -4}, 70);
    RenderSettings s = smallSettings(W, H, 1);
    s.projection = Projection::equirect;
    Renderer r(s, nullptr);
    r.setCamera(cam);
    r.resize(W, H);
    r.setEquirectPad(pad);
    GPUUniforms u = r.updateUniforms();
    const PanoramaModel model(cam, W, H, pad);
    // Offset (-0.5, -0.5) puts the sample on the pixel's top-left corner.
    u.params2.x = -0.5f;
    u.params2.y = -0.5f;
    u.params2.z = 1.0f;
    for (uint32_t py = 0; py < uint32_t(H); ++py)
        for (uint32_t px = 0; px < uint32_t(W); ++px)
            EXPECT_TRUE(model.near(vec(kernelRay(u, px, py, 3)), px, py, kPixelSlack)) << px << ", " << py;
    // The corner of column W/2 is longitude 0, on the levelled forward vector;
    // the top edge is straight up.
    const float3 fwd = kernelRay(u, W / 2, H / 2, 0);
    EXPECT_NEAR(fwd.x, 0.6f, 1e-5f);
    EXPECT_NEAR(fwd.y, 0.0f, 1e-5f);
    EXPECT_NEAR(fwd.z, -0.8f, 1e-5f);
    EXPECT_NEAR(kernelRay(u, 2, 0, 0).y, 1.0f, 1e-6f);
}

} // namespace
} // namespace qv
