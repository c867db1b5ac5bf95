// What the loader makes of a file's geometry: triangles kept, transforms
// applied, bounds, roles and dropped triangles.
#include "GLBTestUtil.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

namespace qv::test {
namespace {

using Json = nlohmann::json;

constexpr float kInf = INFINITY;

struct GeometryCase {
    const char* name;
    std::function<GLBWriter()> file;
    size_t triangles;
    int64_t dropped;
    float3 boundsMin, boundsMax;
    float3 coreMin{kInf, 0, 0}, coreMax{}; // coreMin.x == inf: the same as the full bounds
};

// A mesh with one unit triangle, drawn by one node with the given fields.
GLBWriter oneNode(const Json& node) {
    GLBWriter w;
    const int mesh = addTriangles(w, unitTriangle());
    Json n = node;
    n["mesh"] = mesh;
    w.setScene({w.addNode(n)});
    return w;
}

GLBWriter nestedChain(int depth) {
    GLBWriter w;
    const int mesh = addTriangles(w, unitTriangle());
    for (int i = 0; i < depth; ++i) {
        Json n = {{"mesh", mesh}, {"translation", {0, 1, 0}}};
        if (i + 1 < depth) n["children"] = {i + 1};
        w.addNode(n);
    }
    w.setScene({0});
    return w;
}

// One triangle whose three vertices carry the same file normal, drawn by one node with the given fields.
LoadedModel withNormal(const std::vector<float3>& corners, float3 normal, const Json& node) {
    GLBWriter w;
    Json prim = GLBWriter::primitive(w.addPositions(corners));
    prim["attributes"]["NORMAL"] = w.addNormals({normal, normal, normal});
    Json n = node;
    n["mesh"] = w.addMesh(Json{{"primitives", {prim}}});
    w.setScene({w.addNode(n)});
    return loadWritten(w).model;
}

TEST(GLBGeometry, TransformsBoundsAndCounts) {
    const GeometryCase cases[] = {
        {"no scene and no nodes: meshes untransformed",
         [] {
             GLBWriter w;
             addTriangles(w, unitTriangle());
             addTriangles(w, {{0, 0, 5}, {1, 0, 5}, {0, 1, 5}});
             return w;
         },
         2, 0, {0, 0, 0}, {1, 1, 5}},
        {"translation", [] { return oneNode({{"translation", {10, 20, 30}}}); }, 1, 0, {10, 20, 30}, {11, 21, 30}},
        {"column-major matrix",
         [] { return oneNode({{"matrix", {2, 0, 0, 0, 0, 3, 0, 0, 0, 0, 1, 0, 5, 6, 7, 1}}}); },
         1, 0, {5, 6, 7}, {7, 9, 7}},
        {"matrix with a non-number reads it as 0",
         [] { return oneNode({{"matrix", {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, "x", 2, 0, 1}}}); },
         1, 0, {0, 2, 0}, {1, 3, 0}},
        {"matrix of 15 numbers is ignored for TRS",
         [] {
             return oneNode({{"matrix", {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 9, 9, 9}}, {"translation", {1, 0, 0}}});
         },
         1, 0, {1, 0, 0}, {2, 1, 0}},
        {"rotation 90 degrees about y, then scale and translation",
         // T x R x S: scale 2, rotate (x -> -z), translate (1, 0, 0).
         [] {
             return oneNode(
                 {{"translation", {1, 0, 0}}, {"rotation", {0, std::sqrt(0.5), 0, std::sqrt(0.5)}}, {"scale", {2, 2, 2}}});
         },
         1, 0, {1, 0, -2}, {1, 2, 0}},
        {"nested nodes compose parent x child",
         [] {
             GLBWriter w;
             const int mesh = addTriangles(w, unitTriangle());
             w.addNode({{"translation", {100, 0, 0}}, {"children", {1}}});
             w.addNode({{"scale", {3, 3, 3}}, {"mesh", mesh}});
             w.setScene({0});
             return w;
         },
         1, 0, {100, 0, 0}, {103, 3, 0}},
        {"without scenes the roots are the nodes no node lists as a child",
         [] {
             GLBWriter w;
             const int mesh = addTriangles(w, unitTriangle());
             w.addNode({{"mesh", mesh}, {"translation", {0, 0, -1}}}); // a child of node 1
             w.addNode({{"children", {0}}, {"translation", {0, 0, -1}}});
             w.addNode({{"mesh", mesh}, {"translation", {0, 0, 4}}});
             return w;
         },
         2, 0, {0, 0, -2}, {1, 1, 4}},
        {"a node tree deeper than 64 levels loads the first 64",
         [] { return nestedChain(70); }, 64, 0, {0, 1, 0}, {1, 65, 0}},
        {"a cycle ends at the depth limit",
         [] {
             GLBWriter w;
             const int mesh = addTriangles(w, unitTriangle());
             w.addNode({{"mesh", mesh}, {"children", {1}}, {"translation", {0, 0, 1}}});
             w.addNode({{"children", {0}}});
             w.setScene({0});
             return w;
         },
         32, 0, {0, 0, 1}, {1, 1, 32}},
        {"node and mesh indices out of range are ignored",
         [] {
             GLBWriter w;
             addTriangles(w, unitTriangle());
             w.addNode({{"mesh", 5}});
             w.addNode({{"mesh", -1}, {"children", {-3, 99}}});
             w.addNode({{"mesh", 0}});
             w.setScene({0, 1, 2, 7, -1});
             return w;
         },
         1, 0, {0, 0, 0}, {1, 1, 0}},
        {"a mesh with no triangle-producing primitive",
         [] {
             GLBWriter w;
             w.addMesh({Json{{"attributes", Json::object()}}});
             return w;
         },
         0, 0, {0, 0, 0}, {0, 0, 0}},
        {"indexed triangles with an out-of-range index and a trailing remainder",
         [] {
             GLBWriter w;
             const int pos = w.addPositions({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 9}});
             const int idx = w.addIndices({0, 1, 2, 0, 1, 4, 2, 1, 3, 0, 1});
             w.addMesh({GLBWriter::primitive(pos, idx)});
             return w;
         },
         2, 0, {0, 0, 0}, {1, 1, 9}},
        {"16-bit and 8-bit indices",
         [] {
             GLBWriter w;
             const int pos = w.addPositions({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}});
             const int i16 = w.addIndices16({0, 1, 2});
             const uint8_t small[] = {0, 1, 3};
             const int i8 = w.addAccessor(w.addView(small, 3), 5121, 3, "SCALAR");
             w.addMesh({GLBWriter::primitive(pos, i16), GLBWriter::primitive(pos, i8)});
             return w;
         },
         2, 0, {0, 0, 0}, {1, 1, 1}},
        {"normalised unsigned-byte positions",
         [] {
             GLBWriter w;
             const uint8_t p[] = {0, 0, 0, 0, 255, 0, 0, 0, 0, 255, 51, 0};
             const int view = w.addView(p, sizeof p, 4);
             w.addMesh({GLBWriter::primitive(w.addAccessor(view, 5121, 3, "VEC3", true))});
             return w;
         },
         1, 0, {0, 0, 0}, {1, 1, 0.2f}},
        {"interleaved positions and normals with a byte stride",
         [] {
             GLBWriter w;
             const float v[] = {0, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 1, 0, 2, 0, 0, 0, 1};
             const int view = w.addView(v, sizeof v, 24);
             const int pos = w.addAccessor(view, 5126, 3, "VEC3");
             const int nrm = w.addAccessor(view, 5126, 3, "VEC3", false, 12);
             Json prim = GLBWriter::primitive(pos);
             prim["attributes"]["NORMAL"] = nrm;
             w.addMesh(Json{{"primitives", {prim}}});
             return w;
         },
         1, 0, {0, 0, 0}, {2, 2, 0}},
        {"non-triangle primitives are skipped, the rest of the mesh loads",
         [] {
             GLBWriter w;
             const int pos = w.addPositions(unitTriangle());
             Json lines = GLBWriter::primitive(pos);
             lines["mode"] = 1;
             Json tris = GLBWriter::primitive(pos);
             tris["mode"] = 4;
             w.addMesh(Json{{"primitives", {lines, tris}}});
             return w;
         },
         1, 0, {0, 0, 0}, {1, 1, 0}},
        {"positions that are not 3 floats are skipped",
         [] {
             GLBWriter w;
             const int16_t p[] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
             w.addMesh({GLBWriter::primitive(w.addAccessor(w.addView(p, sizeof p), 5122, 3, "VEC3"))});
             w.addMesh({GLBWriter::primitive(w.addFloats({0, 0, 1, 0}, "VEC2", 2))});
             return w;
         },
         0, 0, {0, 0, 0}, {0, 0, 0}},
        {"a vertex past 100 km drops the triangles that use it; 100 km itself stays",
         [] {
             GLBWriter w;
             const int pos = w.addPositions({{0, 0, 0}, {100001, 0, 0}, {0, 1, 0}, {0, 0, 1}, {100000, 0, 0}});
             const int idx = w.addIndices({0, 1, 2, 1, 2, 3, 0, 4, 2, 0, 2, 3});
             w.addMesh({GLBWriter::primitive(pos, idx)});
             return w;
         },
         2, 2, {0, 0, 0}, {100000, 1, 1}},
        {"NaN and infinite positions drop their triangles",
         [] {
             GLBWriter w;
             addTriangles(w, {{NAN, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 0}, {INFINITY, 0, 0}, {0, 1, 0},
                              {0, 0, 0}, {2, 0, 0}, {0, 2, 0}});
             return w;
         },
         1, 2, {0, 0, 0}, {2, 2, 0}},
        {"a transform that carries vertices past 100 km drops them",
         [] { return oneNode({{"translation", {99999.5, 0, 0}}}); }, 0, 1, {0, 0, 0}, {0, 0, 0}},
        {"site triangles stay out of the core bounds",
         [] {
             GLBWriter w;
             const int house = addTriangles(w, unitTriangle());
             const int ground = addTriangles(w, {{-50, 0, -50}, {50, 0, -50}, {0, 0, 50}});
             w.addNode({{"mesh", house}});
             w.addNode({{"mesh", ground}, {"extras", {{"role", "Site"}}}});
             return w;
         },
         2, 0, {-50, 0, -50}, {50, 1, 50}, {0, 0, 0}, {1, 1, 0}},
        {"a model whose every triangle is site has core bounds equal to its bounds",
         [] { return oneNode({{"extras", {{"role", "site"}}}}); }, 1, 0, {0, 0, 0}, {1, 1, 0}},
    };
    for (const GeometryCase& c : cases) {
        SCOPED_TRACE(c.name);
        const LoadedModel m = loadWritten(c.file()).model;
        EXPECT_EQ(m.triangleCount(), c.triangles);
        EXPECT_EQ(m.droppedTriangles, c.dropped);
        ASSERT_EQ(m.triMaterial.size(), m.triangleCount());
        ASSERT_EQ(m.triRole.size(), m.triangleCount());
        ASSERT_EQ(m.normals.size(), m.positions.size());
        ASSERT_EQ(m.uvs.size(), m.positions.size());
        for (uint32_t i : m.indices) ASSERT_LT(i, m.positions.size());
        const float tol = 1e-5f * std::fmax(1.0f, std::fabs(c.boundsMax.x));
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(m.boundsMin[k], c.boundsMin[k], tol) << "axis " << k;
            EXPECT_NEAR(m.boundsMax[k], c.boundsMax[k], tol) << "axis " << k;
            const float3 coreMin = std::isinf(c.coreMin.x) ? c.boundsMin : c.coreMin;
            const float3 coreMax = std::isinf(c.coreMin.x) ? c.boundsMax : c.coreMax;
            EXPECT_NEAR(m.coreBoundsMin[k], coreMin[k], tol) << "axis " << k;
            EXPECT_NEAR(m.coreBoundsMax[k], coreMax[k], tol) << "axis " << k;
        }
    }
}

