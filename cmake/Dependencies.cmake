# Every dependency is a Debian 12 package; scripts/install-deps.sh installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(TBB REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(embree 3 REQUIRED)
pkg_check_modules(QV_PNG REQUIRED IMPORTED_TARGET libpng)
pkg_check_modules(QV_STB REQUIRED IMPORTED_TARGET stb)
pkg_check_modules(QV_FREETYPE REQUIRED IMPORTED_TARGET freetype2)

add_library(qv_deps INTERFACE)
target_link_libraries(qv_deps INTERFACE
  TBB::tbb nlohmann_json::nlohmann_json embree PkgConfig::QV_PNG PkgConfig::QV_STB PkgConfig::QV_FREETYPE Threads::Threads)
