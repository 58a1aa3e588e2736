#!/usr/bin/env bash
# Sets everything up (apt packages included) and runs every test the project
# has, as CI does:
#   - the formatting check (clang-format);
#   - the suite in a normal build, with AddressSanitizer + UndefinedBehavior-
#     Sanitizer, and with ThreadSanitizer;
#   - the API reference (Doxygen), which fails on any warning about a public
#     header;
#   - the simulator's default home under AddressSanitizer;
#   - the seeded stress test under ThreadSanitizer, 2 seeds x 30 s;
#   - the suite under valgrind memcheck;
#   - clang's thread-safety analysis (the clang-tsa preset, -Werror), and the
#     check that functions expecting a lock held end in Locked;
#   - clang-tidy over src/, platform/, testing/, tools/, tests/ and bench/,
#     on two cores;
#   - the fuzzers (clang, AddressSanitizer + UBSan);
#   - install, host examples against the installed package, exported symbols;
#   - every installed public header compiled alone under a host's warnings
#     (-Wshadow, -Wconversion, -Werror...), with g++ and clang++;
#   - the Android configuration branch, and the arm64 build under qemu.
# `scripts/run-tests.sh --quick` runs only the formatting check, the normal
# build's suite and the API reference.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

step() {
  local name=$1
  shift
  local started=$SECONDS
  echo "=== ${name} ==="
  "$@"
  echo "=== ${name}: passed in $((SECONDS - started)) s ==="
}

preset() {
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1"
  ctest --preset "$1"
}

format() {
  git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror
}

# Building is the analysis: the suite itself already ran in the normal build.
# First, every function that expects a lock held must say so in its name.
thread_safety() {
  scripts/ci/check-locked-names.sh
  cmake --preset clang-tsa >/dev/null
  cmake --build --preset clang-tsa
}

api_reference() {
  cmake --build --preset dev --target docs
}

step "clang-format" format
step "normal build" preset dev
step "API reference" api_reference
if [ "${1:-}" = "--quick" ]; then
  exit 0
fi
step "address and undefined-behaviour sanitizers" preset asan
step "thread sanitizer" preset tsan
step "simulator under address sanitizer" scripts/ci/sim-asan.sh
step "stress under thread sanitizer" scripts/ci/stress.sh
step "valgrind memcheck" scripts/ci/memcheck.sh
step "thread-safety analysis" thread_safety
step "clang-tidy" scripts/ci/clang-tidy.sh
step "fuzzers" scripts/ci/fuzz.sh
step "install and host examples" scripts/ci/check-install.sh
step "public headers under a host's warnings" scripts/ci/check-headers.sh
step "android configuration" scripts/ci/android-branch-check.sh
step "arm64 under qemu" scripts/ci/arm64-tests.sh
echo "All test runs passed in $((SECONDS / 60)) min $((SECONDS % 60)) s."
