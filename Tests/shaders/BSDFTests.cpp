// Physics tests of the scattering functions: sampling agrees with the density
// (chi-square), value and density agree between sample and eval, reciprocity,
// the white furnace, and the Fresnel split of thin glass.
#include "ChiSquareHarness.h"

#include "pathtracer/EnergyTables.h"
#include "shaders/BSDF.h"
#include "shaders/KernelHelpers.h"
#include "shaders/Random.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace qv {
namespace {

const EnergyTables& tables() {
    static const EnergyTables t = buildEnergyTables();
    return t;
}

float3 viewAt(float mu) { return float3{std::sqrt(std::fmax(0.0f, 1 - mu * mu)), 0.0f, mu}; }

float3 rnd3(uint32_t& seed) {
    float a = rnd(seed), b = rnd(seed);
    return float3{a, b, rnd(seed)};
}

struct Material {
    float3 base;
    float metallic;
    float rough;
};

std::string describe(const Material& m, float mu) {
    return "base (" + std::to_string(m.base.x) + ", " + std::to_string(m.base.y) + ", " + std::to_string(m.base.z) +
           ") metallic " + std::to_string(m.metallic) + " rough " + std::to_string(m.rough) + " mu " +
           std::to_string(mu);
}

class OpaqueSampler : public test::DirectionSampler {
public:
    OpaqueSampler(const Material& m, float mu)
        : m_(m), mu_(mu), v_(viewAt(mu)),
          b_(makeBSDF(tables().dfg.data(), tables().dfgAvg.data(), m.base, m.metallic, m.rough, mu)) {}
    test::DirSample sample(uint32_t& seed) const override {
        BSDFSample s = bsdfSample(b_, v_, rnd3(seed));
        if (!isValid(s)) return {};
        // The sample's value must be the evaluation's value.
        BSDFEval e = bsdfEval(b_, v_, s.l);
        EXPECT_NEAR(s.f.x, e.f.x, 1e-5f * std::fmax(1.0f, e.f.x));
        return {s.l, s.pdf};
    }
    double pdf(float3 d) const override { return bsdfEval(b_, v_, d).pdf; }
    std::string name() const override { return "opaque " + describe(m_, mu_); }

private:
    Material m_;
    float mu_;
    float3 v_;
    BSDF b_;
};

class FrostedSampler : public test::DirectionSampler {
public:
    FrostedSampler(float rough, float eta, float mu) : rough_(rough), eta_(eta), mu_(mu), v_(viewAt(mu)) {}
    test::DirSample sample(uint32_t& seed) const override {
        BSDFSample s = frostedSample(v_, frostedAlpha(rough_), eta_, tint_, rnd3(seed));
        if (!isValid(s)) return {};
        BSDFEval e = frostedEval(v_, s.l, frostedAlpha(rough_), eta_, tint_);
        EXPECT_NEAR(s.f.y, e.f.y, 1e-4f * std::fmax(1.0f, e.f.y));
        // The weight is f |cos| / pdf.
        EXPECT_NEAR(s.weight.y, s.f.y * std::fabs(s.l.z) / s.pdf, 1e-4f * std::fmax(1.0f, s.weight.y));
        return {s.l, s.pdf};
    }
    double pdf(float3 d) const override { return frostedEval(v_, d, frostedAlpha(rough_), eta_, tint_).pdf; }
    std::string name() const override {
        return "frosted rough " + std::to_string(rough_) + " eta " + std::to_string(eta_) + " mu " + std::to_string(mu_);
    }

private:
    float rough_, eta_, mu_;
    float3 v_;
    float3 tint_{0.9f, 0.8f, 0.7f};
};

// Bonferroni: the family of chi-square tests in this file shares a 1% level.
constexpr double kFamilyAlpha = 0.01;

void expectSamplerMatchesDensity(const test::DirectionSampler& s, int tests, uint32_t seed) {
    test::ChiSquareResult r = test::chiSquareTest(s, seed, 30000, 16, 32, 12);
    SCOPED_TRACE(s.name());
    EXPECT_GT(r.pValue, kFamilyAlpha / tests) << "chi2 " << r.statistic << " dof " << r.dof;
    EXPECT_LT(r.worstPdfMismatch, 1e-3);
    // The density integrates to the probability that a sample succeeds.
    EXPECT_NEAR(r.pdfMass, 1.0 - r.failedFraction, 0.01);
}

TEST(BSDFSampling, OpaqueSamplesFollowTheMixtureDensity) {
    const std::vector<Material> mats = {
        {{0.8f, 0.8f, 0.8f}, 0.0f, 0.5f}, {{0.8f, 0.2f, 0.1f}, 0.0f, 0.3f}, {{0.9f, 0.6f, 0.3f}, 1.0f, 0.4f},
        {{0.5f, 0.5f, 0.5f}, 0.5f, 0.8f}, {{1.0f, 1.0f, 1.0f}, 0.0f, 1.0f}, {{0.05f, 0.05f, 0.05f}, 0.0f, 0.35f}};
    const std::vector<float> mus = {0.95f, 0.6f, 0.25f};
    int tests = int(mats.size() * mus.size());
    uint32_t seed = 17;
    for (const Material& m : mats)
        for (float mu : mus) expectSamplerMatchesDensity(OpaqueSampler(m, mu), tests, seed++);
}

TEST(BSDFSampling, FrostedSamplesFollowTheirDensity) {
    const std::vector<float> roughs = {0.4f, 0.7f, 1.0f};
    const std::vector<float> mus = {0.9f, 0.5f, 0.2f};
    int tests = int(roughs.size() * mus.size());
    uint32_t seed = 101;
    for (float r : roughs)
        for (float mu : mus) expectSamplerMatchesDensity(FrostedSampler(r, 1.5f, mu), tests, seed++);
}

TEST(BSDFSampling, MixturePdfIncludesBothLobesAndMetalsSampleOnlySpecular) {
    const EnergyTables& t = tables();
    // A metal has no diffuse lobe and always samples the specular one.
    BSDF metal = makeBSDF(t.dfg.data(), t.dfgAvg.data(), {0.9f, 0.7f, 0.4f}, 1.0f, 0.5f, 0.7f);
    EXPECT_EQ(metal.diffuse, float3{});
    EXPECT_EQ(metal.pSpec, 1.0f);
    // A dielectric's specular sample reports the density of the whole mixture.
    BSDF plastic = makeBSDF(t.dfg.data(), t.dfgAvg.data(), {0.5f, 0.5f, 0.5f}, 0.0f, 0.5f, 0.7f);
    EXPECT_GE(plastic.pSpec, 0.1f);
    EXPECT_LE(plastic.pSpec, 0.9f);
    float3 v = viewAt(0.7f);
    BSDFSample s = bsdfSample(plastic, v, {0.0f, 0.3f, 0.6f});
    ASSERT_TRUE(isValid(s));
    EXPECT_EQ(s.lobe, LOBE_SPECULAR);
    float a2 = plastic.alpha * plastic.alpha;
    float3 h = normalize(v + s.l);
    float specOnly = plastic.pSpec * G1_GGX(v.z, a2) * D_GGX(h.z, a2) / (4 * v.z);
    EXPECT_NEAR(s.pdf, specOnly + (1 - plastic.pSpec) * s.l.z / PI, 1e-4f * s.pdf);
    // Directions below the surface have no value and no density.
    BSDFEval below = bsdfEval(plastic, v, {0.3f, 0.0f, -0.9f});
    EXPECT_EQ(below.pdf, 0.0f);
    EXPECT_EQ(below.f, float3{});
}

TEST(BSDFReciprocity, LobesAreSymmetricInTheirDirections) {
    // The coupled diffuse lobe and the single-scatter specular lobe are
    // reciprocal; the multiple-scattering factor is evaluated at the outgoing
    // cosine, so the specular lobe is compared with that factor divided out.
    const EnergyTables& t = tables();
    const std::vector<Material> mats = {{{0.8f, 0.8f, 0.8f}, 0.0f, 0.2f},
                                        {{0.7f, 0.3f, 0.2f}, 0.3f, 0.6f},
                                        {{0.9f, 0.9f, 0.9f}, 1.0f, 0.9f},
                                        {{0.2f, 0.5f, 0.9f}, 0.0f, 1.0f}};
    uint32_t seed = 7;
    for (const Material& m : mats) {
        for (int i = 0; i < 200; ++i) {
            float3 a = normalize(float3{rnd(seed) * 2 - 1, rnd(seed) * 2 - 1, rnd(seed) + 0.05f});
            float3 b = normalize(float3{rnd(seed) * 2 - 1, rnd(seed) * 2 - 1, rnd(seed) + 0.05f});
            BSDF ba = makeBSDF(t.dfg.data(), t.dfgAvg.data(), m.base, m.metallic, m.rough, a.z);
            BSDF bb = makeBSDF(t.dfg.data(), t.dfgAvg.data(), m.base, m.metallic, m.rough, b.z);
            BSDFLobes fab = bsdfEvalLobes(ba, a, b), fba = bsdfEvalLobes(bb, b, a);
            SCOPED_TRACE(describe(m, a.z));
            EXPECT_NEAR(fab.diffuse.x, fba.diffuse.x, 1e-5f + 1e-4f * fab.diffuse.x);
            EXPECT_NEAR(fab.diffuse.z, fba.diffuse.z, 1e-5f + 1e-4f * fab.diffuse.z);
            float sab = fab.specular.y / ba.msScale.y, sba = fba.specular.y / bb.msScale.y;
            EXPECT_NEAR(sab, sba, 1e-5f + 1e-3f * sab);
        }
    }
}

TEST(BSDFReciprocity, FrostedPaneIsReciprocalInReflectionAndTransmission) {
    uint32_t seed = 11;
    const float3 tint{0.9f, 0.8f, 0.7f};
    for (float rough : {0.2f, 0.5f, 1.0f}) {
        float alpha = frostedAlpha(rough);
        for (int i = 0; i < 200; ++i) {
            float3 v = normalize(float3{rnd(seed) * 2 - 1, rnd(seed) * 2 - 1, rnd(seed) + 0.05f});
            float3 l = normalize(float3{rnd(seed) * 2 - 1, rnd(seed) * 2 - 1, rnd(seed) * 2 - 1});
            if (std::fabs(l.z) < 0.05f) continue;
            BSDFEval f = frostedEval(v, l, alpha, 1.5f, tint);
            // Reversed path: reflection swaps v and l; transmission views from
            // the other face, where both directions' z are negated.
            BSDFEval g = l.z > 0 ? frostedEval(l, v, alpha, 1.5f, tint)
                                 : frostedEval(float3{l.x, l.y, -l.z}, float3{v.x, v.y, -v.z}, alpha, 1.5f, tint);
            EXPECT_NEAR(f.f.x, g.f.x, 1e-5f + 1e-4f * f.f.x) << "rough " << rough << " l.z " << l.z;
        }
    }
}

// Albedo estimate from 16 independent replicas of a stratified sample set
// (4 lobe strata x 16 x 16 direction strata, jittered), so its standard
// error comes from the spread of the replicas.
struct AlbedoEstimate {
    double mean = 0, stdError = 0;
};

AlbedoEstimate estimateAlbedo(const BSDF& b, float3 v, uint32_t seed) {
    const int replicas = 16, lobeStrata = 4, dirStrata = 16;
    double means[replicas], sum = 0;
    for (int r = 0; r < replicas; ++r) {
        double acc = 0;
        for (int k = 0; k < lobeStrata; ++k)
            for (int i = 0; i < dirStrata; ++i)
                for (int j = 0; j < dirStrata; ++j) {
                    float3 u{(k + rnd(seed)) / lobeStrata, (i + rnd(seed)) / dirStrata, (j + rnd(seed)) / dirStrata};
                    BSDFSample s = bsdfSample(b, v, u);
                    if (isValid(s)) acc += luminance(s.weight);
                }
        means[r] = acc / (lobeStrata * dirStrata * dirStrata);
        sum += means[r];
    }
    AlbedoEstimate e;
    e.mean = sum / replicas;
    double var = 0;
    for (double m : means) var += (m - e.mean) * (m - e.mean);
    e.stdError = std::sqrt(var / (replicas - 1) / replicas);
    return e;
}

TEST(BSDFEnergy, WhiteMaterialsReflectAllEnergyAtEveryRoughnessAndAngle) {
    // A white dielectric (coupled diffuse + compensated specular) and a white
    // metal (compensated specular) are meant to reflect exactly all light.
    const EnergyTables& t = tables();
    uint32_t seed = 1234;
    for (float metallic : {0.0f, 1.0f}) {
        for (int ri = 0; ri <= 10; ++ri) {
            float rough = std::fmax(0.03f, ri / 10.0f);
            for (float mu : {0.1f, 0.25f, 0.5f, 0.75f, 1.0f}) {
                BSDF b = makeBSDF(t.dfg.data(), t.dfgAvg.data(), {1, 1, 1}, metallic, rough, mu);
                AlbedoEstimate e = estimateAlbedo(b, viewAt(mu), seed++);
                SCOPED_TRACE(describe({{1, 1, 1}, metallic, rough}, mu));
                EXPECT_NEAR(e.mean, 1.0, 0.01);
                // The estimate must be precise enough for the 1% check to mean something.
                EXPECT_LT(e.stdError, 0.0025);
            }
        }
    }
}

TEST(BSDFEnergy, CompensationRestoresWhatSingleScatterLoses) {
    // The table's albedo of a white metal is the single-scatter GGX albedo:
    // below 1 for rough surfaces, near 1 for smooth ones.
    const EnergyTables& t = tables();
    float2 smooth = dfgLookup(t.dfg.data(), 1.0f, 0.03f), rough = dfgLookup(t.dfg.data(), 0.5f, 1.0f);
    EXPECT_NEAR(smooth.x + smooth.y, 1.0f, 0.01f);
    EXPECT_LT(rough.x + rough.y, 0.8f);
    // A white dielectric's average specular albedo is small but positive.
    float3 av = dfgAvgLookup(t.dfgAvg.data(), 0.5f);
    float EsAvg = av.x + 0.04f * av.y + 0.0016f * av.z;
    EXPECT_GT(EsAvg, 0.02f);
    EXPECT_LT(EsAvg, 0.2f);
}

TEST(Fresnel, DielectricMatchesClosedForms) {
    struct Case {
        float cosi, eta, expected;
    };
    const float brewster = 1.0f / std::sqrt(1.0f + 1.5f * 1.5f); // cos of atan(1.5)
    // At Brewster's angle rp = 0, so R = rs^2 / 2 with rs = (cos i - eta cos t)/(cos i + eta cos t).
    const float cosT = std::sqrt(1 - (1 - brewster * brewster) / 2.25f);
    const float rs = (brewster - 1.5f * cosT) / (brewster + 1.5f * cosT);
    const std::vector<Case> cases = {
        {1.0f, 1.5f, 0.04f},                // ((eta - 1) / (eta + 1))^2
        {1.0f, 1.33f, 0.0200593f},          // water
        {brewster, 1.5f, 0.5f * rs * rs},
        {0.0f, 1.5f, 1.0f},                 // grazing
        {0.5f, 1.0f / 1.5f, 1.0f},          // inside glass beyond the critical angle
        {1.0f, 1.0f, 0.0f},                 // no interface
    };
    for (const Case& c : cases) EXPECT_NEAR(fresnelDielectric(c.cosi, c.eta), c.expected, 1e-5f) << c.cosi;
}

TEST(ThinGlass, ClearPaneReflectsAndTransmitsAsFresnelSays) {
    const float3 tint{0.9f, 0.85f, 0.8f};
    uint32_t seed = 99;
    const int n = 20000;
    for (float mu : {1.0f, 0.7f, 0.4f, 0.15f}) {
        float3 v = viewAt(mu);
        float F = fresnelDielectric(mu, 1.5f);
        int reflected = 0;
        double energy = 0;
        for (int i = 0; i < n; ++i) {
            BSDFSample s = clearGlassSample(v, 1.5f, tint, rnd(seed));
            ASSERT_TRUE(isValid(s));
            if (s.lobe & LOBE_TRANSMISSION) {
                EXPECT_EQ(s.l, -v); // straight through
                EXPECT_EQ(s.weight, tint);
            } else {
                ++reflected;
                EXPECT_NEAR(s.l.x, -v.x, 1e-6f);
                EXPECT_NEAR(s.l.z, v.z, 1e-6f);
            }
            energy += s.weight.x;
        }
        // Binomial: 4 standard deviations.
        double sd = std::sqrt(F * (1 - F) / n);
        EXPECT_NEAR(double(reflected) / n, F, 4 * sd + 1e-9) << "mu " << mu;
        // Expected energy along the path: F + (1 - F) tint.
        EXPECT_NEAR(energy / n, F + (1 - F) * tint.x, 4 * sd * (1 - tint.x) + 1e-6) << "mu " << mu;
        // Shadow rays through the pane carry (1 - F) tint.
        EXPECT_NEAR(clearGlassTransmittance(-mu, 1.5f, tint).y, (1 - F) * tint.y, 1e-6f);
    }
}

TEST(ThinGlass, NearlySmoothFrostedPaneSplitsLikeTheClearPane) {
    // Roughness 0 floors alpha at 0.001: the pane then reflects the Fresnel
    // fraction and sends the rest straight through, conserving energy.
    const float3 white{1, 1, 1};
    uint32_t seed = 5;
    const int n = 20000;
    for (float mu : {0.95f, 0.6f, 0.3f}) {
        float3 v = viewAt(mu);
        float F = fresnelDielectric(mu, 1.5f);
        int reflected = 0, transmitted = 0;
        double energy = 0, straightness = 0;
        for (int i = 0; i < n; ++i) {
            BSDFSample s = frostedSample(v, frostedAlpha(0.0f), 1.5f, white, rnd3(seed));
            if (!isValid(s)) continue;
            if (!(s.lobe & LOBE_TRANSMISSION)) ++reflected;
            else {
                ++transmitted;
                straightness += dot(s.l, -v);
            }
            energy += s.weight.x;
        }
        // Transmission stays within a narrow lobe around the straight-through ray.
        EXPECT_GT(straightness / transmitted, 0.9999) << "mu " << mu;
        double sd = std::sqrt(F * (1 - F) / n);
        EXPECT_NEAR(double(reflected) / n, F, 4 * sd) << "mu " << mu;
        EXPECT_NEAR(energy / n, 1.0, 0.002) << "mu " << mu;
    }
}

TEST(ThinGlass, RoughPaneReturnsTheSingleScatterAlbedo) {
    // A white pane's sample weight is G1 of the outgoing direction whichever
    // way it goes, so it returns the single-scatter GGX albedo with F = 1,
    // T1 + T2 of the energy table (compared on table nodes), never more than 1.
    const EnergyTables& t = tables();
    const float3 white{1, 1, 1};
    uint32_t seed = 8;
    for (int row : {6, 12, 20, 31})
        for (int col : {28, 16, 6}) {
            float rough = row / 31.0f, mu = col / 31.0f;
            float2 te = t.dfg[size_t(row) * DFG_N + col];
            double sum = 0, sum2 = 0;
            const int n = 4000;
            for (int i = 0; i < n; ++i) {
                BSDFSample s = frostedSample(viewAt(mu), frostedAlpha(rough), 1.5f, white, rnd3(seed));
                double w = isValid(s) ? s.weight.x : 0.0;
                EXPECT_LE(w, 1.0 + 1e-6);
                sum += w;
                sum2 += w * w;
            }
            double mean = sum / n, se = std::sqrt(std::fmax(sum2 / n - mean * mean, 0.0) / n);
            EXPECT_NEAR(mean, te.x + te.y, 4 * se + 2e-3) << "rough " << rough << " mu " << mu;
        }
}

} // namespace
} // namespace qv