TEST(GLBGeometry, SkippedAndDroppedPrimitivesAreReportedOnStandardError) {
    GLBWriter w;
    const int pos = w.addPositions({{0, 0, 0}, {1, 0, 0}, {NAN, 1, 0}});
    Json points = GLBWriter::primitive(pos);
    points["mode"] = 0;
    w.addMaterial({{"name", "Brick"}});
    w.addMesh({GLBWriter::primitive(pos)});
    w.addMesh(Json{{"primitives", {points, GLBWriter::primitive(pos, -1, 0)}}});
    const Loaded l = loadWritten(w);
    EXPECT_EQ(l.model.droppedTriangles, 2);
    EXPECT_EQ(l.stderrLines,
              (std::vector<std::string>{
                  "warning: mesh 0 (material '__default'): dropped 1 triangle(s) with non-finite or out-of-range (> 100 "
                  "km) vertex positions",
                  "warning: skipping glTF primitive with mode 0 (only triangles)",
                  "warning: mesh 1 (material 'Brick'): dropped 1 triangle(s) with non-finite or out-of-range (> 100 km) "
                  "vertex positions"}));
    EXPECT_TRUE(l.model.warnings.empty());
}

TEST(GLBGeometry, MirroringTransformsKeepTrianglesFacingTheFileWay) {
    // The unit triangle faces +z. Mirrored in x its corners are (0,0,0), (-1,0,0), (0,1,0),
    // which in file order would face -z; the loader reverses the winding so the
    // geometric normal agrees with the transformed vertex normal (+z).
    for (const Json& node : {Json{{"scale", {-1, 1, 1}}},
                             Json{{"matrix", {-1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}}},
                             Json{{"scale", {1, 1, 1}}}}) {
        SCOPED_TRACE(node.dump());
        const LoadedModel m = withNormal(unitTriangle(), {0, 0, 1}, node);
        ASSERT_EQ(m.triangleCount(), 1u);
        const float3 geometric = triangleNormal(m, 0);
        EXPECT_NEAR(geometric.z, 1.0f, 1e-6f);
        EXPECT_NEAR(dot(geometric, m.normals[m.indices[0]]), 1.0f, 1e-6f);
    }
}

