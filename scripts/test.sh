#!/usr/bin/env bash
# Builds and runs the whole test suite: a release build, then the same tests
# under AddressSanitizer + UndefinedBehaviorSanitizer, then under
# ThreadSanitizer, then a short run of every fuzz target over its corpus, then
# the armhf cross builds (baseline and NEON) with every test under qemu-arm.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

"$root/scripts/install-deps.sh" test

stage() { echo; echo "== $* == ($(date +%T))"; }

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

stage "ThreadSanitizer build and tests"
# Qt is not built with ThreadSanitizer: tests/tsan.supp names the few reports
# from inside Qt, nothing of ours.
unset ASAN_OPTIONS LSAN_OPTIONS
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/tsan.supp"
build_and_test "$root/build/tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVREL_SANITIZE=thread -DKAVREL_BUILD_BENCH=OFF -DKAVREL_BUILD_TOOLS=OFF
unset TSAN_OPTIONS

stage "Fuzz targets: a fixed number of runs each over the seed corpus"
"$root/scripts/fuzz.sh" --smoke

stage "armhf cross build: baseline and NEON, every test under qemu-arm"
"$root/scripts/cross-armhf.sh" --both

stage "V4L2 camera against the kernel's virtual camera (vivid, under qemu-system-x86_64)"
"$root/scripts/vivid-test.sh" "$root/build/release"
