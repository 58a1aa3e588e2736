#!/usr/bin/env bash
# Times reachability-trace on a large capture, side by side with
# `grep -F ReachabilityCache`, as text, gzipped and as a zipped bug report,
# and measures its peak memory for every output (report, --json, --entity,
# --timeline, --html) on it and on captures made to strain the memory bound:
# one of many changes, one of a million distinct entities, one of two million
# pids; then times the page (--html) and gives its size.
#
# The timed capture: the simulator's log (a flapping generated home, turned
# into threadtime lines) mixed into other processes' lines until it reaches
# the size asked for. The verdict compares ratios, not absolute times, since
# the machine is shared: reachability-trace passes within 1.5 times grep's
# time (for the archives: the unpacking tool piped into grep), and within
# 32 MB for every output of every capture.
#
# Usage: scripts/bench-trace.sh [megabytes (default 200)]
# Results (the captures, hyperfine's CSVs, the pages, the Markdown tables) go
# to build/release/bench-trace/.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
megabytes="${1:-200}"

scripts/setup.sh hyperfine time zip unzip
cmake --preset release >/dev/null
cmake --build --preset release --target reachability-trace reachability-sim >/dev/null

bin=build/release/bin
out=build/release/bench-trace
mkdir -p "$out"
capture="$out/capture-${megabytes}MB.txt"

if [ ! -s "$capture" ]; then
  echo "bench-trace: recording the simulator and building a ${megabytes} MB capture"
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
if [ ! -s "$capture.gz" ]; then
  gzip -c -1 "$capture" >"$capture.gz"
fi
report="$out/bugreport-bench.zip"
if [ ! -s "$report" ]; then
  text="$out/bugreport-bench.txt"
  { echo "== dumpstate: 2026-11-22 12:00:00"
    echo "------ SYSTEM LOG (logcat -v threadtime -v printable -v uid -d *:v) ------"
    cat "$capture"
  } >"$text"
  echo "bugreport-bench.txt" >"$out/main_entry.txt"
  (cd "$out" && rm -f "$(basename "$report")" && zip -q -1 "$(basename "$report")" \
    bugreport-bench.txt main_entry.txt)
  rm -f "$text"
fi

# Captures that strain the memory bound (their own simulator run and lines).
changes="$out/many-changes.txt"
if [ ! -s "$changes" ]; then
  echo "bench-trace: recording a day's half hour of 1000 flapping devices (about 30 s)"
  "$bin/reachability-sim" --devices 1000 --duration 1800 --interval 60 --flap-rate 2 --fast \
    --seed 3 >/dev/null 2>"$changes"
fi
entities="$out/million-entities.txt"
if [ ! -s "$entities" ]; then
  awk 'BEGIN {
    print "11-22 12:00:00.000  4711  4711 I ReachabilityCache-ReachabilityCache: " \
          "[ReachabilityCache]: event=cacheCreated maxCacheSize=2000000 periodicUpdates=true"
    for (i = 0; i < 1000000; ++i) {
      printf "11-22 12:%02d:%02d.%03d  4711  4712 I ReachabilityCache-CacheCore: " \
             "[insertEndpoint]: action=newEntity entityId=entity-%d endpointId=ep-%d\n", \
             int(i / 60000) % 60, int(i / 1000) % 60, i % 1000, i, i
    }
  }' >"$entities"
fi
pids="$out/two-million-pids.txt"
if [ ! -s "$pids" ]; then
  awk 'BEGIN {
    for (i = 0; i < 2000000; ++i) {
      printf "11-22 12:00:00.000 %7d %7d I ReachabilityCache-CacheCore: [CacheCore]: maxSize=10\n", \
             100000 + i, 100000 + i
    }
  }' >"$pids"
fi

