#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs the whole test suite twice: a normal build
# (GCC), and a clang build with AddressSanitizer + UndefinedBehaviorSanitizer (LeakSanitizer on)
# that also holds the fuzz targets; then the tests where threads meet under ThreadSanitizer
# (clang too: it compiles these sources two to three times faster than GCC). One whole import
# also runs under valgrind memcheck on the normal build, the Windows build runs its tests under
# Wine (scripts/windows-test.sh), and the fuzz targets replay their corpora and fuzz for a while
# each.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

started=$SECONDS
phase() { echo "== $* ($(( (SECONDS - started) / 60 )) min $(( (SECONDS - started) % 60 )) s in)"; }

"$root/scripts/install-dependencies.sh"

jobs="$(nproc)"
fuzz_seconds="${TRI_FUZZ_SECONDS:-30}"
run_suite() {
  local dir="$1"; shift
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 600)
}

phase "normal build"
run_suite "$root/build/normal"

phase "Valgrind memcheck of one whole import (library, proxy and service in one process)"
valgrind --quiet --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite \
  --num-callers=40 --suppressions="$root/tests/valgrind.supp" "$root/build/normal/tests/e2e/e2e_test" \
  --gtest_filter='Ways/ImportEndToEnd.EveryCellArrivesInTheSqlTable/ThroughTheAuthenticationProxy' |
  tee "$root/build/normal/valgrind.log"
# A renamed test would leave the filter matching nothing, and gtest passes an empty run.
grep -q '^\[  PASSED  \] 1 test\.' "$root/build/normal/valgrind.log"

phase "Windows: the library cross-built with mingw-w64, its tests under Wine"
"$root/scripts/windows-test.sh"

# One clang build serves the sanitizer suite and the fuzz targets (libFuzzer needs clang and
# coverage instrumentation, which costs the tests little); two builds would take twice as long.
phase "AddressSanitizer + UndefinedBehaviorSanitizer build (clang, with the fuzz targets)"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
run_suite "$root/build/asan" -DCMAKE_CXX_COMPILER=clang++ -DTRI_SANITIZE=address,undefined \
  -DTRI_BUILD_FUZZ=ON

phase "Fuzz targets: replay the committed corpora, then fuzz each for $fuzz_seconds s"
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
for corpus in "$root"/fuzz/corpus/*/; do
  target="$(basename "$corpus")"
  flags=()
  # gss-ntlmssp leaks OpenSSL digests on every security context: libFuzzer's per-input leak
  # check would stop at the first one, and the leaked memory needs room over a long run.
  if [ "$target" = fuzz_ntlm_challenge ]; then
    flags=(-detect_leaks=0 -rss_limit_mb=4096)
  fi
  binary="$root/build/asan/fuzz/$target"
  fresh="$(mktemp -d)" # new corpus entries and any crash input; the committed corpus stays as is
  echo "-- $target"
  if ! "$binary" "${flags[@]}" "$corpus"* >"$fresh/replay.log" 2>&1 ||
     ! "$binary" "${flags[@]}" -max_total_time="$fuzz_seconds" -print_final_stats=1 \
       -artifact_prefix="$fresh/" "$fresh" "$corpus" >"$fresh/fuzz.log" 2>&1; then
    cat "$fresh"/*.log
    echo "fuzz target $target failed; inputs in $fresh"
    exit 1
  fi
  grep -E '^(Done|stat::number_of_executed_units|stat::new_units_added)' "$fresh/fuzz.log"
  rm -rf "$fresh"
done
unset LSAN_OPTIONS ASAN_OPTIONS UBSAN_OPTIONS

phase "ThreadSanitizer build of the tests where the library's threads meet the host's"
cmake -S "$root" -B "$root/build/tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DTRI_SANITIZE=thread -DTRI_BUILD_SERVER=OFF -DTRI_BUILD_TOOLS=OFF >/dev/null
cmake --build "$root/build/tsan" -j"$jobs" --target values_test
TSAN_OPTIONS="halt_on_error=1" "$root/build/tsan/tests/values_test"

phase "Debian packages: built, installed with dpkg, used from /usr, checked by lintian, purged"
"$root/scripts/package-test.sh"

phase "done"
