#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test (unit tests, and the
# library on SoftHSM2 tokens made for the run, behind the fault-injecting shim).
# usage: scripts/test.sh [BUILD_DIR] [extra cmake arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
shift || true
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$build" "$@"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
