#!/usr/bin/env bash
# Cross-builds the library and its tests for arm64 (64-bit ARM Linux, the
# devices' architecture) with Debian's g++-aarch64-linux-gnu and runs the whole
# test suite under qemu-aarch64; then checks the arm64 library's exported
# symbols against the same list as the x86-64 one. Works from a fresh Debian
# machine: adds the arm64 architecture and installs what is missing (as root).
# Death tests are left out (the arm64 test preset's filter): they re-execute
# the test binary, and qemu-user runs a foreign binary only when it is started
# through qemu, not by an execv() from inside it.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
cd "${root}"

scripts/setup.sh g++-aarch64-linux-gnu qemu-user \
  android-liblog-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64

cmake --preset arm64 >/dev/null
cmake --build --preset arm64
ctest --preset arm64

NM=aarch64-linux-gnu-nm scripts/ci/check-exports.sh build/arm64/src/libreachabilityCache.so
echo "arm64-tests: passed"
