#!/usr/bin/env bash
# Runs clang-tidy, with the repository's .clang-tidy, over every source of the
# library, the platform stand-ins and the installed test support (src/,
# platform/, testing/); their headers are checked through them. Any finding
# fails the script. The compile commands come from the clang-tsa build, which
# the thread-safety step has usually configured already. Two files at a time,
# one per core: override with TIDY_JOBS.
set -euo pipefail
cd "$(dirname "$0")/../.."

build=build/clang-tsa
if [ ! -f "${build}/compile_commands.json" ]; then
  cmake --preset clang-tsa >/dev/null
fi
# Headers generated at configure time are all a source needs from the build.

git ls-files 'src/*.cpp' 'platform/*.cpp' 'testing/*.cpp' |
  xargs -P "${TIDY_JOBS:-2}" -n 1 \
    clang-tidy -p "${build}" --quiet --warnings-as-errors='*' 2> >(grep -v ' warnings\? generated' >&2)
echo "clang-tidy: src/, platform/ and testing/ are clean"
