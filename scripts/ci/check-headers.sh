#!/usr/bin/env bash
# Compiles every installed public header alone, as a host includes it (the
# library's, the simulation's and the test support's), with g++ and clang++
# under the warnings a host may build with:
#   -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror   (clang: -Wshadow-all)
# and checks that the installed version header names the package's version.
#
#   scripts/ci/check-headers.sh [PREFIX]
#
# Without PREFIX the package is installed as the README says (its build in
# build/rel, as scripts/ci/check-install.sh makes it) into a temporary
# prefix. The simulation's headers are searched with -I here, not with the
# package's -idirafter, so that their warnings are not taken for a system
# header's and hidden.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
cd "${root}"

fail() {
  echo "check-headers: $*" >&2
  exit 1
}

work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT
prefix="${1:-}"
if [ -z "${prefix}" ]; then
  export prefix="${work}/prefix"
  export CMAKE_BUILD_PARALLEL_LEVEL=2 CMAKE_GENERATOR=Ninja
  scripts/ci/readme-snippets.sh "${work}/readme"
  bash -euo pipefail "${work}/readme/install.sh" >"${work}/install.log" 2>&1 ||
    { cat "${work}/install.log" >&2; fail "the README's install commands failed"; }
fi
include="${prefix}/include"
simulation="${include}/reachabilityCache/simulation"
[ -d "${simulation}" ] || fail "no simulation headers under ${prefix}: install every component"

# One line per header: the name a host includes it by.
find "${include}" -name '*.h' | sort | while read -r header; do
  case "${header}" in
    "${simulation}"/*) echo "${header#"${simulation}"/}" ;;
    *) echo "${header#"${include}"/}" ;;
  esac
done >"${work}/headers"
[ -s "${work}/headers" ] || fail "no headers under ${include}"

# The host's warnings beside the shadow warning of each compiler.
export warnings="-Wall -Wextra -Wpedantic -Wconversion -Werror"
# compile_alone COMPILER SHADOW-FLAG HEADER: prints the compiler's complaints.
compile_alone() {
  # shellcheck disable=SC2086  # the warnings are words
  printf '#include "%s"\n' "$3" |
    "$1" -std=c++17 -fsyntax-only -x c++ - ${warnings} "$2" -I "${include}" -I "${simulation}" 2>&1 ||
    echo "check-headers: $3 fails under $1 $2"
}
export -f compile_alone
export include simulation
failures="${work}/failures"
for compiler in "g++ -Wshadow" "clang++ -Wshadow-all"; do
  # shellcheck disable=SC2086  # the compiler and its shadow flag
  xargs -P 2 -I{} bash -c 'compile_alone "$@"' _ ${compiler} {} <"${work}/headers"
done >"${failures}"
if [ -s "${failures}" ]; then
  cat "${failures}" >&2
  fail "the headers above do not compile alone under the warnings"
fi
echo "check-headers: $(wc -l <"${work}/headers") headers compile alone with g++ and clang++"

# The version macros agree with each other and with the package.
cat >"${work}/version.cpp" <<'EOF'
#include <cstdio>

#include "reachabilityCache/Version.h"

int main() {
  std::printf("%s %d.%d.%d %d\n", REACHABILITY_CACHE_VERSION_STRING,
              REACHABILITY_CACHE_VERSION_MAJOR, REACHABILITY_CACHE_VERSION_MINOR,
              REACHABILITY_CACHE_VERSION_PATCH, REACHABILITY_CACHE_VERSION);
}
EOF
# shellcheck disable=SC2086  # the warnings are words
g++ -std=c++17 ${warnings} -I "${include}" "${work}/version.cpp" -o "${work}/version"
read -r text numbers number <<<"$("${work}/version")"
package="$(PKG_CONFIG_PATH="${prefix}/lib/pkgconfig" pkg-config --modversion reachabilityCache)"
IFS=. read -r major minor patch <<<"${package}"
if [ "${text}" != "${package}" ] || [ "${numbers}" != "${package}" ] ||
  [ "${number}" != "$((major * 10000 + minor * 100 + patch))" ]; then
  fail "Version.h says '${text}', ${numbers}, ${number}; the package is ${package}"
fi
echo "check-headers: Version.h names version ${package}"