TEST(GLBGeometry, NormalsTransformByTheInverseTranspose) {
    struct Case {
        const char* name;
        Json node;
        float3 fileNormal, worldNormal;
    };
    const float s = std::sqrt(0.5f);
    const Case cases[] = {
        // Stretching x by 2 tilts a 45-degree normal towards y: M^-T n = (0.5, 1, 0) s.
        {"non-uniform scale", {{"scale", {2, 1, 1}}}, {s, s, 0}, normalize(float3{0.5f, 1, 0})},
        {"uniform scale leaves unit normals unchanged", {{"scale", {5, 5, 5}}}, {0, 1, 0}, {0, 1, 0}},
        {"rotation 90 degrees about y turns +x into -z", {{"rotation", {0, s, 0, s}}}, {1, 0, 0}, {0, 0, -1}},
        {"mirror in x negates the x component", {{"scale", {-1, 1, 1}}}, {s, s, 0}, {-s, s, 0}},
        {"a zero normal stays zero", {{"scale", {2, 1, 1}}}, {0, 0, 0}, {0, 0, 0}},
        {"a singular transform gives no normal", {{"scale", {0, 1, 1}}}, {0, 0, 1}, {0, 0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const LoadedModel m = withNormal({{0, 0, 0}, {0, 0, 1}, {0, 1, 0}}, c.fileNormal, c.node);
        ASSERT_EQ(m.normals.size(), 3u);
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(m.normals[0][k], c.worldNormal[k], 1e-6f) << "axis " << k;
    }
}

TEST(GLBGeometry, VerticesWithoutNormalsOrWithShortNormalDataGetZero) {
    GLBWriter w;
    const int pos = w.addPositions(unitTriangle());
    Json prim = GLBWriter::primitive(pos);
    prim["attributes"]["NORMAL"] = w.addNormals({{0, 0, 2}, {0, 0, 2}}); // two entries for three vertices
    w.addMesh(Json{{"primitives", {prim}}});
    const LoadedModel m = loadWritten(w).model;
    ASSERT_EQ(m.normals.size(), 3u);
    EXPECT_EQ(m.normals[0], (float3{0, 0, 1}));
    EXPECT_EQ(m.normals[1], (float3{0, 0, 1}));
    EXPECT_EQ(m.normals[2], (float3{}));
}

TEST(GLBGeometry, RolesComeFromNodesTheirParentsOrTheMesh) {
    GLBWriter w;
    const int plain = addTriangles(w, unitTriangle());
    const int roofMesh = w.addMesh({GLBWriter::primitive(w.addPositions(unitTriangle()))}, Json{{"role", "Fixture"}});
    w.addNode({{"extras", {{"role", "ROOF"}}}, {"children", {1, 2}}});
    w.addNode({{"mesh", plain}});                                           // inherits roof
    w.addNode({{"mesh", roofMesh}, {"extras", {{"role", "ceil"}}}});        // own role wins over the mesh's
    w.addNode({{"mesh", roofMesh}});                                        // no node role: the mesh's
    w.addNode({{"mesh", plain}, {"extras", {{"role", 7}}}});                // not a string: no role
    w.addNode({{"mesh", plain}, {"extras", {{"role", "Roof"}}}});           // interned once
    w.setScene({0, 3, 4, 5});
    const LoadedModel m = loadWritten(w).model;
    EXPECT_EQ(m.roleNames, (std::vector<std::string>{"", "roof", "ceil", "fixture"}));
    EXPECT_EQ(m.triRole, (std::vector<uint16_t>{1, 2, 3, 0, 1}));
}

TEST(GLBGeometry, PrimitivesUseTheirMaterialOrTheDefault) {
    GLBWriter w;
    w.addMaterial({{"name", "Oak"}});
    const int pos = w.addPositions(unitTriangle());
    Json negative = GLBWriter::primitive(pos);
    negative["material"] = -2;
    w.addMesh(Json{{"primitives",
                    {GLBWriter::primitive(pos, -1, 0), GLBWriter::primitive(pos), GLBWriter::primitive(pos, -1, 1),
                     GLBWriter::primitive(pos, -1, 9), negative}}});
    const LoadedModel m = loadWritten(w).model;
    ASSERT_EQ(m.materials.size(), 2u);
    EXPECT_EQ(m.materials[1].name, "__default");
    EXPECT_EQ(m.triMaterial, (std::vector<uint32_t>{0, 1, 1, 1, 1}));
}

TEST(GLBGeometry, MaskedMaterialsBelowTheirCutoffContributeNothing) {
    for (const auto& [cutoff, triangles] : {std::pair{0.5, 0u}, std::pair{0.3, 1u}, std::pair{0.2, 1u}}) {
        GLBWriter w;
        w.addMaterial({{"alphaMode", "MASK"},
                       {"alphaCutoff", cutoff},
                       {"pbrMetallicRoughness", {{"baseColorFactor", {1, 1, 1, 0.3}}}}});
        addTriangles(w, unitTriangle(), 0);
        EXPECT_EQ(loadWritten(w).model.triangleCount(), triangles) << "cutoff " << cutoff;
    }
}

TEST(GLBGeometry, VerticesOfEveryAcceptedPrimitiveAreKept) {
    // Two primitives: the second's indices start at its own vertex base.
    GLBWriter w;
    const int a = w.addPositions(unitTriangle());
    const int b = w.addPositions({{5, 0, 0}, {6, 0, 0}, {5, 1, 0}, {NAN, 0, 0}});
    const int idx = w.addIndices({2, 1, 0, 3, 1, 0});
    w.addMesh({GLBWriter::primitive(a), GLBWriter::primitive(b, idx)});
    const LoadedModel m = loadWritten(w).model;
    EXPECT_EQ(m.positions.size(), 7u);
    EXPECT_EQ(m.indices, (std::vector<uint32_t>{0, 1, 2, 5, 4, 3}));
    EXPECT_EQ(m.positions[6], (float3{})); // the bad vertex is stored at the origin
}

} // namespace
} // namespace qv::test
