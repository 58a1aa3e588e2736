#!/usr/bin/env bash
# Builds the benchmark suite (preset "bench") and prints every figure of
# BENCHMARKS.md: the machine, the medians over repetitions and their ratios.
#
# Usage: scripts/run-benchmarks.sh [Google Benchmark flags for the timing binary]
#   e.g. scripts/run-benchmarks.sh --benchmark_filter='query/.*'
# REACHABILITY_CACHE_BENCH_REPETITIONS sets the repetitions (default 5).
# Results (console log, JSON, Markdown tables) go to build/bench/results/.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

scripts/setup.sh
cmake --preset bench >/dev/null
cmake --build --preset bench

bin=build/bench/bench
results=build/bench/results
mkdir -p "$results"
repetitions="${REACHABILITY_CACHE_BENCH_REPETITIONS:-5}"

# Repetitions of different benchmarks are interleaved at random, so that a
# slow spell of a shared machine does not fall on one side of a ratio only.
"$bin/reachabilityCacheBench" \
  --benchmark_repetitions="$repetitions" \
  --benchmark_report_aggregates_only=true \
  --benchmark_enable_random_interleaving=true \
  --benchmark_out="$results/timing.json" --benchmark_out_format=json \
  --summary_out="$results/timing.md" "$@" | tee "$results/timing.log"

# Counts bytes, not time: one run is exact.
"$bin/reachabilityCacheMemoryBench" \
  --benchmark_out="$results/memory.json" --benchmark_out_format=json \
  --summary_out="$results/memory.md" | tee "$results/memory.log"

cxx="$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' build/bench/CMakeCache.txt)"
build_type="$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' build/bench/CMakeCache.txt)"
{
  echo
  echo "## Machine"
  echo
  echo "- CPU: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores"
  echo "- Compiler: $("$cxx" --version | head -n 1)"
  echo "- Build type: $build_type (preset bench)"
  echo "- Google Benchmark: $(dpkg-query -W -f='${Version}' libbenchmark-dev 2>/dev/null || echo unknown)"
  echo "- Repetitions: $repetitions, interleaved at random; figures are medians"
  echo "- Load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo
  cat "$results/timing.md" "$results/memory.md"
} | tee "$results/summary.md"
