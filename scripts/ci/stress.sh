#!/usr/bin/env bash
# Builds the ThreadSanitizer preset and runs the cache stress test for 30 s
# under each of two seeds: a fixed one and a fresh one (both printed, so that
# a failure can be replayed with REACHABILITY_CACHE_STRESS_SEED=<seed>).
# Overrides: STRESS_SEEDS="1 2 3", STRESS_SECONDS=60.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/setup.sh
cmake --preset tsan >/dev/null
cmake --build --preset tsan --target stressTests

seeds=${STRESS_SEEDS:-"20251122 $(od -An -N4 -tu4 /dev/urandom | tr -d ' ')"}
seconds=${STRESS_SECONDS:-30}
for seed in ${seeds}; do
  echo "=== stress: seed ${seed}, ${seconds} s, ThreadSanitizer ==="
  TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1" \
    REACHABILITY_CACHE_STRESS_SEED="${seed}" \
    REACHABILITY_CACHE_STRESS_SECONDS="${seconds}" \
    build/tsan/tests/stressTests
done
echo "stress: passed for seeds ${seeds}"