# Both sides go through a pipe: with its output on /dev/null, GNU grep stops
# at the first match and would not read the capture at all.
hyperfine --style basic --warmup 1 --runs 7 --output=pipe --export-csv "$out/timing.csv" \
  -n text "$bin/reachability-trace $capture" \
  -n "grep text" "grep -F ReachabilityCache $capture" \
  -n json "$bin/reachability-trace --json $capture" \
  -n gzip "$bin/reachability-trace $capture.gz" \
  -n "grep gzip" "gzip -dc $capture.gz | grep -F ReachabilityCache" \
  -n zip "$bin/reachability-trace $report" \
  -n "grep zip" "unzip -p $report bugreport-bench.txt | grep -F ReachabilityCache" \
  >"$out/hyperfine.log"

# hyperfine's CSV: command,mean,stddev,median,user,system,min,max (seconds)
size=$(stat -c %s "$capture")
library=$(grep -c -F ReachabilityCache- "$capture" || true)
awk -F, -v size="$size" -v library="$library" '
  NR > 1 { median[$1] = $4 }
  function row(name, against,   ratio) {
    ratio = median[name] / median[against]
    printf "| %s | %.3f s | %.3f s | %.2f x | %s |\n", name, median[name], median[against], \
      ratio, ratio <= 1.5 ? "met" : "missed"
    return ratio <= 1.5
  }
  END {
    printf "Time on a %.0f MB capture (%d library lines), medians:\n\n", size / 1048576, library
    printf "| reachability-trace | it | grep -F | ratio | verdict (1.5 x) |\n|---|---|---|---|---|\n"
    row("text", "grep text"); row("json", "grep text")
    row("gzip", "grep gzip"); row("zip", "grep zip")
  }' "$out/timing.csv" | tee "$out/result.md"

peak() {  # peak resident memory in MB of reachability-trace with these arguments
  /usr/bin/time -f "%M" "$bin/reachability-trace" "$@" 2>&1 >/dev/null | tail -n 1 |
    awk '{ printf "%.1f", $1 / 1024 }'
}
entity=$(grep -o -m 1 'entityId=entity-[0-9]*' "$capture" | cut -d= -f2)
{
  echo
  echo "Peak memory (the bound: 32 MB; the page keeps up to 32 MB of lines besides):"
  echo
  echo "| capture | report | --json | --entity | --timeline | --html |"
  echo "|---|---|---|---|---|---|"
  for file in "$capture" "$capture.gz" "$report" "$changes" "$entities" "$pids"; do
    printf "| %s | %s MB | %s MB | %s MB | %s MB | %s MB |\n" "$(basename "$file")" \
      "$(peak "$file")" "$(peak --json "$file")" "$(peak --entity "$entity" "$file")" \
      "$(peak --timeline "$out/picture.svg" "$file")" "$(peak --html "$out/page.html" "$file")"
  done
} | tee -a "$out/result.md"

# The page: every entity's lines kept (up to their budget) and written out,
# for the large capture and for the day's half hour of 1000 devices.
page="$out/page.html"
day="$out/page-many-changes.html"
hyperfine --style basic --warmup 1 --runs 5 --export-csv "$out/page-timing.csv" \
  -n "text" "$bin/reachability-trace --html $page $capture" \
  -n "many-changes" "$bin/reachability-trace --html $day $changes" \
  >"$out/page-hyperfine.log"
awk -F, -v page="$(stat -c %s "$page")" -v day="$(stat -c %s "$day")" \
    -v pagePeak="$(peak --html "$page" "$capture")" -v dayPeak="$(peak --html "$day" "$changes")" '
  NR > 1 { median[$1] = $4 }
  END {
    printf "\n| --html on | time (median) | peak memory | page |\n|---|---|---|---|\n"
    printf "| %s | %.3f s | %s MB | %.1f MB |\n", "the capture", median["text"], pagePeak, \
      page / 1048576
    printf "| %s | %.3f s | %s MB | %.1f MB |\n", "many-changes", median["many-changes"], dayPeak, \
      day / 1048576
  }' "$out/page-timing.csv" | tee -a "$out/result.md"
