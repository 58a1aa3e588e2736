#!/usr/bin/env bash
# Builds the benchmark suite (preset "bench"), runs it under the C library's
# malloc and under Scudo (the allocator of Android devices), and prints
# BENCHMARKS.md: the machine, every goal's verdict as this run found it, both
# allocators' tables, and the notes kept in bench/report/.
#
# Usage: scripts/run-benchmarks.sh [--write] [Google Benchmark flags]
#   --write  also replaces BENCHMARKS.md with the result (only for a full run)
#   Google Benchmark flags go to the timing binary, for example
#   --benchmark_filter='query/.*'; the memory binary then does not run.
# REACHABILITY_CACHE_BENCH_REPETITIONS sets the repetitions (default 5).
# REACHABILITY_CACHE_SCUDO names Scudo's shared library; by default it is the
# one of the clang installed by scripts/setup.sh.
# Raw results (console logs, Google Benchmark JSON, tables, verdicts) and the
# composed file go to build/bench/results/.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

write=false
if [ "${1:-}" = "--write" ]; then
  write=true
  shift
fi
if $write && [ "$#" -gt 0 ]; then
  echo "run-benchmarks: --write needs a full run, without benchmark flags" >&2
  exit 2
fi

started_at=$(date +%s)
load_before="$(cut -d' ' -f1-3 /proc/loadavg)"

# Standard output carries the report only.
scripts/setup.sh >&2
cmake --preset bench >/dev/null
cmake --build --preset bench >&2

bin=build/bench/bench
results=build/bench/results
repetitions="${REACHABILITY_CACHE_BENCH_REPETITIONS:-5}"
rm -rf "$results"
mkdir -p "$results"

