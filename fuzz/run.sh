#!/usr/bin/env bash
# Builds the fuzz targets with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer into build-fuzz, then runs each target for
# SECONDS on its committed seed corpus (fuzz/corpus/<target>) plus what it
# found before (build-fuzz/fuzz-corpus/<target>). SECONDS 0 only replays the
# corpora. Any crash, sanitizer report, leak, timeout or single allocation
# over 64 MiB fails the run; the input that did it is kept in
# build-fuzz/fuzz-artifacts. The module targets drive SoftHSM2 through the
# shim (tests/shim), on a token they make in a temporary store.
#
#   fuzz/run.sh 60          # what CI runs
#   FUZZ_TARGETS="json_fuzz" fuzz/run.sh 3600
set -euo pipefail

seconds=${1:?usage: fuzz/run.sh SECONDS}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build-fuzz}
targets=(${FUZZ_TARGETS:-atr_lookup_fuzz json_fuzz hostile_calls_fuzz pairing_fuzz})

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DP11CLIENT_SANITIZE=ON -DP11CLIENT_FUZZ=ON -DP11CLIENT_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target fuzz_targets

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:allocator_may_return_null=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
mkdir -p "$build/fuzz-artifacts" "$build/fuzz-logs" && status=0
for target in "${targets[@]}"; do
  mkdir -p "$build/fuzz-corpus/$target"
  run=(-max_total_time="$seconds") && [ "$seconds" -eq 0 ] && run=(-runs=0)
  echo "== $target: ${seconds}s"
  if "$build/fuzz/$target" "${run[@]}" -malloc_limit_mb=64 -rss_limit_mb=2048 -timeout=30 -print_final_stats=1 \
       -artifact_prefix="$build/fuzz-artifacts/$target-" "$build/fuzz-corpus/$target" "$root/fuzz/corpus/$target" \
       >"$build/fuzz-logs/$target.log" 2>&1; then
    grep -E "^stat::number_of_executed_units|^stat::peak_rss_mb|Done [0-9]+ runs" "$build/fuzz-logs/$target.log" || true
  else
    status=1 && echo "!! $target failed; log: $build/fuzz-logs/$target.log" && tail -n 40 "$build/fuzz-logs/$target.log"
  fi
done
exit $status
