#!/usr/bin/env bash
# CI smoke run of the token benchmark suite at N = 10: every job and tool must
# run; no time is checked.
#
#   bench/smoke.sh [build-dir]     (default: build/)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
export P11CLIENT_BENCH_BUILD="$(cd "$root" && realpath -m "${1:-build}")"
export P11CLIENT_BENCH_ARGS="--reps 1 --signatures 100 --tool-signatures 2"
exec "$root/bench/run.sh" 10
