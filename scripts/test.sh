#!/usr/bin/env bash
# Sets up the machine, builds everything with warnings as errors and runs every test with ctest,
# then builds the Node client (clients/node) and runs its tests against the apns-host just built.
#   BUILD_DIR   build directory (default build)
#   BUILD_TYPE  CMake build type (default RelWithDebInfo), e.g. Release for the optimised build
#   NODE_TESTS  0 to leave the Node client out (default 1)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" \
  -DNIMBORRA_WARNINGS_AS_ERRORS=ON
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"

# The Node client, installed from its lock file (which builds it), and the far-side example that
# uses it, both against this build's host.
if [[ ${NODE_TESTS:-1} == 0 ]]; then
  exit 0
fi
host="$(cd "$build" && pwd)/tools/apns-host"
(
  cd clients/node
  npm ci --no-audit --no-fund
  APNS_HOST="$host" npm test
)
(
  cd examples/far-side-test
  npm install --offline --ignore-scripts --no-audit --no-fund
  APNS_HOST="$host" npm test
)
