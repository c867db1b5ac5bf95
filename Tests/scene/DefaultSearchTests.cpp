// The default model and scene search, over temporary directory trees laid
// out like a source checkout, an installed prefix and a bare directory.
#include "scene/DefaultSearch.h"
#include "scene/SceneDescription.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>

#include <fstream>

namespace qv {
namespace {

namespace fs = std::filesystem;

class SearchTree : public testing_support::ScratchDirTest {
protected:
    SearchTree() : ScratchDirTest("qv_search_") {}
    fs::path touch(const fs::path& relative, const std::string& text = "{}") {
        fs::path p = dir / relative;
        fs::create_directories(p.parent_path());
        std::ofstream(p) << text;
        return p;
    }
    // A checkout at dir/src with the build tree dir/src/build/bin.
    fs::path makePackage() {
        touch("src/CMakeLists.txt", "project(x)");
        fs::create_directories(dir / "src/Sources/Quorvane");
        fs::create_directories(dir / "src/build/bin");
        return dir / "src";
    }
};

TEST_F(SearchTree, PackageDirectoryNeedsManifestAndSources) {
    fs::path package = makePackage();
    EXPECT_EQ(findPackageDirectory(package / "build/bin"), package);
    EXPECT_EQ(findPackageDirectory(package), package);
    fs::remove(package / "CMakeLists.txt");
    EXPECT_FALSE(findPackageDirectory(package / "build/bin"));
}

TEST_F(SearchTree, PackageDirectoryIsAtMostEightLevelsUp) {
    fs::path package = makePackage();
    fs::path deep = package;
    for (int i = 0; i < 8; ++i) deep /= "d";
    fs::create_directories(deep / "e");
    EXPECT_EQ(findPackageDirectory(deep), package);
    EXPECT_FALSE(findPackageDirectory(deep / "e"));
}

TEST_F(SearchTree, ResourcesPreferTheInstalledPrefix) {
    fs::path package = makePackage();
    fs::create_directories(package / "Resources");
    EXPECT_EQ(findResourcesDirectory(package / "build/bin", package), package / "Resources");
    fs::create_directories(package / "build/share/quorvane");
    EXPECT_EQ(findResourcesDirectory(package / "build/bin", package), package / "build/share/quorvane");
    EXPECT_FALSE(findResourcesDirectory(dir / "elsewhere/bin", std::nullopt));
}

TEST_F(SearchTree, LocationsResolveSymbolicLinks) {
    fs::path package = makePackage();
    touch("src/build/bin/quorvane", "");
    fs::create_directories(dir / "links");
    fs::create_symlink(package / "build/bin/quorvane", dir / "links/quorvane");
    SearchLocations l = searchLocationsFor(dir / "links/quorvane", dir);
    EXPECT_EQ(l.packageDirectory, package);
}

TEST_F(SearchTree, DefaultModelOrder) {
    fs::path package = makePackage();
    SearchLocations l{package, std::nullopt, dir / "cwd"};
    // Nothing exists: the viewer path beside the package, so the loader names it.
    EXPECT_EQ(defaultModel(l), (dir / "viewer/house.glb").string());
    // A bundled model wins over the missing viewer model.
    touch("src/Resources/house.glb", "");
    l.resourcesDirectory = package / "Resources";
    EXPECT_EQ(bundledModel(l), (package / "Resources/house.glb").string());
    EXPECT_EQ(defaultModel(l), (package / "Resources/house.glb").string());
    // An existing viewer model wins over everything.
    touch("viewer/house.glb", "");
    EXPECT_EQ(defaultModel(l), (dir / "viewer/house.glb").string());
    // Without a package: the bundled model, else house.glb in the current directory.
    SearchLocations bare{std::nullopt, package / "Resources", dir / "cwd"};
    EXPECT_EQ(defaultModel(bare), (package / "Resources/house.glb").string());
    bare.resourcesDirectory.reset();
    EXPECT_EQ(defaultModel(bare), (dir / "cwd/house.glb").string());
}

TEST_F(SearchTree, SceneCandidatesInOrder) {
    SearchLocations l{dir / "pkg", dir / "res", dir / "cwd"};
    const std::vector<std::string> expected = {
        (dir / "models/scene.json").string(), (dir / "res/sample_scene.json").string(),
        (dir / "pkg/sample_scene.json").string(), (dir / "cwd/sample_scene.json").string()};
    EXPECT_EQ(sceneCandidates((dir / "models/house.glb").string(), l), expected);
    SearchLocations bare{std::nullopt, std::nullopt, dir / "cwd"};
    EXPECT_EQ(sceneCandidates("house.glb", bare),
              (std::vector<std::string>{"scene.json", (dir / "cwd/sample_scene.json").string()}));
}

const std::string kOneCamera = "{cameras: [{name: 'A', eye: [0, 1.5, 0], target: [1, 1.5, 0]}], "
                               "lights: [{position: [0, 2, 0]}, {position: [1, 2, 0], enabled: false}]}";

TEST_F(SearchTree, ResolveTakesTheFirstExistingCandidate) {
    SearchLocations l{dir / "pkg", dir / "res", dir / "cwd"};
    const std::string model = (dir / "models/house.glb").string();
    const std::string first = (dir / "models/scene.json").string();
    struct Step {
        const char* create; // made before resolving
        std::string source;
    };
    const std::vector<Step> steps = {
        {"cwd/sample_scene.json", (dir / "cwd/sample_scene.json").string()},
        {"pkg/sample_scene.json", (dir / "pkg/sample_scene.json").string()},
        {"res/sample_scene.json", (dir / "res/sample_scene.json").string()},
    };
    for (const Step& step : steps) {
        touch(step.create, kOneCamera);
        std::vector<std::string> lines;
        ResolvedScene r = resolveSceneSource(std::nullopt, model, LoadedModel{},
                                             [&](std::string_view s) { lines.emplace_back(s); }, l);
        EXPECT_EQ(r.source, step.source);
        EXPECT_EQ(lines, (std::vector<std::string>{"scene: " + first + " not found - using the sample scene",
                                                   "scene: " + step.source + "  (1 lights, 1 cameras)"}));
    }
    touch("models/scene.json", kOneCamera);
    std::vector<std::string> lines;
    ResolvedScene r =
        resolveSceneSource(std::nullopt, model, LoadedModel{}, [&](std::string_view s) { lines.emplace_back(s); }, l);
    EXPECT_EQ(r.source, first);
    EXPECT_EQ(lines, (std::vector<std::string>{"scene: " + first + "  (1 lights, 1 cameras)"}));
}

TEST_F(SearchTree, ResolveFallsBackToGeneratedDefaults) {
    SearchLocations l{dir / "pkg", std::nullopt, dir / "cwd"};
    std::vector<std::string> lines;
    LoadedModel model;
    model.boundsMin = {-1, 0, -1};
    model.boundsMax = {1, 3, 1};
    ResolvedScene r = resolveSceneSource(std::nullopt, (dir / "house.glb").string(), model,
                                         [&](std::string_view s) { lines.emplace_back(s); }, l);
    EXPECT_FALSE(r.source);
    EXPECT_EQ(lines, std::vector<std::string>{"scene: no scene.json found - using auto-generated defaults"});
    ASSERT_EQ(r.scene.cameras.size(), 2u);
    EXPECT_EQ(r.scene.cameras[0].name, "Exterior");
    EXPECT_TRUE(r.scene.lights.empty());
}

TEST_F(SearchTree, NamedSceneMustExist) {
    SearchLocations l{std::nullopt, std::nullopt, dir};
    touch("scene.json", kOneCamera); // present beside the model, but not the named one
    const std::string named = (dir / "other.json").string();
    try {
        resolveSceneSource(named, (dir / "house.glb").string(), LoadedModel{}, {}, l);
        ADD_FAILURE();
    } catch (const SceneError& e) {
        EXPECT_EQ(e.description(), "scene file not found: " + named);
    }
    touch("other.json", "{cameras: []}");
    std::vector<std::string> lines;
    ResolvedScene r = resolveSceneSource(named, (dir / "house.glb").string(), LoadedModel{},
                                         [&](std::string_view s) { lines.emplace_back(s); }, l);
    EXPECT_EQ(r.source, named);
    EXPECT_EQ(lines, std::vector<std::string>{"scene: " + named + "  (0 lights, 0 cameras)"});
}

TEST_F(SearchTree, UnparseableFoundSceneFails) {
    SearchLocations l{std::nullopt, std::nullopt, dir};
    touch("scene.json", "{cameras: [");
    EXPECT_THROW(resolveSceneSource(std::nullopt, (dir / "house.glb").string(), LoadedModel{}, {}, l), SceneError);
}

} // namespace
} // namespace qv
