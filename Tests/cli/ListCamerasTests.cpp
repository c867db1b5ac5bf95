// --list-cameras: the line format, and the whole run from a model file and its
// scene (in process and through the program).
#include "cli/CameraList.h"
#include "cli/HeadlessCLI.h"
#include "ProgramRun.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace qv {
namespace {

namespace fs = std::filesystem;

TEST(ListCamerasLines, Format) {
    SceneDescription s;
    CameraDef a;
    a.name = "Exterior";
    a.eye = {12.5f, 1.6f, -3};
    a.target = {0, 1.5f, 0.1f};
    a.fovDeg = 50;
    CameraDef b;
    b.name = "Living room";
    b.eye = {1, 1.5f, 2};
    b.target = {3, 1.4f, 2};
    b.fovAxis = "H";
    s.cameras = {a, b};
    s.defaultCamera = "Living room";
    const std::vector<std::string> expected = {
        "Exterior: eye [12.5, 1.6, -3.0] target [0.0, 1.5, 0.1] fov 50.0 vertical",
        "Living room: eye [1.0, 1.5, 2.0] target [3.0, 1.4, 2.0] fov 70.0 horizontal  (default)",
    };
    EXPECT_EQ(cameraListLines(s), expected);
    s.defaultCamera = "living room"; // letter case counts: no camera is marked
    EXPECT_EQ(cameraListLines(s)[1], "Living room: eye [1.0, 1.5, 2.0] target [3.0, 1.4, 2.0] fov 70.0 horizontal");
}

// A one-triangle binary glTF spanning (0,0,0)-(4,3,2).
void writeTriangleGLB(const fs::path& path) {
    const float positions[9] = {0, 0, 0, 4, 0, 0, 0, 3, 2};
    std::string json =
        R"({"asset":{"version":"2.0"},"scene":0,"scenes":[{"nodes":[0]}],"nodes":[{"mesh":0}],)"
        R"("meshes":[{"primitives":[{"attributes":{"POSITION":0}}]}],)"
        R"("accessors":[{"bufferView":0,"componentType":5126,"count":3,"type":"VEC3","min":[0,0,0],"max":[4,3,2]}],)"
        R"("bufferViews":[{"buffer":0,"byteLength":36}],"buffers":[{"byteLength":36}]})";
    while (json.size() % 4) json += ' ';
    auto u32 = [](std::string& out, uint32_t v) { out.append(reinterpret_cast<const char*>(&v), 4); };
    std::string glb;
    u32(glb, 0x46546C67);
    u32(glb, 2);
    u32(glb, static_cast<uint32_t>(12 + 8 + json.size() + 8 + sizeof positions));
    u32(glb, static_cast<uint32_t>(json.size()));
    u32(glb, 0x4E4F534A);
    glb += json;
    u32(glb, sizeof positions);
    u32(glb, 0x004E4942);
    glb.append(reinterpret_cast<const char*>(positions), sizeof positions);
    std::ofstream(path, std::ios::binary) << glb;
}

class ListCamerasRun : public testing_support::ScratchDirTest {
protected:
    ListCamerasRun() : ScratchDirTest("qv_list_") {}
    void SetUp() override {
        ScratchDirTest::SetUp();
        writeTriangleGLB(dir / "house.glb");
    }
    std::vector<std::string> run(CLIOptions o) {
        std::vector<std::string> lines;
        o.headless = true;
        o.listCameras = true;
        o.model = (dir / "house.glb").string();
        HeadlessCLI::run(o, [&](std::string_view l) { lines.emplace_back(l); });
        return lines;
    }
};

TEST_F(ListCamerasRun, SceneBesideTheModel) {
    std::ofstream(dir / "scene.json") << R"({
        // two cameras, one of them broken
        cameras: [
            {name: 'Hall', eye: [1, 1.6, 1], target: [2, 1.6, 1], fov_deg: 60, fov_axis: 'horizontal'},
            {name: 'Broken', eye: [1, 1.6], target: [2, 1.6, 1]},
        ],
        default_camera: 'Hall',
    })";
    const std::string scene = (dir / "scene.json").string();
    const std::vector<std::string> expected = {
        "warning: scene.json: cameras[1] (Broken) skipped: eye and target must be 3 finite numbers",
        "scene: " + scene + "  (0 lights, 1 cameras)",
        "Hall: eye [1.0, 1.6, 1.0] target [2.0, 1.6, 1.0] fov 60.0 horizontal  (default)",
    };
    EXPECT_EQ(run({}), expected);
}

TEST_F(ListCamerasRun, GeneratedDefaultsForAModelWithoutScene) {
    CLIOptions o;
    // A named scene that is absent fails; without one, the search may find a
    // sample scene elsewhere, so name an empty scene to pin the result.
    o.scene = (dir / "none.json").string();
    try {
        run(o);
        ADD_FAILURE();
    } catch (const SceneError& e) {
        EXPECT_EQ(e.description(), "scene file not found: " + *o.scene);
    }
    SceneDescription generated = SceneDescription::defaults([] {
        LoadedModel m;
        m.boundsMin = {0, 0, 0};
        m.boundsMax = {4, 3, 2};
        return m;
    }());
    // d = 1.1 x 4 + 4 = 8.4: the Exterior eye is (2 + 5.88, 1.6, 1 + 7.56), computed in single precision.
    EXPECT_EQ(cameraListLines(generated)[0],
              "Exterior: eye [7.8799996, 1.6, 8.559999] target [2.0, 1.5, 1.0] fov 50.0 vertical  (default)");
}

TEST(ListCamerasProgram, PrintsTheCamerasAndExitsZero) {
    const fs::path dir = fs::temp_directory_path() / "qv_list_program";
    fs::remove_all(dir);
    fs::create_directories(dir);
    writeTriangleGLB(dir / "house.glb");
    std::ofstream(dir / "scene.json") << "{cameras: [{name: 'A', eye: [0, 1.5, 0], target: [1, 1.5, 0]}]}";
    test::ProgramResult r = test::runProgram({"--headless", "--list-cameras", "--model", (dir / "house.glb").string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "scene: " + (dir / "scene.json").string() +
                         "  (0 lights, 1 cameras)\nA: eye [0.0, 1.5, 0.0] target [1.0, 1.5, 0.0] fov 70.0 vertical\n");

    test::ProgramResult missing =
        test::runProgram({"--list-cameras", "--model", (dir / "house.glb").string(), "--scene", "/nonexistent.json"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "error: scene file not found: /nonexistent.json\n");
    fs::remove_all(dir);
}

} // namespace
} // namespace qv
