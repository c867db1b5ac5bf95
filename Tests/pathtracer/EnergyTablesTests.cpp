// The GGX energy tables against an independent quadrature of the
// single-scatter GGX albedo, and the average table against its definition.
#include "pathtracer/EnergyTables.h"
#include "shaders/BSDF.h"
#include "shaders/Records.h"

#include <gtest/gtest.h>

#include <cmath>

namespace qv {
namespace {

const EnergyTables& tables() {
    static const EnergyTables t = buildEnergyTables();
    return t;
}

// (T1, T2) by brute-force integration over the hemisphere of light
// directions: the GGX reflectance D G / (4 v.z l.z) times l.z, split into the
// parts that multiply F0 (1 - fc) and 1 (fc), fc = (1 - v.h)^5.
float2 quadratureAlbedo(float mu, float rough) {
    const double alpha = double(rough) * rough, a2 = alpha * alpha;
    const float3 v{std::sqrt(1 - mu * mu), 0, mu};
    const int nc = 300, np = 300;
    double T1 = 0, T2 = 0;
    for (int i = 0; i < nc; ++i) {
        double c = (i + 0.5) / nc, s = std::sqrt(1 - c * c);
        for (int j = 0; j < np; ++j) {
            double phi = (j + 0.5) / np * 2 * M_PI;
            float3 l{float(s * std::cos(phi)), float(s * std::sin(phi)), float(c)};
            float3 h = normalize(v + l);
            double D = D_GGX(h.z, float(a2));
            double G = double(G1_GGX(v.z, float(a2))) * G1_GGX(l.z, float(a2));
            double m = std::fmax(0.0, 1 - double(dot(v, h)));
            double fc = m * m * m * m * m;
            double f = D * G / (4 * v.z); // times l.z / l.z
            T1 += f * (1 - fc);
            T2 += f * fc;
        }
    }
    double dOmega = (1.0 / nc) * (2 * M_PI / np);
    return float2{float(T1 * dOmega), float(T2 * dOmega)};
}

TEST(EnergyTables, CellsAreTheSingleScatterGGXAlbedo) {
    const EnergyTables& t = tables();
    ASSERT_EQ(t.dfg.size(), size_t(DFG_N * DFG_N));
    for (int row : {12, 20, 31})
        for (int col : {31, 15, 5}) {
            float2 q = quadratureAlbedo(col / 31.0f, row / 31.0f);
            float2 e = t.dfg[size_t(row) * DFG_N + col];
            EXPECT_NEAR(e.x, q.x, 3e-3f) << "row " << row << " col " << col;
            EXPECT_NEAR(e.y, q.y, 3e-3f) << "row " << row << " col " << col;
        }
}

TEST(EnergyTables, AverageIsTheCosineWeightedMeanOfTheCompensatedAlbedo) {
    // For a metal with F0 = 1 the compensated albedo is 1 at every angle, so
    // its average x + y + z must be 1 (up to the trapezoid rule's end effects).
    const EnergyTables& t = tables();
    ASSERT_EQ(t.dfgAvg.size(), size_t(DFG_N));
    for (int r = 0; r < DFG_N; ++r) {
        float4 a = t.dfgAvg[size_t(r)];
        // 2 mu integrated by the trapezoid rule on 32 nodes is exactly 1.
        EXPECT_NEAR(a.x + a.y + a.z, 1.0f, 1e-4f) << r;
        EXPECT_EQ(a.w, 0.0f);
        // A dielectric's average specular albedo lies between 0 and 1.
        float EsAvg = a.x + 0.04f * a.y + 0.0016f * a.z;
        EXPECT_GT(EsAvg, 0.0f);
        EXPECT_LT(EsAvg, 1.0f);
    }
}

TEST(EnergyTables, LookupsClampOutOfRangeArguments) {
    const EnergyTables& t = tables();
    float2 in = dfgLookup(t.dfg.data(), 1.0f, 1.0f), out = dfgLookup(t.dfg.data(), 1.7f, 3.0f);
    EXPECT_EQ(in.x, out.x);
    EXPECT_EQ(in.y, out.y);
    float2 lo = dfgLookup(t.dfg.data(), -0.5f, -1.0f), corner = t.dfg[0];
    EXPECT_EQ(lo.x, corner.x);
    float3 avg = dfgAvgLookup(t.dfgAvg.data(), 2.0f);
    EXPECT_EQ(avg.x, t.dfgAvg[DFG_N - 1].x);
}

} // namespace
} // namespace qv
