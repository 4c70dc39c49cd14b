#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer)
# and runs them.
#   fuzz.sh --smoke          each target a fixed number of runs (what the tests run)
#   fuzz.sh [SECONDS]        each target SECONDS long (default 600); new inputs
#                            are kept in build/fuzz/corpus/<target>
# A finding stops the run with the sanitizer's or the check's report; the
# input is kept as build/fuzz/<target>-crash-*, to be replayed with
#   build/fuzz/tests/fuzz/<target> <file>
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$root/build/fuzz
targets=(fuzz_config fuzz_settings fuzz_tags fuzz_convert)

CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKAVREL_SANITIZE=address,undefined -DKAVREL_FUZZ=ON -DKAVREL_BUILD_TOOLS=OFF -DKAVREL_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)" --target fuzz_all

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$root/tests/lsan.supp

if [ "${1:-}" = --smoke ]; then
  runs=${KAVREL_FUZZ_RUNS:-20000}
  for t in "${targets[@]}"; do
    work=$(mktemp -d)
    # New inputs go to a scratch folder: the committed corpus stays as it is.
    status=0
    "$dir/tests/fuzz/$t" -runs="$runs" -seed=1 -max_len=4096 -artifact_prefix="$dir/$t-" \
      "$work" "$root/tests/fuzz/corpus/$t" >"$work.log" 2>&1 || status=$?
    grep -E '^Done|ERROR|SUMMARY|check failed' "$work.log" | sed "s/^/$t: /" || true
    [ "$status" -eq 0 ] || tail -40 "$work.log"
    rm -rf "$work" "$work.log"
    [ "$status" -eq 0 ] || { echo "$t: finding (exit $status)"; exit 1; }
  done
  exit 0
fi

seconds=${1:-600}
for t in "${targets[@]}"; do
  corpus=$dir/corpus/$t
  mkdir -p "$corpus"
  echo "== $t: $seconds s"
  (cd "$dir" && "$dir/tests/fuzz/$t" -max_total_time="$seconds" -max_len=65536 -print_final_stats=1 \
    -artifact_prefix="$dir/$t-" "$corpus" "$root/tests/fuzz/corpus/$t")
done
