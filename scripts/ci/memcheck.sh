#!/usr/bin/env bash
# Runs every test binary of the dev build under valgrind memcheck: an invalid
# access, a use of uninitialised memory or a leak fails the script (a test
# that only fails its own expectations under valgrind's slowness is reported,
# not failed). The stress test runs a three-second load phase.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/setup.sh  # installs valgrind among the rest
cmake --preset dev >/dev/null
cmake --build --preset dev

logs=$(mktemp -d)
trap 'rm -rf "${logs}"' EXIT
failed=()
for binary in build/dev/tests/*Tests; do
  [ -x "${binary}" ] || continue
  name=$(basename "${binary}")
  start=${SECONDS}
  status=0
  REACHABILITY_CACHE_STRESS_SECONDS=3 REACHABILITY_CACHE_STRESS_SEED=20251122 \
    valgrind --tool=memcheck --error-exitcode=99 \
    --leak-check=full --errors-for-leak-kinds=definite,indirect,possible \
    "${binary}" --gtest_brief=1 >"${logs}/${name}.log" 2>&1 || status=$?
  case ${status} in
    0) echo "memcheck: ${name} clean ($((SECONDS - start)) s)" ;;
    99)
      tail -n 80 "${logs}/${name}.log" >&2
      echo "memcheck: ${name} has memory errors or leaks ($((SECONDS - start)) s)" >&2
      failed+=("${name}")
      ;;
    1)
      # No memory error, but a test failed: valgrind slows every thread down
      # twentyfold, which timing-sensitive tests may not survive. The normal
      # suite judges the test itself.
      grep -E 'Failure|FAILED' "${logs}/${name}.log" | head -n 20 >&2 || true
      echo "memcheck: ${name} memory clean, but a test failed under valgrind" >&2
      ;;
    *)
      tail -n 80 "${logs}/${name}.log" >&2
      echo "memcheck: ${name} crashed or aborted (exit ${status})" >&2
      failed+=("${name}")
      ;;
  esac
done
if [ "${#failed[@]}" -gt 0 ]; then
  echo "memcheck: failures in ${failed[*]}" >&2
  exit 1
fi
echo "memcheck: no memory errors and no leaks"
