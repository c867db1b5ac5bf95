// Inputs kept from fuzzing (and the fuzzer's seeds): each must load or fail
// with a loader error, and a model that loads must keep its invariants.
#include "GLBTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace qv::test {
namespace {

void expectInvariants(const LoadedModel& m) {
    ASSERT_EQ(m.normals.size(), m.positions.size());
    ASSERT_EQ(m.uvs.size(), m.positions.size());
    ASSERT_EQ(m.indices.size() % 3, 0u);
    ASSERT_EQ(m.triMaterial.size() * 3, m.indices.size());
    ASSERT_EQ(m.triRole.size() * 3, m.indices.size());
    for (uint32_t i : m.indices) ASSERT_LT(i, m.positions.size());
    for (uint32_t t : m.triMaterial) ASSERT_LT(t, m.materials.size());
    for (uint16_t r : m.triRole) ASSERT_LT(r, m.roleNames.size());
    ASSERT_FALSE(m.materials.empty());
}

TEST(GLBRegression, KeptInputsLoadOrFailCleanly) {
    const std::filesystem::path dir = std::filesystem::path(QV_TEST_DATA_DIR) / "glb";
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    ASSERT_FALSE(files.empty());
    for (const auto& path : files) {
        SCOPED_TRACE(path.filename().string());
        try {
            const LoadedModel m = GLBLoader::load(path.string(), [](std::string_view) {});
            expectInvariants(m);
        } catch (const GLBError&) {
        } catch (const GLBJSONError&) {
        }
    }
}

TEST(GLBRegression, ManyInstancesOfASmallMeshLoadInFull) {
    // Each of 14 levels draws the one-triangle mesh and lists the next level
    // twice: 2^14 - 1 instances. (Once made the loader copy its arrays per instance.)
    GLBWriter w;
    const int mesh = addTriangles(w, unitTriangle());
    for (int i = 0; i < 14; ++i) {
        nlohmann::json node = {{"mesh", mesh}, {"translation", {0, 0, 1}}};
        if (i + 1 < 14) node["children"] = {i + 1, i + 1};
        w.addNode(node);
    }
    w.setScene({0});
    const LoadedModel m = loadWritten(w).model;
    EXPECT_EQ(m.triangleCount(), size_t((1 << 14) - 1));
    EXPECT_EQ(m.boundsMax.z, 14.0f);
    expectInvariants(m);
}

} // namespace
} // namespace qv::test
