#pragma once
// Where the model and the scene are looked for when the user names neither.
//
// The package directory is the source checkout the executable runs from: the
// first of the executable's directory and up to 8 of its ancestors that holds
// both CMakeLists.txt and Sources/Quorvane. The bundled resources (house.glb,
// sample_scene.json) are share/quorvane/ beside the executable's directory
// (an installed prefix: <prefix>/bin/quorvane, <prefix>/share/quorvane/), else
// Resources/ in the package directory.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace qv {

struct SearchLocations {
    std::optional<std::filesystem::path> packageDirectory;
    std::optional<std::filesystem::path> resourcesDirectory; // the bundled resources, when present
    std::filesystem::path currentDirectory;
};

// The nearest ancestor (itself included, at most 8 levels up) holding the
// package manifest and Sources/Quorvane.
std::optional<std::filesystem::path> findPackageDirectory(const std::filesystem::path& startDirectory);

// The bundled resources for an executable: <exe dir>/../share/quorvane, else
// <package>/Resources; each only when it is a directory.
std::optional<std::filesystem::path> findResourcesDirectory(const std::filesystem::path& executableDirectory,
                                                            const std::optional<std::filesystem::path>& packageDirectory);

// The locations for an executable at the given path (symbolic links resolved).
SearchLocations searchLocationsFor(const std::filesystem::path& executablePath,
                                   const std::filesystem::path& currentDirectory);

// The running executable's path (/proc/self/exe, else the first command-line
// argument given to setExecutableArgument).
std::filesystem::path executablePath();
void setExecutableArgument(const std::string& argv0);

// This process's locations, computed once and remembered (the current
// directory is read at each call).
SearchLocations processSearchLocations();

// The bundled house.glb, when it exists.
std::optional<std::string> bundledModel(const SearchLocations& locations);

// The model to load when --model is not given: viewer/house.glb beside the
// package directory when it exists, else the bundled model, else the viewer
// path (so that the loader reports it) or house.glb in the current directory.
std::string defaultModel(const SearchLocations& locations);
std::string defaultModel();

// The scene files tried, in order, for a model: scene.json beside it, then
// sample_scene.json in the bundled resources, the package directory and the
// current directory.
std::vector<std::string> sceneCandidates(const std::string& modelPath, const SearchLocations& locations);

} // namespace qv
