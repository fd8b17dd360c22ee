#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs the whole test suite twice: a normal build
# and an AddressSanitizer + UndefinedBehaviorSanitizer build (LeakSanitizer on); then the tests
# where threads meet under ThreadSanitizer. One whole import also runs under valgrind memcheck
# on the normal build.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

"$root/scripts/install-dependencies.sh"

jobs="$(nproc)"
run_suite() {
  local dir="$1"; shift
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 600)
}

echo "== normal build"
run_suite "$root/build/normal"

echo "== Valgrind memcheck of one whole import (library, proxy and service in one process)"
valgrind --quiet --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite \
  --num-callers=40 --suppressions="$root/tests/valgrind.supp" "$root/build/normal/tests/e2e/e2e_test" \
  --gtest_filter='Ways/ImportEndToEnd.EveryCellArrivesInTheSqlTable/ThroughTheAuthenticationProxy'

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
run_suite "$root/build/asan" -DTRI_SANITIZE=address,undefined

echo "== ThreadSanitizer build of the tests where the library's threads meet the host's"
unset ASAN_OPTIONS UBSAN_OPTIONS
cmake -S "$root" -B "$root/build/tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRI_SANITIZE=thread \
  -DTRI_BUILD_SERVER=OFF >/dev/null
cmake --build "$root/build/tsan" -j"$jobs" --target values_test
TSAN_OPTIONS="halt_on_error=1" "$root/build/tsan/tests/values_test"
