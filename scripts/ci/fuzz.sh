#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UBSan) and runs
# each for a short while on a copy of its seed corpus; any crash, leak,
# sanitizer report or broken expectation fails the script and leaves the
# reproducer in build/fuzz/artifacts/. A target's tests/fuzz/<target>.dict,
# when there is one, is its dictionary, with every text of the log schema
# (src/diagnostics/LogSchema.h) added, so that the tags and labels are spelled
# in the schema alone. Override the time per target with FUZZ_SECONDS.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/setup.sh

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

seconds=${FUZZ_SECONDS:-12}
artifacts=build/fuzz/artifacts
mkdir -p "${artifacts}"
work=$(mktemp -d)
trap 'rm -rf "${work}"' EXIT

for target in StoreSequenceFuzzer FunctionLabelFuzzer ConnectivityFilterFuzzer \
  ScenarioLoaderFuzzer TraceCaptureFuzzer; do
  echo "=== fuzz: ${target}, ${seconds} s ==="
  cp -r "tests/fuzz/corpus/${target}" "${work}/${target}"
  log="${work}/${target}.log"
  dictionary=()
  if [ -f "tests/fuzz/${target}.dict" ]; then
    cp "tests/fuzz/${target}.dict" "${work}/${target}.dict"
    grep -o '= "[^"]\+"' src/diagnostics/LogSchema.h | sed -e 's/^= //' -e 's/\\n/\\x0a/g' | sort -u >>"${work}/${target}.dict"
    dictionary=(-dict="${work}/${target}.dict")
  fi
  if ! ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
    "build/fuzz/tests/fuzz/${target}" -max_total_time="${seconds}" -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="${artifacts}/${target}-" \
    "${dictionary[@]}" "${work}/${target}" >"${log}" 2>&1; then
    tail -n 80 "${log}" >&2
    echo "fuzz: ${target} failed; reproducer in ${artifacts}/" >&2
    exit 1
  fi
  grep -E '^(Done |stat::number_of_executed_units|stat::peak_rss_mb)' "${log}" || true
done
echo "fuzz: all targets ran clean"
