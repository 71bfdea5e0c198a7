#!/usr/bin/env bash
# Sets up the machine, builds everything and runs every test with ctest.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
