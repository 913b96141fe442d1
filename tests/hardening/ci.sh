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
# Announces a step with the time spent so far, then runs it.
step() { echo "== $1 (total ${SECONDS} s)"; "${@:2}"; }

step "ThreadSanitizer: build and thread tests" "$root/tests/hardening/tsan.sh"
step "fuzz targets: build, replay the seed corpora" "$root/fuzz/run.sh" 0
step "fuzzing, ${seconds} s per target" "$root/fuzz/run.sh" "$seconds"
echo "== hardening stage done (total ${SECONDS} s)"
