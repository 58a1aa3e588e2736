#!/usr/bin/env bash
# Exercises the project's Android branch without the NDK (see
# cmake/toolchains/android-branch-ci.cmake): builds, outside the package, a
# stand-in platform kit for arm64 (the driver, task executor and metric
# libraries with their headers), configures the project with ANDROID set and
# the kit named by the REACHABILITY_CACHE_* settings, builds and installs it,
# and checks that
#   - the simulation, the test support, the tests and the tools are left out,
#     and the install holds the library and its headers only;
#   - the library links `log` and the kit's three libraries, and no stand-in;
#   - the README's host program builds against the installed package and the
#     kit's headers, and runs under qemu-aarch64.
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

toolchain="${root}/cmake/toolchains/android-branch-ci.cmake"
build="${root}/build/ci-android-branch"
work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT
prefix="${work}/prefix"
kit="${work}/kit"
liblog_dir=/usr/lib/aarch64-linux-gnu/android

echo "== the platform kit (stand-ins built outside the package)"
mkdir -p "${kit}/include" "${kit}/lib"
for header in applianceDriver/ApplianceDriver.h metrics/Metric.h taskExecutor/TaskExecutor.h \
  taskExecutor/Message.h; do
  mkdir -p "${kit}/include/$(dirname "${header}")"
  cp "platform/${header}" "${kit}/include/${header}"
done
kit_library() {
  local name=$1
  shift
  aarch64-linux-gnu-g++ -std=c++17 -O2 -fPIC -shared -Wall -Wextra -Werror \
    -Wl,--no-undefined -Wl,-soname,"lib${name}.so" -I "${kit}/include" -I platform \
    "$@" -o "${kit}/lib/lib${name}.so"
}
kit_library stubApplianceDriver scripts/ci/android-branch/StubApplianceDriver.cpp
kit_library stubMetric platform/metrics/Metric.cpp -I /usr/include/android -L "${liblog_dir}" -llog
# The scheduling stand-in locks with the library's header-only Mutex (src/sync).
kit_library stubTaskExecutor platform/taskExecutor/TaskExecutor.cpp \
  platform/scheduling/DelayedTaskQueue.cpp platform/scheduling/TimeSource.cpp -I src -pthread

echo "== configure, build and install with ANDROID set"
rm -rf "${build}"
cmake -S "${root}" -B "${build}" -G Ninja -DCMAKE_TOOLCHAIN_FILE="${toolchain}" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DREACHABILITY_CACHE_BUILD_TESTS=ON \
  -DREACHABILITY_CACHE_BUILD_TOOLS=ON \
  -DREACHABILITY_CACHE_APPLIANCE_DRIVER_LIBRARY="${kit}/lib/libstubApplianceDriver.so" \
  -DREACHABILITY_CACHE_TASK_EXECUTOR_LIBRARY="${kit}/lib/libstubTaskExecutor.so" \
  -DREACHABILITY_CACHE_METRIC_LIBRARY="${kit}/lib/libstubMetric.so" \
  -DREACHABILITY_CACHE_PLATFORM_INCLUDE_DIR="${kit}/include" >/dev/null
cmake --build "${build}" -j2
cmake --install "${build}" --prefix "${prefix}" >/dev/null

echo "== what the Android branch leaves out, installs and links"
[ ! -d "${build}/tests" ] || fail "the tests were configured"
[ ! -d "${build}/tools" ] || fail "the tools were configured"
[ ! -d "${build}/testing" ] || fail "the test support was configured"
! grep -q 'SimulatedApplianceDriver\|platform/scheduling\|platform/metrics\|platform/taskExecutor' \
  "${build}/build.ninja" || fail "a stand-in was compiled"
! grep -q -- "-I${root}/platform" "${build}/build.ninja" ||
  fail "the library was compiled against this tree's platform headers, not the kit's"
# Only the library and its headers, with the package files that describe them.
unexpected="$(cd "${prefix}" && find . -type f -o -type l | sed 's|^\./||' | grep -Ev \
  '^(lib/libreachabilityCache\.so(\.2(\.[0-9]+\.[0-9]+)?)?|include/reachabilityCache/[A-Za-z]+\.h|lib/cmake/reachabilityCache/(reachabilityCache(Config|ConfigVersion|Targets(-[a-z]+)?)|ReachabilityCacheLiblog)\.cmake|lib/pkgconfig/reachabilityCache\.pc|share/doc/reachabilityCache/(LICENSE|CHANGELOG\.md))$' || true)"
[ -z "${unexpected}" ] || fail "installed beyond the library and its headers: ${unexpected}"
[ -e "${prefix}/include/reachabilityCache/ReachabilityCache.h" ] || fail "the public headers are missing"
dynamic="$(readelf -d "${prefix}/lib/libreachabilityCache.so.2")"
for needed in 'liblog\.so' 'libstubApplianceDriver\.so' 'libstubTaskExecutor\.so' 'libstubMetric\.so'; do
  grep -q "NEEDED.*\[${needed}" <<<"${dynamic}" ||
    fail "libreachabilityCache.so does not need ${needed//\\/}"
done
! grep -q 'reachabilityCacheSim' <<<"${dynamic}" || fail "a stand-in of the package is needed"
! grep -q 'RUNPATH\|RPATH' <<<"${dynamic}" || fail "a device library carries a run path"

echo "== find_package refuses the simulation component"
if cmake -S examples/host-app -B "${work}/host-app" -DCMAKE_TOOLCHAIN_FILE="${toolchain}" \
  -DCMAKE_PREFIX_PATH="${prefix}" >"${work}/host-app.log" 2>&1 ||
  ! grep -q "component 'simulation' is not installed" "${work}/host-app.log"; then
  cat "${work}/host-app.log" >&2
  fail "find_package accepted the simulation component of an Android install"
fi

echo "== the README's host program against the installed package, under qemu-aarch64"
scripts/ci/readme-snippets.sh "${work}/readme" >/dev/null
cmake -S "${work}/readme/host-app" -B "${work}/readme-app" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="${toolchain}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_PREFIX_PATH="${prefix}" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" \
  -DCMAKE_EXE_LINKER_FLAGS="-Wl,-rpath-link,${kit}/lib:${liblog_dir}" >/dev/null
cmake --build "${work}/readme-app" -j2
LD_LIBRARY_PATH="${prefix}/lib:${kit}/lib:${liblog_dir}" \
  qemu-aarch64 "${work}/readme-app/myApp" >"${work}/readme-app.out" 2>"${work}/readme-app.log" ||
  { cat "${work}/readme-app.log" >&2; fail "the README's host program failed"; }
# The kit's driver refuses every check: the cache records the failure.
grep -q 'living-room-lamp reachable: no' "${work}/readme-app.out" ||
  fail "the README's host program printed no answer"
grep -q 'metricName=ReachabilityCache' "${work}/readme-app.log" ||
  fail "no metric reached the kit's metric library"
echo "android-branch-check: passed"
