#!/usr/bin/env bash
# Times reachability-trace on a large capture, side by side with
# `grep -F ReachabilityCache`, and reports its peak memory; then the same
# for writing the page (--html), with the page's size.
#
# The capture: the simulator's log (a flapping generated home, turned into
# threadtime lines) mixed into other processes' lines until it reaches the
# size asked for. The verdict compares ratios, not absolute times, since the
# machine is shared: reachability-trace passes within 3 times grep's time.
#
# Usage: scripts/bench-trace.sh [megabytes (default 200)]
# Results (the capture, hyperfine's CSVs, the page, the Markdown tables) go
# to build/release/bench-trace/.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
megabytes="${1:-200}"

scripts/setup.sh hyperfine time
cmake --preset release >/dev/null
cmake --build --preset release --target reachability-trace reachability-sim >/dev/null

bin=build/release/bin
out=build/release/bench-trace
mkdir -p "$out"
capture="$out/capture-${megabytes}MB.txt"

if [ ! -s "$capture" ]; then
  echo "bench-trace: recording the simulator (10 s) and building a ${megabytes} MB capture"
  "$bin/reachability-sim" --devices 200 --duration 10 --interval 2 --flap-rate 6 --seed 7 \
    >/dev/null 2>"$out/sim.log"
  # Every repetition of the simulator's log is a process of its own; between
  # its messages come 40 lines of other processes, one in a thousand with a
  # tag that merely starts like the library's.
  awk -v limit="$((megabytes * 1024 * 1024))" '
    BEGIN {
      split("ActivityManager WifiStateMachine chatty BluetoothAdapter PowerManagerService " \
            "SurfaceFlinger NetworkController AudioFlinger InputDispatcher HomeGraphSync", tags, " ")
      split("V D I W E", priorities, " ")
    }
    { log_[NR] = $0 }
    function filler(n,   i, tag, text) {
      for (i = 0; i < n; ++i) {
        ++serial
        tag = serial % 1000 == 0 ? "ReachabilityCacheService" : tags[serial % 10 + 1]
        text = sprintf("11-22 12:%02d:%02d.%03d %5d %5d %s %s: event %d state=%d value=0x%08x " \
                       "the quick brown fox jumps over the lazy dog", \
                       (serial / 60000) % 60, (serial / 1000) % 60, serial % 1000, \
                       1000 + serial % 97, 1100 + serial % 89, priorities[serial % 5 + 1], tag, \
                       serial, serial % 7, serial)
        print text
        written += length(text) + 1
      }
    }
    END {
      for (round = 0; written < limit; ++round) {
        pid = 20000 + round
        for (i = 1; i <= NR && written < limit; ++i) {
          line = log_[i]
          if (split(line, word, " ") >= 6 && word[2] ~ /^[VDIWEF]$/ && word[3] ~ /-/) {
            filler(40)
            header = sprintf("%s %s.000 %5d %5d %s %s: ", word[3], word[4], pid, word[6], \
                             word[2], word[1])
            text = line
            sub(/^[^ ]+ [A-Z] [^ ]+ [^ ]+ +[0-9]+ +[0-9]+ /, "", text)
          } else {
            text = line  # a following line of the message: logcat repeats the header
          }
          print header text
          written += length(header text) + 1
        }
      }
    }' "$out/sim.log" >"$capture"
fi

size=$(stat -c %s "$capture")
library=$(grep -c -F ReachabilityCache- "$capture" || true)
total=$(wc -l <"$capture")

# Both outputs go through a pipe: with its output on /dev/null, GNU grep
# stops at the first match and would not read the capture at all.
hyperfine --style basic --warmup 1 --runs 5 --output=pipe --export-csv "$out/timing.csv" \
  -n reachability-trace "$bin/reachability-trace $capture" \
  -n grep "grep -F ReachabilityCache $capture" >"$out/hyperfine.log"
peak_kb=$(/usr/bin/time -v "$bin/reachability-trace" "$capture" 2>&1 >/dev/null |
  awk -F': ' '/Maximum resident set size/ { print $2 }')

# hyperfine's CSV: command,mean,stddev,median,user,system,min,max (seconds)
awk -F, -v size="$size" -v peak="$peak_kb" -v library="$library" -v total="$total" '
  NR == 2 { trace = $4 }
  NR == 3 { grep = $4 }
  END {
    ratio = trace / grep
    printf "| capture | library lines | reachability-trace (median) | grep -F (median) | ratio | peak memory | verdict |\n"
    printf "|---|---|---|---|---|---|---|\n"
    printf "| %.0f MB, %d lines | %d | %.3f s | %.3f s | %.2f x | %.1f MB | %s |\n", \
      size / 1048576, total, library, trace, grep, ratio, peak / 1024, \
      ratio <= 3 ? "met" : "missed"
  }' "$out/timing.csv" | tee "$out/result.md"

# The page: every entity's lines kept (up to its budget) and written out.
page="$out/page.html"
hyperfine --style basic --warmup 1 --runs 5 --export-csv "$out/page-timing.csv" \
  -n "reachability-trace --html" "$bin/reachability-trace --html $page $capture" \
  >"$out/page-hyperfine.log"
page_peak_kb=$(/usr/bin/time -v "$bin/reachability-trace" --html "$page" "$capture" 2>&1 >/dev/null |
  awk -F': ' '/Maximum resident set size/ { print $2 }')
awk -F, -v peak="$page_peak_kb" -v page="$(stat -c %s "$page")" '
  NR == 2 {
    printf "\n| output | reachability-trace (median) | peak memory | page |\n"
    printf "|---|---|---|---|\n"
    printf "| --html | %.3f s | %.1f MB | %.1f MB |\n", $4, peak / 1024, page / 1048576
  }' "$out/page-timing.csv" | tee -a "$out/result.md"
