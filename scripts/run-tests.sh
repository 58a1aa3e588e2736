#!/usr/bin/env bash
# Sets everything up and runs the whole test suite: the normal build, then
# the ThreadSanitizer build.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

run_preset() {
  local preset=$1
  echo "=== ${preset} ==="
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}"
  ctest --preset "${preset}"
}

presets=("$@")
if [ "${#presets[@]}" -eq 0 ]; then
  presets=(dev tsan)
fi
for preset in "${presets[@]}"; do
  run_preset "${preset}"
done
echo "All test runs passed: ${presets[*]}"
