#!/usr/bin/env bash
# Builds and runs every unit test twice: an optimised build, then a build
# under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="-O1 -g1" -DQV_SANITIZE=ON \
  -DQV_BUILD_BENCH=OFF >/dev/null
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  LSAN_OPTIONS=suppressions="$PWD/scripts/lsan.supp" \
  ctest --test-dir build-asan --output-on-failure -j "$jobs" -LE slow
