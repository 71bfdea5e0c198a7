#!/usr/bin/env bash
# Builds everything with clang 14 and sanitizers and runs every test under them.
#   scripts/sanitize.sh address   AddressSanitizer + UndefinedBehaviorSanitizer, leaks checked
#   scripts/sanitize.sh thread    ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:?usage: scripts/sanitize.sh address|thread}
case $mode in
  address)
    sanitizers=address,undefined
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    ;;
  thread)
    sanitizers=thread
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp
    ;;
  *)
    echo "unknown mode: $mode" >&2
    exit 2
    ;;
esac

bash scripts/setup.sh
build=${BUILD_DIR:-build-$mode}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=clang++-14 -DNIMBORRA_SANITIZE="$sanitizers" -DNIMBORRA_WARNINGS_AS_ERRORS=ON
cmake --build "$build"
# The packaging tests build other programs without the sanitizers; they run in the plain build.
# ThreadSanitizer needs a memory layout that full address-space randomisation can break, so the
# tests run without it where setarch allows.
runner=()
if [[ $mode == thread ]] && setarch "$(uname -m)" -R true 2>/dev/null; then
  runner=(setarch "$(uname -m)" -R)
fi
"${runner[@]}" ctest --test-dir "$build" --output-on-failure -j "$(nproc)" -E '^packaging\.'
