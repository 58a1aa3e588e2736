#!/usr/bin/env bash
# Builds the reachability simulator and its tests with AddressSanitizer and
# UndefinedBehaviorSanitizer, runs the tests and plays the default home: no
# fault and no leak, also at shutdown.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/setup.sh
build=build/asan
cmake --preset asan >/dev/null
cmake --build "${build}" --target reachability-sim simTests -j2
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
"${build}/tests/simTests"
"${build}/bin/reachability-sim" --quiet --timeline "${build}/default-home.svg" >/dev/null
echo "sim-asan: passed"
