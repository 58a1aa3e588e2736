#!/usr/bin/env bash
# Sets everything up from a fresh clone, builds the reachability simulator and
# runs it: with no arguments the embedded default home (about ten seconds).
# Arguments go to the simulator, e.g.
#   scripts/run-sim.sh --timeline home.svg
#   scripts/run-sim.sh --devices 5000 --duration 20 --interval 2 --quiet
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target reachability-sim
exec build/release/bin/reachability-sim "$@"
