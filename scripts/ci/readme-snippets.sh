#!/usr/bin/env bash
# Writes the README's marked code blocks out as files, so that CI builds and
# runs exactly what the README shows. A block is marked by the line
#   <!-- snippet: PATH -->
# right before its opening fence; its lines go to DIR/PATH.
#
#   scripts/ci/readme-snippets.sh DIR
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
readme="${root}/README.md"
dir="${1:?usage: readme-snippets.sh DIR}"

mkdir -p "${dir}"
awk -v dir="${dir}" '
  function fail(message) {
    printf "readme-snippets: README.md line %d: %s\n", NR, message > "/dev/stderr"
    failed = 1
    exit 1
  }
  /^<!-- snippet: [^ ]+ -->$/ {
    if (path != "") fail("a snippet marker without its block")
    path = $3
    if (path ~ /(^\/|\.\.)/) fail("a snippet path must stay inside the output folder")
    if (seen[path]++) fail("two snippets named " path)
    next
  }
  path != "" && file == "" {
    if ($0 !~ /^```[a-z]*$/) fail("the marker of " path " is not followed by a code block")
    file = dir "/" path
    sub(/\/[^\/]+$/, "", file)
    system("mkdir -p \"" file "\"")
    file = dir "/" path
    printf "" >file
    next
  }
  file != "" && /^```$/ { close(file); file = ""; path = ""; count++; next }
  file != "" { print >>file }
  END {
    if (failed) exit 1
    if (file != "") { printf "readme-snippets: the block of %s never ends\n", path > "/dev/stderr"; exit 1 }
    printf "readme-snippets: %d blocks written to %s\n", count, dir
  }
' "${readme}"
