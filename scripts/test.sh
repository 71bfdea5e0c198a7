#!/usr/bin/env bash
# Sets up the machine, builds everything with warnings as errors and runs every test with ctest.
#   BUILD_DIR   build directory (default build)
#   BUILD_TYPE  CMake build type (default RelWithDebInfo), e.g. Release for the optimised build
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" \
  -DNIMBORRA_WARNINGS_AS_ERRORS=ON
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
