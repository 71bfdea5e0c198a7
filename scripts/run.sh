#!/usr/bin/env bash
# Sets up the machine, builds the project and runs its main program. Until the host simulator
# exists, this runs the quick subset of the tests.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" -R '^(JSON|Value)'
