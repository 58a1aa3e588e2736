#!/usr/bin/env bash
# Runs clang-tidy, with the repository's .clang-tidy (the naming rules
# included), over every source of the library, the platform stand-ins, the
# installed test support, the tools, the tests and the benchmarks (src/,
# platform/, testing/, tools/, tests/, bench/); their headers are checked
# through them, system headers (GoogleTest, CLI11, nlohmann-json and the
# rest of the third-party code) never. Any finding fails the script.
#
# Each source is checked with the flags it is built with: the compile
# commands come from the clang-tsa build (which the thread-safety step has
# usually configured already), those of the fuzzers (tests/fuzz) from the fuzz
# build and those of the benchmarks from the bench build; a build that is not
# configured yet is configured here (a few seconds each, nothing is built).
# Two files at a time, one per core: override with TIDY_JOBS.
set -euo pipefail
cd "$(dirname "$0")/../.."

# tidy <preset> <git pathspec>...: checks the sources named by the pathspecs.
tidy() {
  local preset=$1
  local build="build/${preset}"
  shift
  if [ ! -f "${build}/compile_commands.json" ]; then
    cmake --preset "${preset}" >/dev/null
  fi
  # Headers generated at configure time are all a source needs from the build.
  git ls-files "$@" |
    xargs -r -P "${TIDY_JOBS:-2}" -n 1 \
      clang-tidy -p "${build}" --quiet --warnings-as-errors='*' 2> >(grep -v ' warnings\? generated' >&2)
}

status=0
tidy clang-tsa 'src/*.cpp' 'platform/*.cpp' 'testing/*.cpp' 'tools/*.cpp' 'tests/*.cpp' \
  ':!tests/fuzz/*' || status=1
tidy fuzz 'tests/fuzz/*.cpp' || status=1
tidy bench 'bench/*.cpp' || status=1
if [ "${status}" -ne 0 ]; then
  echo "clang-tidy: findings above" >&2
  exit 1
fi
echo "clang-tidy: src/, platform/, testing/, tools/, tests/ and bench/ are clean"
