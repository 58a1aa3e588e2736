#!/usr/bin/env bash
# Installs the library as the README says, into a temporary prefix, and
# proves that a host can use the installed package alone:
#   - what is installed: the SONAMEs, the stand-ins' names and headers, the
#     three components, nothing that points into the source or build tree;
#   - the README's host program and host test, extracted from README.md and
#     built and run with the README's own commands (CMake and pkg-config);
#   - examples/host-app against the simulation component;
#   - the exported symbols of the installed library.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
cd "${root}"

scripts/setup.sh

fail() {
  echo "check-install: $*" >&2
  exit 1
}

work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT
export prefix="${work}/prefix"
export CMAKE_BUILD_PARALLEL_LEVEL=2 CMAKE_GENERATOR=Ninja
snippets="${work}/readme"
scripts/ci/readme-snippets.sh "${snippets}"
cmp -s "${snippets}/host-test/HostTest.cpp" examples/host-test/HostTest.cpp ||
  fail "the README's host test differs from examples/host-test/HostTest.cpp"

echo "== install as the README says, into ${prefix}"
bash -euo pipefail "${snippets}/install.sh" >"${work}/install.log" ||
  { cat "${work}/install.log" >&2; fail "the README's install commands failed"; }
build="${root}/build/rel"  # where the README's commands build

echo "== what is installed"
libdir="${prefix}/lib"
for name in reachabilityCache reachabilityCacheSimMetric reachabilityCacheSimTaskExecutor \
  reachabilityCacheSimApplianceDriver reachabilityCacheSimScheduling; do
  readelf -d "${libdir}/lib${name}.so.2" | grep -q "SONAME.*\[lib${name}\.so\.2\]" ||
    fail "lib${name}.so.2 is missing or lacks the SONAME lib${name}.so.2"
done
if ls "${libdir}" | grep -v '^libreachabilityCache' | grep '\.so'; then
  fail "the shared libraries above do not carry the package's name"
fi
for dir in applianceDriver metrics taskExecutor scheduling; do
  if find "${prefix}/include" -type d -name "${dir}" | grep -v "^${prefix}/include/reachabilityCache/simulation/"; then
    fail "platform headers installed where they could shadow the platform kit's (above)"
  fi
done
for file in lib/cmake/reachabilityCache/reachabilityCacheSimulationTargets.cmake \
  lib/cmake/reachabilityCache/reachabilityCacheTestingTargets.cmake \
  lib/pkgconfig/reachabilityCache.pc lib/pkgconfig/reachabilityCache-simulation.pc \
  lib/pkgconfig/reachabilityCache-testing.pc lib/libreachabilityCacheTesting.a \
  include/reachabilityCache/testing/VirtualTime.h include/reachabilityCache/Version.h \
  include/reachabilityCache/simulation/applianceDriver/SimulatedApplianceDriver.h \
  share/doc/reachabilityCache/LICENSE share/doc/reachabilityCache/CHANGELOG.md; do
  [ -e "${prefix}/${file}" ] || fail "${file} was not installed"
done
# A platform kit's own driver header on the include path wins over the
# stand-in's, even where the package's flags come first.
mkdir -p "${work}/kit/applianceDriver"
{ echo '#define FROM_THE_KIT 1'; cat platform/applianceDriver/ApplianceDriver.h; } \
  >"${work}/kit/applianceDriver/ApplianceDriver.h"
# shellcheck disable=SC2046  # pkg-config prints several flags
printf '#include "reachabilityCache/ReachabilityCache.h"\n#ifndef FROM_THE_KIT\n#error\n#endif\n' |
  g++ -std=c++17 -fsyntax-only -x c++ - \
    $(PKG_CONFIG_PATH="${libdir}/pkgconfig" pkg-config --cflags reachabilityCache) \
    -I "${work}/kit" || fail "the stand-ins' driver header shadows a platform kit's"
# The library's lock machinery stays internal: no installed header names it.
if grep -rlE '\bRC_[A-Z_]+|\bMutexLock\b|"sync/' "${prefix}/include"; then
  fail "the installed headers above use the library's internal lock machinery"
fi
if grep -rlF "${root}" "${prefix}/include" "${prefix}/lib/cmake" "${prefix}/lib/pkgconfig"; then
  fail "the files above refer to the source or build tree"
fi
for object in "${libdir}"/*.so; do
  if readelf -d "${object}" | grep -E 'R(UN)?PATH' | grep -qF "${root}"; then
    fail "the run path of ${object} points into the build tree"
  fi
done

echo "== the library component alone"
cmake --install "${build}" --component library --prefix "${work}/library-only" >/dev/null
if find "${work}/library-only" -name '*Sim*' -o -name '*Testing*' -o -name simulation -o -name testing |
  grep .; then
  fail "the library component installed the files above of another component"
fi
# On a host the library needs its stand-ins: find_package says so.
if cmake -S "${snippets}/host-app" -B "${work}/library-only-app" \
  -DCMAKE_PREFIX_PATH="${work}/library-only" >"${work}/library-only.log" 2>&1 ||
  ! grep -q 'needs its simulation component' "${work}/library-only.log"; then
  cat "${work}/library-only.log" >&2
  fail "find_package accepted a host install without the simulation component"
fi

# The README's programs and examples/host-app see only the installed package.
export CXXFLAGS="-Wall -Wextra -Wpedantic -Werror"
for snippet in host-app host-test; do
  echo "== the README's ${snippet}, built and run with its commands"
  (cd "${snippets}/${snippet}" && bash -euo pipefail build.sh) >"${work}/${snippet}.log" 2>&1 ||
    { cat "${work}/${snippet}.log" >&2; fail "the README's ${snippet} failed"; }
done

echo "== examples/host-app"
cmake -S examples/host-app -B "${work}/example-host-app" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_PREFIX_PATH="${prefix}" >/dev/null
cmake --build "${work}/example-host-app"
"${work}/example-host-app/hostApp" 2>"${work}/example-host-app.log" ||
  { cat "${work}/example-host-app.log" >&2; fail "examples/host-app failed"; }

echo "== exported symbols"
scripts/ci/check-exports.sh "${libdir}/libreachabilityCache.so.2"
echo "check-install: passed"
