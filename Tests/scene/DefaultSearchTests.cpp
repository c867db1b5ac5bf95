// The default model and scene search, over temporary directory trees laid
// out like a source checkout, an installed prefix and a bare directory.
#include "scene/DefaultSearch.h"
#include "scene/SceneDescription.h"

#include <gtest/gtest.h>

#include <fstream>

namespace qv {
namespace {

namespace fs = std::filesystem;

class SearchTree : public ::testing::Test {
protected:
    fs::path root;
    void SetUp() override {
        root = fs::temp_directory_path() /
               ("qv_search_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
        fs::remove_all(root);
        fs::create_directories(root);
    }
    void TearDown() override { fs::remove_all(root); }
    fs::path touch(const fs::path& relative, const std::string& text = "{}") {
        fs::path p = root / relative;
        fs::create_directories(p.parent_path());
        std::ofstream(p) << text;
        return p;
    }
    // A checkout at root/src with the build tree root/src/build/bin.
    fs::path makePackage() {
        touch("src/CMakeLists.txt", "project(x)");
        fs::create_directories(root / "src/Sources/Quorvane");
        fs::create_directories(root / "src/build/bin");
        return root / "src";
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
    EXPECT_FALSE(findResourcesDirectory(root / "elsewhere/bin", std::nullopt));
}

TEST_F(SearchTree, LocationsResolveSymbolicLinks) {
    fs::path package = makePackage();
    touch("src/build/bin/quorvane", "");
    fs::create_directories(root / "links");
    fs::create_symlink(package / "build/bin/quorvane", root / "links/quorvane");
    SearchLocations l = searchLocationsFor(root / "links/quorvane", root);
    EXPECT_EQ(l.packageDirectory, package);
}

TEST_F(SearchTree, DefaultModelOrder) {
    fs::path package = makePackage();
    SearchLocations l{package, std::nullopt, root / "cwd"};
    // Nothing exists: the viewer path beside the package, so the loader names it.
    EXPECT_EQ(defaultModel(l), (root / "viewer/house.glb").string());
    // A bundled model wins over the missing viewer model.
    touch("src/Resources/house.glb", "");
    l.resourcesDirectory = package / "Resources";
    EXPECT_EQ(bundledModel(l), (package / "Resources/house.glb").string());
    EXPECT_EQ(defaultModel(l), (package / "Resources/house.glb").string());
    // An existing viewer model wins over everything.
    touch("viewer/house.glb", "");
    EXPECT_EQ(defaultModel(l), (root / "viewer/house.glb").string());
    // Without a package: the bundled model, else house.glb in the current directory.
    SearchLocations bare{std::nullopt, package / "Resources", root / "cwd"};
    EXPECT_EQ(defaultModel(bare), (package / "Resources/house.glb").string());
    bare.resourcesDirectory.reset();
    EXPECT_EQ(defaultModel(bare), (root / "cwd/house.glb").string());
}

TEST_F(SearchTree, SceneCandidatesInOrder) {
    SearchLocations l{root / "pkg", root / "res", root / "cwd"};
    const std::vector<std::string> expected = {
        (root / "models/scene.json").string(), (root / "res/sample_scene.json").string(),
        (root / "pkg/sample_scene.json").string(), (root / "cwd/sample_scene.json").string()};
    EXPECT_EQ(sceneCandidates((root / "models/house.glb").string(), l), expected);
    SearchLocations bare{std::nullopt, std::nullopt, root / "cwd"};
    EXPECT_EQ(sceneCandidates("house.glb", bare),
              (std::vector<std::string>{"scene.json", (root / "cwd/sample_scene.json").string()}));
}

const std::string kOneCamera = "{cameras: [{name: 'A', eye: [0, 1.5, 0], target: [1, 1.5, 0]}], "
                               "lights: [{position: [0, 2, 0]}, {position: [1, 2, 0], enabled: false}]}";

TEST_F(SearchTree, ResolveTakesTheFirstExistingCandidate) {
    SearchLocations l{root / "pkg", root / "res", root / "cwd"};
    const std::string model = (root / "models/house.glb").string();
    const std::string first = (root / "models/scene.json").string();
    struct Step {
        const char* create; // made before resolving
        std::string source;
    };
    const std::vector<Step> steps = {
        {"cwd/sample_scene.json", (root / "cwd/sample_scene.json").string()},
        {"pkg/sample_scene.json", (root / "pkg/sample_scene.json").string()},
        {"res/sample_scene.json", (root / "res/sample_scene.json").string()},
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
    SearchLocations l{root / "pkg", std::nullopt, root / "cwd"};
    std::vector<std::string> lines;
    LoadedModel model;
    model.boundsMin = {-1, 0, -1};
    model.boundsMax = {1, 3, 1};
    ResolvedScene r = resolveSceneSource(std::nullopt, (root / "house.glb").string(), model,
                                         [&](std::string_view s) { lines.emplace_back(s); }, l);
    EXPECT_FALSE(r.source);
    EXPECT_EQ(lines, std::vector<std::string>{"scene: no scene.json found - using auto-generated defaults"});
    ASSERT_EQ(r.scene.cameras.size(), 2u);
    EXPECT_EQ(r.scene.cameras[0].name, "Exterior");
    EXPECT_TRUE(r.scene.lights.empty());
}

TEST_F(SearchTree, NamedSceneMustExist) {
    SearchLocations l{std::nullopt, std::nullopt, root};
    touch("scene.json", kOneCamera); // present beside the model, but not the named one
    const std::string named = (root / "other.json").string();
    try {
        resolveSceneSource(named, (root / "house.glb").string(), LoadedModel{}, {}, l);
        ADD_FAILURE();
    } catch (const SceneError& e) {
        EXPECT_EQ(e.description(), "scene file not found: " + named);
    }
    touch("other.json", "{cameras: []}");
    std::vector<std::string> lines;
    ResolvedScene r = resolveSceneSource(named, (root / "house.glb").string(), LoadedModel{},
                                         [&](std::string_view s) { lines.emplace_back(s); }, l);
    EXPECT_EQ(r.source, named);
    EXPECT_EQ(lines, std::vector<std::string>{"scene: " + named + "  (0 lights, 0 cameras)"});
}

TEST_F(SearchTree, UnparseableFoundSceneFails) {
    SearchLocations l{std::nullopt, std::nullopt, root};
    touch("scene.json", "{cameras: [");
    EXPECT_THROW(resolveSceneSource(std::nullopt, (root / "house.glb").string(), LoadedModel{}, {}, l), SceneError);
}

} // namespace
} // namespace qv