# Scudo's shared library for this machine's architecture, from the clang that
# setup.sh installs (its runtime directory), else the newest LLVM on the machine.
find_scudo() {
  local name="libclang_rt.scudo_standalone-$(uname -m).so"
  if [ -n "${REACHABILITY_CACHE_SCUDO:-}" ]; then
    echo "$REACHABILITY_CACHE_SCUDO"
    return
  fi
  local dir
  dir="$(clang --print-runtime-dir 2>/dev/null || true)"
  if [ -n "$dir" ] && [ -f "$dir/$name" ]; then
    echo "$dir/$name"
    return
  fi
  find /usr/lib/llvm-*/lib/clang/*/lib/linux -name "$name" 2>/dev/null | sort -V | tail -n 1
}
scudo="$(find_scudo)"
if [ -z "$scudo" ] || [ ! -f "$scudo" ]; then
  echo "run-benchmarks: Scudo's shared library not found (package libclang-rt-14-dev);" \
    "set REACHABILITY_CACHE_SCUDO" >&2
  exit 1
fi

allocators=(glibc scudo)
preload_for() { [ "$1" = scudo ] && echo "$scudo" || echo ""; }

# Runs one binary under one allocator; results land in $results/<allocator>/<name>.*
# and the run fails when the allocator is not the one asked for.
run() {
  local allocator="$1" name="$2" binary="$3"
  shift 3
  local out="$results/$allocator"
  mkdir -p "$out"
  echo "=== $name, $allocator ($(date +%T)) ===" >&2
  LD_PRELOAD="$(preload_for "$allocator")" "$bin/$binary" \
    --benchmark_out="$out/$name.json" --benchmark_out_format=json \
    --summary_out="$out/$name.md" --goals_out="$out/$name.tsv" "$@" >"$out/$name.log" 2>&1 ||
    {
      cat "$out/$name.log" >&2
      return 1
    }
  local expected="glibc malloc"
  [ "$allocator" = scudo ] && expected="Scudo"
  if ! grep -q "^Allocator: $expected" "$out/$name.md"; then
    echo "run-benchmarks: $name did not run on $expected" >&2
    return 1
  fi
}

# Repetitions of different benchmarks are interleaved at random, so that a
# slow spell of a shared machine does not fall on one side of a ratio only.
timing_flags=(--benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true
  --benchmark_enable_random_interleaving=true)
if [ "$#" -gt 0 ]; then
  for allocator in "${allocators[@]}"; do
    run "$allocator" timing reachabilityCacheBench "${timing_flags[@]}" "$@"
  done
else
  # One family of benchmarks at a time, under both allocators one after the
  # other (the first alternating), so that both see the machine alike.
  first=0
  for family in query cycle eventLatency contention tracker; do
    for i in 0 1; do
      allocator="${allocators[$(((first + i) % 2))]}"
      run "$allocator" "$family" reachabilityCacheBench "${timing_flags[@]}" \
        --benchmark_filter="^$family/"
    done
    first=$((1 - first))
  done
  # Counts bytes and allocations, not time: one run each is exact.
  for allocator in "${allocators[@]}"; do
    run "$allocator" memory reachabilityCacheMemoryBench
  done
  # The log reader against grep on a 200 MB capture (its own build and script).
  echo "=== reachability-trace ($(date +%T)) ===" >&2
  scripts/bench-trace.sh >"$results/trace.log" 2>&1 || {
    cat "$results/trace.log" >&2
    exit 1
  }
  cp build/release/bench-trace/result.md "$results/trace.md"
fi

# ---- The report ----

label_of() { [ "$1" = scudo ] && echo "Scudo" || echo "glibc malloc"; }
package_version() { dpkg-query -W -f='${Version}' "$1" 2>/dev/null || echo unknown; }
cxx="$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' build/bench/CMakeCache.txt)"
build_type="$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' build/bench/CMakeCache.txt)"
scudo_package="$(dpkg -S "$(readlink -f "$scudo")" 2>/dev/null | cut -d: -f1 | head -n 1 || true)"
commit="$(git rev-parse --short HEAD 2>/dev/null || echo unknown)"
# The report itself does not count as a change to what was measured.
if [ -n "$(git status --porcelain -- . ':!BENCHMARKS.md' 2>/dev/null)" ]; then
  commit="$commit (with uncommitted changes)"
fi
minutes=$((($(date +%s) - started_at + 59) / 60))

lscpu_field() { lscpu | sed -n "s/^$1: *//p" | head -n 1; }

machine() {
  local hypervisor caches=""
  hypervisor="$(lscpu_field 'Hypervisor vendor')"
  for level in L1d L2 L3; do
    local size
    size="$(lscpu_field "$level cache")"
    [ -n "$size" ] && caches="${caches:+$caches, }$level $size"
  done
  echo "## Machine"
  echo
  echo "| | |"
  echo "|---|---|"
  echo "| CPU | $(lscpu_field 'Model name'), $(uname -m)${hypervisor:+, $hypervisor guest} |"
  echo "| Cores | $(nproc), $(lscpu_field 'Thread(s) per core') thread(s) per core${caches:+; caches $caches} |"
  echo "| Memory | $(awk '/MemTotal/ {printf "%.0f GiB", $2 / 1048576}' /proc/meminfo) |"
  echo "| OS | $(. /etc/os-release && echo "$PRETTY_NAME"), kernel $(uname -r) |"
  echo "| Compiler | $("$cxx" --version | head -n 1) |"
  echo "| Build | $build_type, preset bench, commit $commit |"
  echo "| Google Benchmark | $(package_version libbenchmark-dev) |"
  echo "| Allocators | glibc malloc ($(ldd --version | head -n 1 | sed 's/.* //')); Scudo" \
    "standalone, $scudo${scudo_package:+ (package $scudo_package $(package_version "$scudo_package"))}," \
    "loaded with LD_PRELOAD, default options |"
  echo "| Load average | $load_before before the run, $(cut -d' ' -f1-3 /proc/loadavg) after |"
  echo "| Repetitions | $repetitions of every timing benchmark, interleaved at random; figures are medians |"
  echo "| Run | $(date -u +'%Y-%m-%d %H:%M UTC'), about $minutes minutes |"
}

# One row per goal: what it asks, then each allocator's result and verdict.
goals() {
  echo "## Goals, as this run found them"
  echo
  echo "| Goal | glibc malloc | | Scudo | |"
  echo "|---|---|---|---|---|"
  awk -F'\t' '
    FNR == 1 { allocator = (FILENAME ~ /\/scudo\//) ? "scudo" : "glibc" }
    !($1 in goal) { order[++count] = $1; goal[$1] = $2 }
    { result[$1, allocator] = $3; verdict[$1, allocator] = $4 }
    END {
      for (i = 1; i <= count; ++i) {
        id = order[i]
        printf "| %s | %s | %s | %s | %s |\n", goal[id], result[id, "glibc"], verdict[id, "glibc"],
          result[id, "scudo"], verdict[id, "scudo"]
      }
    }' "$results"/glibc/*.tsv "$results"/scudo/*.tsv
}

tables() {
  local allocator="$1"
  echo "## Results with $(label_of "$allocator")"
  for name in query cycle eventLatency contention tracker timing memory; do
    if [ -f "$results/$allocator/$name.md" ]; then
      grep -v '^Allocator: ' "$results/$allocator/$name.md"
    fi
  done
}

{
  cat bench/report/intro.md
  echo
  machine
  echo
  goals
  for allocator in "${allocators[@]}"; do
    echo
    tables "$allocator"
  done
  if [ -f "$results/trace.md" ]; then
    echo
    echo "## reachability-trace on a 200 MB capture"
    echo
    cat <<'TEXT'
The simulator's log mixed into other processes' lines (scripts/bench-trace.sh),
read by reachability-trace and by `grep -F ReachabilityCache`, as text, gzipped
(against `gzip -dc | grep -F`) and as a zipped bug report (against
`unzip -p | grep -F`), each 7 times after a warm-up, medians; the goal is
within 1.5 times grep's time. Peak memory of every output, on that capture and
on three made to strain the memory bound (a half hour of 1000 flapping devices
with 106 000 changes, a million distinct entities, two million pids); the
bound is 32 MB. Glibc malloc, on a machine shared with other builds.
TEXT
    echo
    cat "$results/trace.md"
  fi
  for note in method notes history; do
    echo
    cat "bench/report/$note.md"
  done
} >"$results/BENCHMARKS.md"

cat "$results/BENCHMARKS.md"
if $write; then
  cp "$results/BENCHMARKS.md" BENCHMARKS.md
  echo "run-benchmarks: BENCHMARKS.md written" >&2
fi
