#!/usr/bin/env bash
# Exercises the project's Android branch without the NDK (see
# scripts/ci/android-branch/toolchain.cmake): configures with ANDROID set,
# builds and installs for arm64 with a stand-in for the platform's driver
# library, and checks that the simulation, the tests and the tools are left
# out, that the library links `log` and the driver library named by
# REACHABILITY_CACHE_APPLIANCE_DRIVER_LIBRARY, and that a host's test builds
# against the installed package and passes under qemu-aarch64.
#
# What it cannot prove: that the NDK's own compiler, sysroot and toolchain
# file accept the project. Run scripts/ci/arm64-tests.sh first or let this
# script install the same packages.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
cd "${root}"

scripts/setup.sh g++-aarch64-linux-gnu qemu-user \
  android-liblog-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64

fail() {
  echo "android-branch-check: $*" >&2
  exit 1
}

toolchain="${root}/scripts/ci/android-branch/toolchain.cmake"
build="${root}/build/ci-android-branch"
work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT
prefix="${work}/prefix"

echo "== the platform's driver library (stand-in)"
driver="${work}/libstubApplianceDriver.so"
aarch64-linux-gnu-g++ -std=c++17 -O2 -fPIC -shared -Wall -Wextra -Werror \
  -Wl,-soname,libstubApplianceDriver.so -I "${root}/platform" \
  "${root}/scripts/ci/android-branch/StubApplianceDriver.cpp" -o "${driver}"

echo "== configure, build and install with ANDROID set"
rm -rf "${build}"
cmake -S "${root}" -B "${build}" -G Ninja -DCMAKE_TOOLCHAIN_FILE="${toolchain}" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DREACHABILITY_CACHE_BUILD_TESTS=ON \
  -DREACHABILITY_CACHE_BUILD_TOOLS=ON \
  -DREACHABILITY_CACHE_APPLIANCE_DRIVER_LIBRARY="${driver}" >/dev/null
cmake --build "${build}" -j2
cmake --install "${build}" --prefix "${prefix}" >/dev/null

echo "== what the Android branch leaves out and links"
[ ! -d "${build}/tests" ] || fail "the tests were configured"
[ ! -d "${build}/tools" ] || fail "the tools were configured"
! grep -q SimulatedApplianceDriver "${build}/build.ninja" || fail "the simulation was compiled"
[ ! -e "${prefix}/include/reachabilityCache/platform/applianceDriver/SimulatedApplianceDriver.h" ] ||
  fail "the simulated driver's header was installed"
[ ! -e "${prefix}/lib/libverandaApplianceDriver.so" ] || fail "the simulated driver was installed"
[ -e "${prefix}/include/reachabilityCache/platform/applianceDriver/ApplianceDriver.h" ] ||
  fail "the driver's header is missing"
dynamic="$(readelf -d "${prefix}/lib/libreachabilityCache.so.2")"
grep -q 'NEEDED.*\[liblog\.so' <<<"${dynamic}" || fail "libreachabilityCache.so does not need liblog"
grep -q 'NEEDED.*\[libstubApplianceDriver\.so\]' <<<"${dynamic}" ||
  fail "libreachabilityCache.so does not need the platform's driver library"
! grep -q 'libverandaApplianceDriver' <<<"${dynamic}" || fail "the simulated driver is needed"
! grep -q 'RUNPATH\|RPATH' <<<"${dynamic}" || fail "a device library carries a run path"

echo "== a host's test against the installed package, under qemu-aarch64"
cmake -S "${root}/examples/host-test" -B "${work}/host-test" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="${toolchain}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_PREFIX_PATH="${prefix}" \
  -DCMAKE_EXE_LINKER_FLAGS="-Wl,-rpath-link,${work}:/usr/lib/aarch64-linux-gnu/android" >/dev/null
cmake --build "${work}/host-test" -j2
LD_LIBRARY_PATH="${prefix}/lib:${work}:/usr/lib/aarch64-linux-gnu/android" \
  qemu-aarch64 "${work}/host-test/hostTest" 2>"${work}/host-test.log" ||
  { cat "${work}/host-test.log" >&2; fail "the host's test failed"; }
echo "android-branch-check: passed"
