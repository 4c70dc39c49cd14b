#!/usr/bin/env bash
# Builds and runs the whole test suite: a release build, then the same tests
# under AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

"$root/scripts/install-deps.sh" test

stage() { echo; echo "== $* =="; }

build_and_test() { # <build dir> <cmake args...>
  local dir=$1; shift
  cmake -S "$root" -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 900)
}

stage "Release build and tests"
build_and_test "$root/build/release" -DCMAKE_BUILD_TYPE=Release

stage "AddressSanitizer + UndefinedBehaviorSanitizer build and tests"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$root/tests/lsan.supp
build_and_test "$root/build/asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVREL_SANITIZE=address,undefined -DKAVREL_BUILD_BENCH=OFF
