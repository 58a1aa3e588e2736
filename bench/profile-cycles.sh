#!/usr/bin/env bash
# Profiles periodic cycles at 1 000 and 100 000 endpoints with perf (software
# clock sampling, no hardware counters needed) and prints where the updater
# thread's time goes, per endpoint and cycle, at both sizes: the groups whose
# cost per endpoint grows with the store are what makes the cycle scale worse
# than linearly.
#
# Usage: bench/profile-cycles.sh [testChecker|applianceDriverChecker] [glibc|scudo]
# Needs perf and a built bench preset (scripts/run-benchmarks.sh builds it).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

path="${1:-testChecker}"
allocator="${2:-glibc}"
bin=build/bench/bench/reachabilityCacheBench
out=build/bench/profile
frequency=999
repetitions=3
mkdir -p "$out"

preload=""
if [ "$allocator" = scudo ]; then
  preload="$(find "$(clang --print-runtime-dir)" -name "libclang_rt.scudo_standalone-$(uname -m).so")"
fi

# Cycles a run makes: two warm-up cycles, then each repetition's (see
# CycleBenchmarks.cpp: an even number, 100000 / N, at least 2).
cycles_for() { echo $((2 + repetitions * ($1 >= 50000 ? 2 : 100000 / $1))); }

# Samples per library and symbol on the updater's thread: the busiest thread
# other than the main one (the lowest id), which only builds the rig and waits.
profile() {
  local endpoints="$1" data="$out/$path-$allocator-$1.data"
  LD_PRELOAD="$preload" perf record -q -F "$frequency" -o "$data" -- "$bin" \
    --benchmark_filter="^cycle/$path/$endpoints/" --benchmark_repetitions="$repetitions" \
    >/dev/null 2>&1
  local tid
  tid="$(perf report -i "$data" --stdio --no-children --sort pid 2>/dev/null |
    awk '/^ +[0-9.]+%/ { split($2, t, ":"); id[++n] = t[1] + 0; share[n] = $1 + 0 }
      END {
        main = id[1]; for (i = 2; i <= n; ++i) if (id[i] < main) main = id[i]
        for (i = 1; i <= n; ++i) if (id[i] != main && share[i] > best) { best = share[i]; pick = id[i] }
        print pick
      }')"
  perf report -i "$data" --stdio --no-children -n --sort dso,symbol --tid="$tid" 2>/dev/null |
    awk '/^ +[0-9.]+%/ {
      samples = $2; dso = $3; $1 = ""; $2 = ""; $3 = ""; sub(/^ +/, ""); sub(/ +- +- *$/, "")
      print samples "\t" dso "\t" $0
    }'
}

# The group a symbol belongs to.
group() {
  awk -F'\t' '
    {
      dso = $2; s = $3
      if (dso ~ /scudo/ || s ~ /malloc|_int_free|cfree|\] free|unlink_chunk|consolidate|operator new|operator delete/)
        g = "allocator (malloc, free and their bookkeeping)"
      else if (dso ~ /kernel/)
        g = "kernel (page faults of fresh memory, scheduling)"
      else if (s ~ /printf|_IO_|LogBuilder|strlen/)
        g = "log lines (building, and vsnprintf in the platform log)"
      else if (s ~ /_Hash_bytes|_Hashtable|_Map_base|_Prime_rehash|_Hash_node/)
        g = "hash tables (hashing, lookups, nodes)"
      else if (s ~ /memmove|memcpy|memcmp|memset|basic_string|__do_uninit_copy|vector/)
        g = "copies and comparisons of strings and vectors"
      else
        g = "the library and the rest"
      total[g] += $1
    }
    END { for (g in total) print total[g] "\t" g }'
}

small=1000
large=100000
profile "$small" | group | sort -t$'\t' -k2 >"$out/small.tsv"
profile "$large" | group | sort -t$'\t' -k2 >"$out/large.tsv"

echo "Updater thread's CPU time per endpoint and cycle, $path, $allocator ($frequency Hz sampling)"
echo
echo "| Group | ns at $small | ns at $large | Growth |"
echo "|---|---:|---:|---:|"
join -t$'\t' -1 2 -2 2 -a 1 -a 2 -e 0 -o 0,1.1,2.1 "$out/small.tsv" "$out/large.tsv" |
  awk -F'\t' -v f="$frequency" -v cs="$(cycles_for $small)" -v cl="$(cycles_for $large)" \
    -v ns="$small" -v nl="$large" '
    {
      a = $2 / f * 1e9 / (cs * ns); b = $3 / f * 1e9 / (cl * nl)
      ta += a; tb += b
      printf "| %s | %.0f | %.0f | %s |\n", $1, a, b, (a > 0 ? sprintf("%.2f", b / a) : "-")
    }
    END { printf "| all | %.0f | %.0f | %.2f |\n", ta, tb, tb / ta }'
