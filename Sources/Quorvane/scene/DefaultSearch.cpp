#include "scene/DefaultSearch.h"

#include <mutex>

namespace qv {

namespace fs = std::filesystem;

namespace {

constexpr int kMaxClimb = 8;

bool isDirectory(const fs::path& p) {
    std::error_code ec;
    return fs::is_directory(p, ec);
}

bool isFile(const fs::path& p) {
    std::error_code ec;
    return fs::exists(p, ec) && !fs::is_directory(p, ec);
}

std::mutex gExecutableMutex;
std::string gExecutableArgument;

} // namespace

std::optional<fs::path> findPackageDirectory(const fs::path& startDirectory) {
    fs::path dir = startDirectory;
    for (int level = 0; level <= kMaxClimb; ++level) {
        if (isFile(dir / "CMakeLists.txt") && isDirectory(dir / "Sources" / "Quorvane")) return dir;
        if (!dir.has_parent_path() || dir.parent_path() == dir) break;
        dir = dir.parent_path();
    }
    return std::nullopt;
}

std::optional<fs::path> findResourcesDirectory(const fs::path& executableDirectory,
                                               const std::optional<fs::path>& packageDirectory) {
    fs::path installed = executableDirectory.parent_path() / "share" / "quorvane";
    if (isDirectory(installed)) return installed;
    if (packageDirectory && isDirectory(*packageDirectory / "Resources")) return *packageDirectory / "Resources";
    return std::nullopt;
}

SearchLocations searchLocationsFor(const fs::path& executable, const fs::path& currentDirectory) {
    std::error_code ec;
    fs::path resolved = fs::weakly_canonical(fs::absolute(executable, ec), ec);
    if (ec) resolved = executable;
    fs::path dir = resolved.parent_path();
    SearchLocations locations;
    locations.packageDirectory = findPackageDirectory(dir);
    locations.resourcesDirectory = findResourcesDirectory(dir, locations.packageDirectory);
    locations.currentDirectory = currentDirectory;
    return locations;
}

void setExecutableArgument(const std::string& argv0) {
    std::lock_guard<std::mutex> lock(gExecutableMutex);
    gExecutableArgument = argv0;
}

fs::path executablePath() {
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (!ec && !self.empty()) return self;
    std::lock_guard<std::mutex> lock(gExecutableMutex);
    return gExecutableArgument;
}

SearchLocations processSearchLocations() {
    // The package directory does not change during a run: compute it once.
    static const SearchLocations once = searchLocationsFor(executablePath(), {});
    SearchLocations locations = once;
    std::error_code ec;
    locations.currentDirectory = fs::current_path(ec);
    if (ec) locations.currentDirectory = ".";
    return locations;
}

std::optional<std::string> bundledModel(const SearchLocations& locations) {
    if (locations.resourcesDirectory && isFile(*locations.resourcesDirectory / "house.glb"))
        return (*locations.resourcesDirectory / "house.glb").string();
    return std::nullopt;
}

std::string defaultModel(const SearchLocations& locations) {
    std::optional<fs::path> viewerModel;
    if (locations.packageDirectory) viewerModel = locations.packageDirectory->parent_path() / "viewer" / "house.glb";
    if (viewerModel && isFile(*viewerModel)) return viewerModel->string();
    if (auto bundled = bundledModel(locations)) return *bundled;
    if (viewerModel) return viewerModel->string();
    return (locations.currentDirectory / "house.glb").string();
}

std::string defaultModel() { return defaultModel(processSearchLocations()); }

std::vector<std::string> sceneCandidates(const std::string& modelPath, const SearchLocations& locations) {
    std::vector<std::string> out;
    fs::path modelDir = fs::path(modelPath).parent_path();
    out.push_back((modelDir / "scene.json").string());
    if (locations.resourcesDirectory) out.push_back((*locations.resourcesDirectory / "sample_scene.json").string());
    if (locations.packageDirectory) out.push_back((*locations.packageDirectory / "sample_scene.json").string());
    out.push_back((locations.currentDirectory / "sample_scene.json").string());
    return out;
}

} // namespace qv
