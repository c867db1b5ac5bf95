#include "image/AtrousDenoiser.h"
#include "image/AtrousPassCPU.h"
#include "image/AtrousRestoreCPU.h"

#include "image/SyntheticScene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>

namespace qv {
namespace {

struct Errors {
    double all = 0, edges = 0, flat = 0;
};

// Mean squared error (summed over rgb) of an image against the reference,
// over all pixels, pixels within 1 pixel of an albedo/normal edge, and the rest.
template <class Get>
Errors meanSquaredError(const test::SyntheticScene& scene, const std::vector<float3>& ref, Get get) {
    Errors e;
    size_t nEdge = 0, nFlat = 0;
    for (uint32_t y = 0; y < scene.height; ++y)
        for (uint32_t x = 0; x < scene.width; ++x) {
            size_t i = size_t(y) * scene.width + x;
            float3 d = get(i) - ref[i];
            double se = double(dot(d, d));
            e.all += se;
            if (scene.nearEdge(x, y, 1)) {
                e.edges += se;
                ++nEdge;
            } else {
                e.flat += se;
                ++nFlat;
            }
        }
    e.all /= double(scene.width * scene.height);
    e.edges /= double(nEdge);
    e.flat /= double(nFlat);
    return e;
}

// Runs a per-pixel kernel over every pixel of a w x h image.
template <class Kernel>
void eachPixel(uint32_t w, uint32_t h, Kernel kernel) {
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) kernel(x, y);
}

TEST(AtrousDenoiser, ReducesErrorFourfoldAndKeepsEdges) {
    test::SyntheticScene scene{160, 96};
    std::vector<float3> ref = scene.reference();
    test::SampledFrame f = test::sampleScene(scene, 16, 1234);
    AtrousDenoiser dn{AtrousSettings{}};
    ASSERT_TRUE(dn.denoise(f.accum.data(), f.guideA.data(), f.guideB.data(), scene.width, scene.height, 16));
    Errors noisy = meanSquaredError(scene, ref, [&](size_t i) { return xyz(f.accum[i]) / f.accum[i].w; });
    Errors den = meanSquaredError(scene, ref, [&](size_t i) { return xyz(dn.output()[i]); });
    // A plain 5 x 5 box blur of the noisy image: what losing the edges costs.
    auto blurred = [&](size_t i) {
        int x = int(i % scene.width), y = int(i / scene.width);
        float3 s{};
        float n = 0;
        for (int dy = -2; dy <= 2; ++dy)
            for (int dx = -2; dx <= 2; ++dx) {
                int qx = x + dx, qy = y + dy;
                if (qx < 0 || qy < 0 || qx >= int(scene.width) || qy >= int(scene.height)) continue;
                const float4& a = f.accum[size_t(qy) * scene.width + size_t(qx)];
                s += xyz(a) / a.w;
                n += 1;
            }
        return s / n;
    };
    Errors blur = meanSquaredError(scene, ref, blurred);
    std::printf("MSE noisy %.3f denoised %.3f (edges %.3f -> %.3f, blur %.3f; flat %.3f -> %.3f)\n", noisy.all,
                den.all, noisy.edges, den.edges, blur.edges, noisy.flat, den.flat);
    EXPECT_LT(den.all * 4, noisy.all);
    // Near discontinuities the filter must not blur across: less error than the
    // raw image there, and far less than an edge-blind blur.
    EXPECT_LT(den.edges, noisy.edges);
    EXPECT_LT(den.edges * 4, blur.edges);
}

TEST(AtrousDenoiser, UniformNoiselessImagePassesUnchanged) {
    const uint32_t W = 24, H = 16, n = 8;
    std::vector<float4> accum(W * H, float4{0.6f * n, 0.5f * n, 0.4f * n, float(n)});
    std::vector<float4> guideA(W * H, float4{0.5f * n, 0.5f * n, 0.5f * n, 3.0f * n});
    float lum = 0.2126f * 0.6f + 0.7152f * 0.5f + 0.0722f * 0.4f;
    std::vector<float4> guideB(W * H, float4{0, 0, float(n), lum * lum * n});
    AtrousDenoiser dn{AtrousSettings{}};
    ASSERT_TRUE(dn.denoise(accum.data(), guideA.data(), guideB.data(), W, H, n));
    const float3 expected{0.6f, 0.5f, 0.4f};
    for (size_t i = 0; i < W * H; ++i) {
        for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(xyz(dn.output()[i])[ch], expected[ch], 1e-5f) << i;
        EXPECT_EQ(dn.output()[i].w, 1.0f);
    }
}

TEST(AtrousDenoiser, PixelWithoutSamplesKeepsTheFilteredValue) {
    test::SyntheticScene scene{32, 24};
    test::SampledFrame f = test::sampleScene(scene, 8, 5);
    const size_t hole = 10 * 32 + 5;
    f.accum[hole] = f.guideA[hole] = f.guideB[hole] = float4{};
    AtrousDenoiser filtered{AtrousSettings::fromValues(nullptr, nullptr, nullptr, "0")};
    AtrousDenoiser restored{AtrousSettings{}};
    ASSERT_TRUE(filtered.denoise(f.accum.data(), f.guideA.data(), f.guideB.data(), 32, 24, 8));
    ASSERT_TRUE(restored.denoise(f.accum.data(), f.guideA.data(), f.guideB.data(), 32, 24, 8));
    EXPECT_EQ(restored.output()[hole].x, filtered.output()[hole].x);
    EXPECT_EQ(restored.output()[hole].y, filtered.output()[hole].y);
    EXPECT_TRUE(std::isfinite(restored.output()[hole].x));
}

TEST(AtrousDenoiser, VectorisedPassMatchesTheReferenceKernel) {
    test::SyntheticScene scene{45, 29}; // odd sizes exercise the partial vectors
    test::SampledFrame f = test::sampleScene(scene, 4, 77);
    const uint32_t W = scene.width, H = scene.height;
    size_t count = size_t(W) * H;
    const float4 settings[][2] = {
        {float4{4, 64, 0.02f, 0.03f}, float4{0.5f, 0.05f, 2, 0}}, // defaults
        {float4{4, 64, 0.02f, 0.0f}, float4{0.5f, 0.0f, 2, 0}},   // coherence and chroma stops off
        {float4{4, 10, 0.02f, 0.03f}, float4{0.5f, 0.05f, 2, 0}}, // a normal power that is no power of two
    };
    for (const auto& s : settings) {
        std::vector<float4> colour(count), noise(count), guide(count), albedo(count);
        GPUDenoiseParams P{uint4{W, H, 1, 0}, s[0], s[1]};
        eachPixel(W, H, [&](uint32_t x, uint32_t y) {
            denoisePrep(f.accum.data(), f.guideA.data(), f.guideB.data(), colour.data(), noise.data(), guide.data(),
                        albedo.data(), P, x, y);
        });
        AtrousGuidePlanes gp;
        gp.build(guide.data(), W, H, s[0].y);
        AtrousColourPlanes cp;
        for (uint32_t i = 0; i < 3; ++i) {
            P.dims.z = 1u << i;
            P.dims.w = i;
            std::vector<float4> ref(count), fast(count), noiseRef = noise, noiseFast = noise;
            eachPixel(W, H, [&](uint32_t x, uint32_t y) {
                denoiseAtrous(colour.data(), ref.data(), guide.data(), noiseRef.data(), P, x, y);
            });
            atrousPassCPU(colour.data(), fast.data(), gp, cp, noiseFast.data(), P);
            for (size_t j = 0; j < count; ++j) {
                float tol = 2e-5f * (std::fabs(ref[j].x) + 1e-3f);
                ASSERT_NEAR(fast[j].x, ref[j].x, tol) << "pass " << i << " pixel " << j;
                ASSERT_NEAR(fast[j].w, ref[j].w, 2e-5f * (std::fabs(ref[j].w) + 1e-6f)) << "pass " << i;
                float pvRef = (i & 1) ? noiseRef[j].x : noiseRef[j].y;
                float pvFast = (i & 1) ? noiseFast[j].x : noiseFast[j].y;
                ASSERT_NEAR(pvFast, pvRef, 2e-5f * (std::fabs(pvRef) + 1e-6f)) << "pass " << i;
            }
            colour = ref;
            noise = noiseRef;
        }
    }
}

TEST(AtrousDenoiser, VectorisedRestoreMatchesTheReferenceKernel) {
    test::SyntheticScene scene{45, 29}; // odd sizes exercise the partial vectors and the clamped border
    test::SampledFrame f = test::sampleScene(scene, 8, 91);
    const uint32_t W = scene.width, H = scene.height;
    const size_t count = size_t(W) * H;
    const size_t hole = 7 * W + 44; // a pixel without samples on the right border
    f.accum[hole] = f.guideA[hole] = f.guideB[hole] = float4{};
    AtrousDenoiser dn{AtrousSettings::fromValues(nullptr, nullptr, nullptr, "0")};
    ASSERT_TRUE(dn.denoise(f.accum.data(), f.guideA.data(), f.guideB.data(), W, H, 8));
    // Residual and per-channel noise as the restore sees them, crease-corrected.
    std::vector<float4> colour(count), noise(count), guide(count), albedo(count), resid(count), creased(count);
    GPUDenoiseParams P{uint4{W, H, 1, 0}, dn.settings().sigmas, dn.settings().chroma};
    eachPixel(W, H, [&](uint32_t x, uint32_t y) {
        denoisePrep(f.accum.data(), f.guideA.data(), f.guideB.data(), colour.data(), noise.data(), guide.data(),
                    albedo.data(), P, x, y);
    });
    eachPixel(W, H, [&](uint32_t x, uint32_t y) {
        denoiseResid(f.accum.data(), f.guideB.data(), dn.output(), albedo.data(), resid.data(), noise.data(), P, x, y);
    });
    eachPixel(W, H, [&](uint32_t x, uint32_t y) {
        denoiseCrease(resid.data(), noise.data(), guide.data(), creased.data(), dn.settings().crease, P, x, y);
    });
    AtrousRestorePlanes planes;
    for (float k : {2.0f, 4.0f, 0.5f}) {
        std::vector<float4> ref(count), fast(count);
        const float4 C{k, 0, 0, 0};
        eachPixel(W, H, [&](uint32_t x, uint32_t y) {
            denoiseRestore2(f.accum.data(), creased.data(), noise.data(), ref.data(), C, P, x, y);
        });
        restoreCPU(f.accum.data(), creased.data(), noise.data(), fast.data(), k, W, H, planes);
        int restored = 0;
        for (size_t j = 0; j < count; ++j) {
            // The output is x - (1 - wmax) R: the share wmax is what may differ by rounding.
            const float3 R = xyz(creased[j]);
            for (int ch = 0; ch < 3; ++ch)
                ASSERT_NEAR(xyz(fast[j])[ch], xyz(ref[j])[ch], 1e-5f * (std::fabs(xyz(ref[j])[ch]) + std::fabs(R[ch])))
                    << "k " << k << " pixel " << j << " channel " << ch;
            ASSERT_EQ(fast[j].w, 1.0f);
            float3 x = xyz(f.accum[j]) / std::max(f.accum[j].w, 1.0f);
            if (f.accum[j].w > 0 && dot(xyz(ref[j]) - x, xyz(ref[j]) - x) < 1e-6f * dot(x, x)) ++restored;
        }
        EXPECT_EQ(fast[hole].x, dn.output()[hole].x) << "a pixel without samples keeps the filtered value";
        EXPECT_TRUE(k != 0.5f || restored > 0) << "a weak threshold puts some pixels fully back";
    }
}

// The whole denoise against the per-pixel kernels run in the documented order:
// prep, five passes (A to B first), finish, residual, crease, restore.
TEST(AtrousDenoiser, MatchesThePerPixelKernelChain) {
    test::SyntheticScene scene{53, 37};
    test::SampledFrame f = test::sampleScene(scene, 8, 2024);
    const uint32_t W = scene.width, H = scene.height;
    const size_t count = size_t(W) * H;
    AtrousDenoiser dn{AtrousSettings{}};
    ASSERT_TRUE(dn.denoise(f.accum.data(), f.guideA.data(), f.guideB.data(), W, H, 8));

    const AtrousSettings& s = dn.settings();
    std::vector<float4> a(count), b(count), noise(count), guide(count), albedo(count), out(count), creased(count);
    auto each = [&](auto kernel) { eachPixel(W, H, kernel); };
    GPUDenoiseParams P{uint4{W, H, 1, 0}, s.sigmas, s.chroma};
    each([&](uint32_t x, uint32_t y) {
        denoisePrep(f.accum.data(), f.guideA.data(), f.guideB.data(), a.data(), noise.data(), guide.data(),
                    albedo.data(), P, x, y);
    });
    for (uint32_t i = 0; i < uint32_t(ATROUS_PASSES); ++i) {
        GPUDenoiseParams Pi{uint4{W, H, 1u << i, i}, s.sigmas, s.chroma};
        const std::vector<float4>& src = (i & 1) ? b : a;
        std::vector<float4>& dst = (i & 1) ? a : b;
        each([&](uint32_t x, uint32_t y) { denoiseAtrous(src.data(), dst.data(), guide.data(), noise.data(), Pi, x, y); });
    }
    each([&](uint32_t x, uint32_t y) { denoiseFinish(b.data(), albedo.data(), out.data(), P, x, y); });
    each([&](uint32_t x, uint32_t y) {
        denoiseResid(f.accum.data(), f.guideB.data(), out.data(), albedo.data(), a.data(), noise.data(), P, x, y);
    });
    each([&](uint32_t x, uint32_t y) { denoiseCrease(a.data(), noise.data(), guide.data(), creased.data(), s.crease, P, x, y); });
    const float4 C{s.restoreStrength(), 0, 0, 0};
    each([&](uint32_t x, uint32_t y) { denoiseRestore2(f.accum.data(), creased.data(), noise.data(), out.data(), C, P, x, y); });

    double worst = 0;
    for (size_t j = 0; j < count; ++j)
        for (int ch = 0; ch < 3; ++ch) {
            const float ref = xyz(out[j])[ch], fast = xyz(dn.output()[j])[ch];
            worst = std::max(worst, double(std::fabs(fast - ref)) / (std::fabs(ref) + 1e-3));
        }
    std::printf("largest relative difference from the kernel chain: %.3g\n", worst);
    EXPECT_LT(worst, 1e-5); // float rounding through five passes and the restore
}

TEST(AtrousSettings, SwitchValues) {
    AtrousSettings d = AtrousSettings::fromValues(nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(std::make_tuple(d.sigmas.x, d.sigmas.w, d.restoreEnabled(), d.restoreStrength()),
              std::make_tuple(4.0f, 0.03f, true, 2.0f));
    AtrousSettings three = AtrousSettings::fromValues("8,64,0.02", nullptr, nullptr, nullptr);
    EXPECT_EQ(std::tie(three.sigmas.x, three.sigmas.w), std::make_tuple(8.0f, 0.03f));
    // Lists of the wrong length and an unreadable strength keep their defaults.
    AtrousSettings two = AtrousSettings::fromValues("8,64", "1,2", "1,2,3,4", "x");
    EXPECT_EQ(std::tie(two.sigmas.x, two.chroma.x, two.crease.x), std::make_tuple(4.0f, 0.5f, 0.98f));
    EXPECT_FALSE(two.restoreK.has_value());
    AtrousSettings set = AtrousSettings::fromValues("1,2,3,0", "0.1,0,3", "0.9,0.1,5", "0");
    EXPECT_EQ(std::tie(set.sigmas.w, set.chroma.y, set.crease.z), std::make_tuple(0.0f, 0.0f, 5.0f));
    EXPECT_FALSE(set.restoreEnabled());
    EXPECT_TRUE(AtrousSettings::fromValues(nullptr, nullptr, nullptr, "3").restoreEnabled());
}

} // namespace
} // namespace qv
