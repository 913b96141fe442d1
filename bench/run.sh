#!/usr/bin/env bash
# The token benchmark suite: builds the benchmarks, makes (or reuses) the
# SoftHSM2 tokens, runs every job with every tool and prints one table.
#
#   bench/run.sh [N...]          sizes in pairs of each key type (default: 10 100 1000)
#
# Environment: P11CLIENT_BENCH_BUILD (build directory, default build/),
# P11CLIENT_BENCH_ARGS (more options for bench/run_suite.py, e.g. "--reps 3").
# Needs softhsm2, opensc (pkcs11-tool) and python3-pykcs11. Tokens and key
# material are cached in <build>/bench-cache; the machine's own SoftHSM2
# token store is never touched.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${P11CLIENT_BENCH_BUILD:-$root/build}"
cmake -S "$root" -B "$build" -DP11CLIENT_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j"$(nproc)" --target p11bench_all
pairs=("$@")
[ ${#pairs[@]} -gt 0 ] || pairs=(10 100 1000)
# shellcheck disable=SC2086
exec /usr/bin/python3 "$root/bench/run_suite.py" --build "$build" --pairs "${pairs[@]}" ${P11CLIENT_BENCH_ARGS:-}
