#!/usr/bin/env bash
# The hardening stage of CI: the thread tests under ThreadSanitizer
# (tests/hardening/tsan.sh), then the fuzz targets with AddressSanitizer and
# UndefinedBehaviorSanitizer: every committed seed corpus replayed, then each
# target fuzzed for FUZZ_SECONDS (60 by default; fuzz/run.sh). The other
# hardening tests run with the whole suite, and under AddressSanitizer and
# LeakSanitizer in CI's sanitizer pass. Prints the time each step took.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
seconds=${FUZZ_SECONDS:-60}
start=$(date +%s)
last=$start

step() {
  local now
  now=$(date +%s)
  echo "== $1 (step $((now - last)) s, total $((now - start)) s)"
  last=$now
}

echo "== ThreadSanitizer: build and thread tests"
"$root/tests/hardening/tsan.sh"
step "ThreadSanitizer done"
"$root/fuzz/run.sh" 0
step "fuzz targets built, seed corpora replayed"
"$root/fuzz/run.sh" "$seconds"
step "fuzzing done, ${seconds} s per target"
