// Every way a GLB file can fail to load, with the exact message.
#include "GLBTestUtil.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <unistd.h>

namespace qv::test {
namespace {

using Json = nlohmann::json;

std::vector<uint8_t> jsonOnly(const Json& doc) { return assembleGLB({{kChunkJSON, bytesOf(doc.dump()), {}}}); }

// A document with one triangle whose POSITION accessor is edited by `edit`.
std::vector<uint8_t> withPositionAccessor(const std::function<void(GLBWriter&)>& edit) {
    GLBWriter w;
    addTriangles(w, unitTriangle());
    edit(w);
    return w.bytes();
}

GLBWriter::Json& accessor0(GLBWriter& w) { return w.json["accessors"][0]; }

struct ErrorCase {
    const char* name;
    std::function<std::vector<uint8_t>()> file;
    std::optional<GLBError::Kind> kind; // nothing: a GLBJSONError
    std::string message;                // exact, or the prefix for JSON errors
};

TEST(GLBErrors, EachMalformedFileFailsWithItsSentence) {
    const std::vector<uint8_t> triangle = withPositionAccessor([](GLBWriter&) {});
    const ErrorCase cases[] = {
        {"19 bytes", [&] { return std::vector<uint8_t>(triangle.begin(), triangle.begin() + 19); },
         GLBError::Kind::notGLB, "file is not a binary glTF (.glb)"},
        {"empty file", [] { return std::vector<uint8_t>{}; }, GLBError::Kind::notGLB,
         "file is not a binary glTF (.glb)"},
        {"wrong magic", [] { return assembleGLB({{kChunkJSON, bytesOf("{}"), {}}}, 2, {}, 0x46546C66); },
         GLBError::Kind::notGLB, "file is not a binary glTF (.glb)"},
        {"version 1", [] { return assembleGLB({{kChunkJSON, bytesOf("{}"), {}}}, 1); }, GLBError::Kind::notGLB,
         "file is not a binary glTF (.glb)"},
        {"chunk length past the end",
         [] { return assembleGLB({{kChunkJSON, bytesOf("{}  "), 4}, {kChunkBIN, {1, 2, 3, 4}, 100}}); },
         GLBError::Kind::badChunk, "bad GLB chunk: chunk overruns file"},
        {"chunk length near 2^32", [] { return assembleGLB({{kChunkJSON, bytesOf("{}  "), 0xFFFFFFFCu}}); },
         GLBError::Kind::badChunk, "bad GLB chunk: chunk overruns file"},
        {"only a BIN chunk", [] { return assembleGLB({{kChunkBIN, {0, 0, 0, 0}, {}}}); }, GLBError::Kind::badChunk,
         "bad GLB chunk: no JSON chunk"},
        {"JSON chunk beyond the declared length",
         [] { return assembleGLB({{kChunkJSON, bytesOf("{}  "), {}}}, 2, 12u); }, GLBError::Kind::badChunk,
         "bad GLB chunk: no JSON chunk"},
        {"JSON top level is an array", [] { return assembleGLB({{kChunkJSON, bytesOf("[1, 2]"), {}}}); },
         GLBError::Kind::badChunk, "bad GLB chunk: no JSON chunk"},
        {"JSON syntax error", [] { return assembleGLB({{kChunkJSON, bytesOf("{\"asset\": }"), {}}}); }, std::nullopt,
         "the model's JSON chunk is not valid JSON: parse error at line 1, column 11"},
        {"accessor past the end of the list",
         [] { return withPositionAccessor([](GLBWriter& w) { w.json["meshes"][0]["primitives"][0]["attributes"]["POSITION"] = 7; }); },
         GLBError::Kind::missing, "missing glTF data: accessor 7"},
        {"negative accessor",
         [] { return withPositionAccessor([](GLBWriter& w) { w.json["meshes"][0]["primitives"][0]["attributes"]["POSITION"] = -1; }); },
         GLBError::Kind::missing, "missing glTF data: accessor -1"},
        {"indices accessor missing",
         [] { return withPositionAccessor([](GLBWriter& w) { w.json["meshes"][0]["primitives"][0]["indices"] = 3; }); },
         GLBError::Kind::missing, "missing glTF data: accessor 3"},
        {"sparse accessor",
         [] { return withPositionAccessor([](GLBWriter& w) { accessor0(w)["sparse"] = {{"count", 1}}; }); },
         GLBError::Kind::unsupported, "unsupported glTF feature: sparse accessors"},
        {"external buffer",
         [] { return withPositionAccessor([](GLBWriter& w) { w.json["bufferViews"][0]["buffer"] = 1; }); },
         GLBError::Kind::unsupported, "unsupported glTF feature: external buffers"},
        {"count past the BIN chunk",
         [] { return withPositionAccessor([](GLBWriter& w) { accessor0(w)["count"] = 4; }); },
         GLBError::Kind::badChunk, "bad GLB chunk: accessor 0 overruns BIN chunk"},
        {"huge count", [] { return withPositionAccessor([](GLBWriter& w) { accessor0(w)["count"] = int64_t(1) << 62; }); },
         GLBError::Kind::badChunk, "bad GLB chunk: accessor 0 overruns BIN chunk"},
        {"stride times count overflows",
         [] {
             return withPositionAccessor([](GLBWriter& w) {
                 w.json["bufferViews"][0]["byteStride"] = int64_t(1) << 40;
                 accessor0(w)["count"] = int64_t(1) << 30;
             });
         },
         GLBError::Kind::badChunk, "bad GLB chunk: accessor 0 overruns BIN chunk"},
        {"offset near 2^63",
         [] {
             return withPositionAccessor([](GLBWriter& w) {
                 w.json["bufferViews"][0]["byteOffset"] = INT64_MAX;
                 accessor0(w)["byteOffset"] = INT64_MAX;
             });
         },
         GLBError::Kind::badChunk, "bad GLB chunk: accessor 0 overruns BIN chunk"},
        {"negative offset",
         [] { return withPositionAccessor([](GLBWriter& w) { accessor0(w)["byteOffset"] = -4; }); },
         GLBError::Kind::badChunk, "bad GLB chunk: accessor 0 overruns BIN chunk"},
        {"accessor data but no BIN chunk",
         [] {
             GLBWriter w;
             addTriangles(w, unitTriangle());
             return jsonOnly(w.json);
         },
         GLBError::Kind::badChunk, "bad GLB chunk: accessor 0 overruns BIN chunk"},
        {"unknown component type",
         [] { return withPositionAccessor([](GLBWriter& w) { accessor0(w)["componentType"] = 5124; }); },
         GLBError::Kind::unsupported, "unsupported glTF feature: componentType 5124"},
        {"zero-filled accessor with an absurd count",
         [] {
             return withPositionAccessor([](GLBWriter& w) {
                 accessor0(w).erase("bufferView");
                 accessor0(w)["count"] = int64_t(1) << 40;
             });
         },
         GLBError::Kind::unsupported, "unsupported glTF feature: model with more than 134217728 vertices"},
        {"zero-filled indices with an absurd count",
         [] {
             return withPositionAccessor([](GLBWriter& w) {
                 const int indices = w.addAccessor(-1, 5125, int64_t(1) << 45, "SCALAR");
                 w.json["meshes"][0]["primitives"][0]["indices"] = indices;
             });
         },
         GLBError::Kind::unsupported, "unsupported glTF feature: model with more than 402653184 indices"},
    };
    for (const ErrorCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<uint8_t> bytes = c.file();
        if (c.kind) {
            try {
                GLBLoader::loadBytes(bytes, [](std::string_view) {});
                ADD_FAILURE() << "loaded";
            } catch (const GLBError& e) {
                EXPECT_EQ(e.kind(), *c.kind);
                EXPECT_EQ(std::string(e.what()), c.message);
            }
        } else {
            try {
                GLBLoader::loadBytes(bytes, [](std::string_view) {});
                ADD_FAILURE() << "loaded";
            } catch (const GLBJSONError& e) {
                EXPECT_EQ(std::string(e.what()).substr(0, c.message.size()), c.message) << e.what();
            }
        }
    }
}

TEST(GLBErrors, SharedSubtreesAreBoundedByTheVisitLimit) {
    // Each node lists the next one twice: 2^40 paths through 40 nodes.
    GLBWriter w;
    for (int i = 0; i < 40; ++i) w.addNode({{"children", {i + 1, i + 1}}});
    w.addNode(Json::object());
    w.setScene({0});
    GLBLimits limits;
    limits.maxNodeVisits = 10000;
    try {
        loadWritten(w, limits);
        ADD_FAILURE() << "loaded";
    } catch (const GLBError& e) {
        EXPECT_EQ(std::string(e.what()), "unsupported glTF feature: node graph with more than 10000 node instances");
    }
}

TEST(GLBErrors, UnreadableFilesNameThePathAndReason) {
    try {
        GLBLoader::load("/nonexistent/dir/house.glb");
        ADD_FAILURE() << "loaded";
    } catch (const GLBFileError& e) {
        EXPECT_EQ(std::string(e.what()),
                  "could not read the model file '/nonexistent/dir/house.glb': No such file or directory");
    }
    try {
        GLBLoader::load("/tmp");
        ADD_FAILURE() << "loaded";
    } catch (const GLBFileError& e) {
        EXPECT_EQ(std::string(e.what()), "could not read the model file '/tmp': Is a directory");
    }
}

TEST(GLBErrors, LoadsFromAFileOnDisk) {
    GLBWriter w;
    addTriangles(w, unitTriangle());
    const std::string path = testing::TempDir() + "glb_load_" + std::to_string(::getpid()) + ".glb";
    w.writeTo(path);
    const LoadedModel m = GLBLoader::load(path);
    std::remove(path.c_str());
    EXPECT_EQ(m.triangleCount(), 1u);
}

} // namespace
} // namespace qv::test
