// LoadedModel's queries: whether a point is under a roof, and the robust centre.
#include "GLBTestUtil.h"

#include <gtest/gtest.h>

#include <cmath>

namespace qv::test {
namespace {

// A model built directly: triangles given by their corners.
LoadedModel modelOf(const std::vector<float3>& corners) {
    LoadedModel m;
    m.positions = corners;
    m.normals.resize(corners.size());
    m.uvs.resize(corners.size());
    for (uint32_t i = 0; i < corners.size(); ++i) m.indices.push_back(i);
    m.boundsMin = m.boundsMax = corners.empty() ? float3{} : corners[0];
    for (const float3& p : corners) {
        m.boundsMin = min(m.boundsMin, p);
        m.boundsMax = max(m.boundsMax, p);
    }
    return m;
}

TEST(LoadedModelQueries, IsUnderRoof) {
    // A pitched roof over [0,10] x [0,10]: height 3 at z = 0 rising to 5 at z = 10,
    // a floor at y = 0, and a wall (vertical, invisible from above).
    const LoadedModel house = modelOf({
        {0, 3, 0}, {10, 3, 0}, {10, 5, 10}, {0, 3, 0}, {10, 5, 10}, {0, 5, 10},     // roof
        {0, 0, 0}, {10, 0, 0}, {10, 0, 10},                                          // floor triangle
        {20, 0, 0}, {20, 8, 0}, {20, 8, 10},                                         // wall at x = 20
    });
    struct Case {
        const char* name;
        float3 point;
        bool under;
    };
    const Case cases[] = {
        {"room below the roof", {5, 1.5f, 5}, true},
        {"just below the low eave", {1, 2.9f, 0.5f}, true},
        {"within 5 cm of the roof", {5, 3.97f, 5}, false}, // roof height at z = 5 is 4
        {"above the roof", {5, 4.5f, 5}, false},
        {"on the roof corner edge", {0, 1, 0}, true},
        {"under the wall only", {20, 1, 5}, false},
        {"outside the bounds in x", {-0.1f, 1, 5}, false},
        {"outside the bounds in z", {5, 1, 10.5f}, false},
        {"at the top of the bounds", {5, 8, 5}, false},
        {"between the house and the wall", {15, 1, 5}, false},
        {"not finite", {NAN, 1, 5}, false},
    };
    for (const Case& c : cases) EXPECT_EQ(house.isUnderRoof(c.point), c.under) << c.name;
    EXPECT_FALSE(LoadedModel{}.isUnderRoof({0, 0, 0})) << "no triangles";
}

TEST(LoadedModelQueries, RobustCentreIsThePerAxisMedian) {
    // Nine corners clustered near (1, 2, 3) and three far outliers.
    std::vector<float3> corners;
    for (int i = 0; i < 9; ++i) corners.push_back({1.0f + 0.01f * float(i), 2.0f - 0.01f * float(i), 3.0f});
    corners.insert(corners.end(), {{9000, -9000, 5e4f}, {8000, 7000, 5e4f}, {-7000, 9000, 5e4f}});
    const float3 c = modelOf(corners).robustCentre();
    // Sorted x: -7000, 1.00 ... 1.08, 8000, 9000; element 6 of 12 is 1.05.
    EXPECT_FLOAT_EQ(c.x, 1.05f);
    EXPECT_FLOAT_EQ(c.y, 2.0f - 0.01f * 3);
    EXPECT_FLOAT_EQ(c.z, 3.0f);

    const float3 far = modelOf({{5e4f, -5e4f, 0}, {5e4f, -5e4f, 0}, {5e4f, -5e4f, 0}}).robustCentre();
    EXPECT_EQ(far, (float3{10000, -10000, 0})) << "clamped to 10 km";
    EXPECT_EQ(LoadedModel{}.robustCentre(), (float3{}));
}

TEST(LoadedModelQueries, RobustCentreSamplesLargeModels) {
    // 200,000 corners: the step is 3, so corners 0, 3, 6, ... are used. Corner i
    // has x = i, so the median of the sample is the corner at index 3 x 33333.
    std::vector<float3> corners(200001);
    for (size_t i = 0; i < corners.size(); ++i) corners[i] = {float(i) * 0.01f, 0, 0};
    const float3 c = modelOf(corners).robustCentre();
    EXPECT_FLOAT_EQ(c.x, float(3 * 33333) * 0.01f);
}

} // namespace
} // namespace qv::test
