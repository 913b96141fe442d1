#!/usr/bin/env bash
# Builds the library, the shim and the thread tests with clang and
# ThreadSanitizer into build-tsan, then runs the thread tests on SoftHSM2
# behind the shim: one object driven by 16 threads, four objects on one
# module driven by 8 threads each (on the image that locks and on the one
# that cannot), and reads racing sessions opened and closed. Any report,
# deadlock or failure fails the run.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
build=${TSAN_BUILD_DIR:-$root/build-tsan}
flags="-fsanitize=thread -fno-omit-frame-pointer"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread \
  -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread -DP11CLIENT_SANITIZE=OFF >/dev/null
cmake --build "$build" --target hardening_thread_tests
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1 abort_on_error=1 second_deadlock_stack=1 history_size=4 suppressions=$root/tests/hardening/tsan.supp}
"$build/tests/hardening/hardening_thread_tests" --gtest_brief=1
