#!/usr/bin/env bash
# Installs the library into a temporary prefix and proves that a host can use
# the installed package alone: builds examples/host-app and examples/host-test
# against it with find_package (and host-app once more through pkg-config),
# runs them, and checks the exported symbols of the installed library.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
cd "${root}"

scripts/setup.sh

build="${root}/build/ci-install"
work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT
prefix="${work}/prefix"

echo "== build and install into ${prefix}"
cmake -S "${root}" -B "${build}" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DREACHABILITY_CACHE_BUILD_TESTS=OFF -DREACHABILITY_CACHE_BUILD_TOOLS=OFF \
  -DREACHABILITY_CACHE_BUILD_BENCHMARKS=OFF -DREACHABILITY_CACHE_BUILD_FUZZERS=OFF >/dev/null
cmake --build "${build}" -j2
cmake --install "${build}" --prefix "${prefix}" >/dev/null

library="${prefix}/lib/libreachabilityCache.so.2"
readelf -d "${library}" | grep -q 'SONAME.*\[libreachabilityCache\.so\.2\]' ||
  { echo "check-install: ${library} lacks the SONAME libreachabilityCache.so.2" >&2; exit 1; }

if grep -rlF "${root}" "${prefix}/include" "${prefix}/lib/cmake" "${prefix}/lib/pkgconfig"; then
  echo "check-install: the files above refer to the source or build tree" >&2
  exit 1
fi
for object in "${prefix}"/lib/*.so; do
  if readelf -d "${object}" | grep -E 'R(UN)?PATH' | grep -qF "${root}"; then
    echo "check-install: the run path of ${object} points into the build tree" >&2
    exit 1
  fi
done

# Only the installed package is visible to the examples: not the source tree,
# not the build tree.
for example in host-app host-test; do
  echo "== build examples/${example} against the installed package"
  cmake -S "${root}/examples/${example}" -B "${work}/${example}" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_PREFIX_PATH="${prefix}" >/dev/null
  cmake --build "${work}/${example}" -j2
done

echo "== run host-app"
"${work}/host-app/hostApp" 2>"${work}/host-app.log" ||
  { echo "check-install: host-app failed; its log:" >&2; cat "${work}/host-app.log" >&2; exit 1; }
echo "== run host-test"
"${work}/host-test/hostTest" 2>"${work}/host-test.log" ||
  { echo "check-install: host-test failed; its log:" >&2; cat "${work}/host-test.log" >&2; exit 1; }

echo "== build and run host-app through pkg-config"
export PKG_CONFIG_PATH="${prefix}/lib/pkgconfig"
# shellcheck disable=SC2046  # pkg-config prints several flags
g++ -std=c++17 -Wall -Wextra -Werror "${root}/examples/host-app/main.cpp" -o "${work}/hostAppPc" \
  $(pkg-config --cflags --libs reachabilityCache-testing) -Wl,-rpath,"${prefix}/lib"
"${work}/hostAppPc" 2>"${work}/host-app-pc.log" >/dev/null ||
  { echo "check-install: host-app (pkg-config) failed; its log:" >&2; cat "${work}/host-app-pc.log" >&2; exit 1; }

echo "== exported symbols"
"${root}/scripts/ci/check-exports.sh" "${library}"
echo "check-install: passed"
