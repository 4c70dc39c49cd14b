#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Builds and runs the whole test suite: a release build, then the same tests
# under AddressSanitizer + UndefinedBehaviorSanitizer, then under
# ThreadSanitizer, then a short run of every fuzz target over its corpus, then
# the Debian packages (built, checked with lintian, installed, a host built
# against them, removed again), then the armhf cross builds (baseline and NEON)
# with every test under qemu-arm and lintian on the armhf packages, then the
# V4L2 camera against the kernel's virtual camera (vivid) under qemu.
#
# Usage: scripts/test.sh [--quick]
#   --quick  the release build and its tests only (a minute or two)
#
# Every stage configures its build with the tests switched on, whatever an
# earlier configuration of that directory said, and fails when it finds no
# test to run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${KAVREL_JOBS:-$(nproc)}

quick=0
for a in "$@"; do
  case $a in
    --quick) quick=1 ;;
    -h|--help) sed -n '3,15p' "$0"; exit 0 ;;
    *) echo "test.sh: unknown argument $a (try --help)" >&2; exit 2 ;;
  esac
done

"$root/scripts/install-deps.sh" test

stage() { echo; echo "== $* == ($(date +%T))"; }

build_and_test() { # <build dir> <cmake args...>
  local dir=$1; shift
  # BUILD_TESTING=ON: ./scripts/run.sh configures build/release without tests.
  cmake -S "$root" -B "$dir" -DBUILD_TESTING=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure --no-tests=error -j"$jobs" --timeout 900)
}

stage "Release build and tests"
build_and_test "$root/build/release" -DCMAKE_BUILD_TYPE=Release
if [ "$quick" = 1 ]; then exit 0; fi

stage "AddressSanitizer + UndefinedBehaviorSanitizer build and tests"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$root/tests/lsan.supp
build_and_test "$root/build/asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVREL_SANITIZE=address,undefined -DKAVREL_BUILD_BENCH=OFF

stage "ThreadSanitizer build and tests"
# Qt is not built with ThreadSanitizer; tests/tsan_qmutex.cpp makes QMutex
# visible to it, and tests/tsan.supp (empty today) is where a report from
# inside Qt would go.
unset ASAN_OPTIONS LSAN_OPTIONS
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/tsan.supp"
build_and_test "$root/build/tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVREL_SANITIZE=thread -DKAVREL_BUILD_BENCH=OFF -DKAVREL_BUILD_TOOLS=OFF
unset TSAN_OPTIONS

stage "Fuzz targets: a fixed number of runs each over the seed corpus"
"$root/scripts/fuzz.sh" --smoke

stage "Debian packages: built, lintian, installed, the README's host built against them, removed"
if [ "$(id -u)" -eq 0 ]; then
  # Runs the README's packages block as it stands (it builds the packages
  # with scripts/packages.sh, which runs lintian), then removes them again.
  "$root/tests/install/quickstart.sh" packages "$root/README.md" "$root"
else
  "$root/scripts/packages.sh" amd64
  echo "Not root: the packages were built and checked, not installed (run test.sh as root for that)."
fi

stage "armhf cross build: baseline and NEON, every test under qemu-arm, lintian on the packages"
"$root/scripts/cross-armhf.sh" --both --package

stage "V4L2 camera against the kernel's virtual camera (vivid, under qemu-system-x86_64)"
"$root/scripts/vivid-test.sh" "$root/build/release"
