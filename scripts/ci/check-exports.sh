#!/usr/bin/env bash
# Checks that libreachabilityCache.so exports exactly the public API: the
# dynamic symbols it defines, demangled, are compared with the checked-in list
# scripts/ci/expected-exports.txt and any difference fails with a diff.
#
#   scripts/ci/check-exports.sh [--update] [LIBRARY]
#
# LIBRARY defaults to a release build made in build/ci-exports. --update
# rewrites the list instead (for an intended change of the public API).
# NM names the nm to use (e.g. aarch64-linux-gnu-nm for an arm64 library).
#
# Listed: every defined symbol except the vague-linkage copies of standard
# library templates (weak functions, typeinfo and guard objects under std:: or
# __gnu_cxx::) that the compiler emits wherever an exported type instantiates
# them. Any strong symbol outside the public classes (a leaked internal class,
# a C function) therefore shows up in the diff. The checker's building blocks
# and the store's locked lookups fail the check even in an updated list.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
expected="${root}/scripts/ci/expected-exports.txt"
nm_tool="${NM:-nm}"

update=0
if [ "${1:-}" = "--update" ]; then
  update=1
  shift
fi
library="${1:-}"

if [ -z "${library}" ]; then
  build="${root}/build/ci-exports"
  cmake -S "${root}" -B "${build}" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DREACHABILITY_CACHE_BUILD_TESTS=OFF -DREACHABILITY_CACHE_BUILD_TOOLS=OFF >/dev/null
  cmake --build "${build}" --target reachabilityCache -j2 >/dev/null
  library="${build}/src/libreachabilityCache.so"
fi
if [ ! -f "${library}" ]; then
  echo "check-exports: no library at ${library}" >&2
  exit 2
fi

# nm prints "ADDRESS TYPE NAME"; NAME may contain blanks.
actual="$(mktemp)"
trap 'rm -f "${actual}"' EXIT
"${nm_tool}" -D --defined-only -C "${library}" |
  awk '{
    type = $2
    name = $0
    sub(/^[^ ]+ [^ ]+ /, "", name)
    bare = name
    sub(/^(typeinfo name for |typeinfo for |vtable for |VTT for |guard variable for )/, "", bare)
    sub(/^[a-z ]+ (std::|__gnu_cxx::)/, "std::", bare)
    if (type ~ /^[WwVvu]$/ && bare ~ /^(std::|__gnu_cxx::)/) next
    print name
  }' | LC_ALL=C sort -u >"${actual}"

# Internals that hosts cannot call are never exported, whatever the list says:
# the checker's building blocks and the store's lookups under its lock.
internal='::(buildEndpointLookupMap|processDiscoveredDevices|updateResultWithDiscoveredDevice|'
internal+='convertToReachabilityCheckResult|isSupportedAdapter|validateCallbackParams|'
internal+='isCallbackIdRegistered|createStateChangeCallbackWrapper|findEndpointInVector|[A-Za-z]+Locked)\('
if grep -E "${internal}" "${actual}" >&2; then
  echo "check-exports: ${library} exports the internals above" >&2
  exit 1
fi

if [ "${update}" -eq 1 ]; then
  cp "${actual}" "${expected}"
  echo "check-exports: wrote $(wc -l <"${expected}") symbols to ${expected}"
  exit 0
fi

if ! diff -u --label expected-exports.txt --label "exported by ${library}" "${expected}" "${actual}"; then
  echo "check-exports: the exported symbols of ${library} changed (lines with + are new," \
    "- are gone). If the public API changed on purpose, run scripts/ci/check-exports.sh --update." >&2
  exit 1
fi
echo "check-exports: ${library} exports the $(wc -l <"${actual}") expected symbols"
