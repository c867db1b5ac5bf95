# Every dependency is a Debian 12 package; scripts/install-deps.sh installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(TBB REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(embree 3 REQUIRED)
pkg_check_modules(QV_PNG REQUIRED IMPORTED_TARGET libpng)
pkg_check_modules(QV_STB REQUIRED IMPORTED_TARGET stb)
pkg_check_modules(QV_FREETYPE REQUIRED IMPORTED_TARGET freetype2)
# FFmpeg 5.1 (Debian 12) for H.264/HEVC video through libx264 and libx265.
pkg_check_modules(QV_FFMPEG REQUIRED IMPORTED_TARGET libavformat libavcodec libswscale libavutil)

add_library(qv_deps INTERFACE)
target_link_libraries(qv_deps INTERFACE
  TBB::tbb nlohmann_json::nlohmann_json embree PkgConfig::QV_PNG PkgConfig::QV_STB PkgConfig::QV_FREETYPE
  PkgConfig::QV_FFMPEG Threads::Threads)
