#!/usr/bin/env bash
# Runs every test binary of the dev build under valgrind memcheck, except
# simTests (whose timing expectations do not survive valgrind's slowness; the
# simulator runs under AddressSanitizer in scripts/ci/sim-asan.sh). The
# stress test runs a one-second load phase. A failing test, a crash, an
# invalid access, a use of uninitialised memory or a leak fails the script.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/setup.sh  # installs valgrind among the rest
cmake --preset dev >/dev/null
cmake --build --preset dev

logs=$(mktemp -d)
trap 'rm -rf "${logs}"' EXIT
# A thread that is detached while it finishes (the simulated driver shut down
# from its own thread) may still be alive at exit; glibc's pointer to its
# thread-local block is then an interior one, which memcheck reports as a
# possible leak.
cat >"${logs}/suppressions" <<'EOF'
{
   thread-still-finishing-at-exit
   Memcheck:Leak
   match-leak-kinds: possible
   ...
   fun:_dl_allocate_tls
   ...
   fun:pthread_create*
}
EOF

failed=()
for binary in build/dev/tests/*Tests; do
  name=$(basename "${binary}")
  if [ ! -x "${binary}" ] || [ "${name}" = simTests ]; then
    continue
  fi
  start=${SECONDS}
  status=0
  REACHABILITY_CACHE_STRESS_SECONDS=1 REACHABILITY_CACHE_STRESS_SEED=20251122 \
    valgrind --tool=memcheck --error-exitcode=99 --suppressions="${logs}/suppressions" \
    --leak-check=full --errors-for-leak-kinds=definite,indirect,possible \
    "${binary}" --gtest_brief=1 >"${logs}/${name}.log" 2>&1 || status=$?
  case ${status} in
    0)
      echo "memcheck: ${name} passed, memory clean ($((SECONDS - start)) s)"
      continue
      ;;
    1) echo "memcheck: ${name} has failing tests" >&2 ;;
    99) echo "memcheck: ${name} has memory errors or leaks" >&2 ;;
    *) echo "memcheck: ${name} crashed or aborted (exit ${status})" >&2 ;;
  esac
  tail -n 80 "${logs}/${name}.log" >&2
  failed+=("${name}")
done
if [ "${#failed[@]}" -gt 0 ]; then
  echo "memcheck: failures in ${failed[*]}" >&2
  exit 1
fi
echo "memcheck: every test passed, no memory errors and no leaks"
