#!/usr/bin/env bash
# Sets up the machine, builds the project and runs its main program, the host simulator
# apns-host, on its built-in demo session: every method of the "ApnsService" plug-in once, with
# each command echoed before its events and reply. Arguments are passed on to apns-host
# (for example --log-level debug).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNIMBORRA_BUILD_TOOLS=ON
cmake --build "$build" --target apns-host
exec "$build/tools/apns-host" --demo "$@"
