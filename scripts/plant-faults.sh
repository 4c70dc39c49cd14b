#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Measures the test suite by planting typical faults, one at a time, and
# running the release tests against each: a fault the suite does not notice is
# a gap in the tests.
#
# Usage: scripts/plant-faults.sh [--check] [--list FILE] [--build DIR] [FAULT-ID...]
#   --check      only say which faults apply; no build, no tests
#   --list FILE  the faults (default scripts/plant-faults.list; its head says how they are written)
#   --build DIR  the release build used (default build/faults; configured when missing)
#   FAULT-ID     plant only these faults (default: all)
#
# Each fault is an exact text in a source file and its replacement. A text
# that is not in the file, or is there more than once, is reported as "did not
# apply" (the code moved on). Every planted file is restored afterwards,
# whatever happens. Per fault the build is incremental (-j2) and the tests run
# two at a time, stopping at the first failure. The install test is left out:
# it builds a separate tree and tests packaging, not behaviour. The one slow
# test (a 1.125 GiB configuration text, 40 s here) runs for faults in api/
# only, after the others passed: it is refused before anything outside api/
# sees the text.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
list=$root/scripts/plant-faults.list
build=$root/build/faults
jobs=2
slow='^(Hostile\.ConfigTooLongToHoldIsRefused)$'
slow_for='^api/'
excluded='^Install\.'
timeout=120 # the longest test takes about 45 s here; a hang should not cost more

only=()
check=0
while [ $# -gt 0 ]; do
  case $1 in
    --check) check=1; shift ;;
    --list) list=$(realpath "$2"); shift 2 ;;
    --build) build=$(realpath -m "$2"); shift 2 ;;
    -h|--help) sed -n '3,21p' "$0"; exit 0 ;;
    -*) echo "plant-faults.sh: unknown option $1 (try --help)" >&2; exit 2 ;;
    *) only+=("$1"); shift ;;
  esac
done

# --- Reading the list --------------------------------------------------------
ids=() files=() descs=() olds=() news=()
n=-1
# One space after the marker belongs to the marker; a bare marker is an empty line.
add_line() { # <array name> <text>
  local -n lines=$1
  if [ -n "${lines[n]+set}" ]; then lines[n]+=$'\n'"$2"; else lines[n]=$2; fi
}
while IFS= read -r line || [ -n "$line" ]; do
  case $line in
    '@ '*) n=$((n + 1)); read -r 'ids[n]' 'files[n]' 'descs[n]' <<<"${line#@ }" ;;
    '- '*|-) line=${line#-}; add_line olds "${line# }" ;;
    '+ '*|+) line=${line#+}; add_line news "${line# }" ;;
  esac
done <"$list"

# --- Planting and restoring --------------------------------------------------
saved=''
backup=$(mktemp)
restore() {
  if [ -n "$saved" ]; then
    # A plain copy gives the file a new time stamp, so the next build compiles
    # the restored text again (keeping the old stamp would keep the faulty object).
    cp "$backup" "$root/$saved"
    saved=''
  fi
}
trap 'restore; rm -f "$backup"' EXIT
trap 'exit 130' INT TERM

# Replaces the one occurrence of $2 in file $1 by $3; exit 3 when it is not
# there exactly once.
plant() {
  OLD=$2 NEW=$3 perl -0777 -e '
    my $t = <STDIN>; my ($o, $n) = ($ENV{OLD}, $ENV{NEW});
    my $at = index($t, $o);
    if ($at < 0 || index($t, $o, $at + 1) >= 0) { print $t; exit 3 }
    substr($t, $at, length $o) = $n; print $t;' <"$1" >"$1.planted" || { rm -f "$1.planted"; return 3; }
  cat "$1.planted" >"$1"
  rm -f "$1.planted"
}

if [ $check = 1 ]; then
  for i in "${!ids[@]}"; do
    cp "$root/${files[i]}" "$backup"
    saved=${files[i]}
    if plant "$root/${files[i]}" "${olds[i]-}" "${news[i]-}"; then r=applies; else r="does not apply"; fi
    cp "$backup" "$root/${files[i]}"
    saved=''
    printf '%-28s %s\n' "${ids[i]}" "$r"
  done
  exit 0
fi

# --- The suite ----------------------------------------------------------------
log=$build/plant-faults.log
build_tree() { cmake --build "$build" -j"$jobs" >>"$log" 2>&1; }
# Prints the failing tests; status 1 when any failed.
run_suite() { # <planted file>
  local out
  out=$(cd "$build" && ctest -j"$jobs" --timeout "$timeout" --stop-on-failure -E "$excluded|$slow" 2>&1) ||
    { printf '%s\n' "$out" >>"$log"; printf '%s\n' "$out" | sed -n 's/^[[:space:]]*[0-9]* - \(.*\)$/\1/p' | tr '\n' ' '; return 1; }
  [[ $1 =~ $slow_for ]] || return 0
  out=$(cd "$build" && ctest -j"$jobs" --timeout "$timeout" -R "$slow" -E "$excluded" 2>&1) ||
    { printf '%s\n' "$out" >>"$log"; printf '%s\n' "$out" | sed -n 's/^[[:space:]]*[0-9]* - \(.*\)$/\1/p' | tr '\n' ' '; return 1; }
}

mkdir -p "$build"
: >"$log"
t0=$(date +%s)
# Programs load the library at run time: a changed libKavrel relinks none of them.
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=ON -DKAVREL_BUILD_BENCH=OFF \
  -DCMAKE_LINK_DEPENDS_NO_SHARED=ON >>"$log" 2>&1
echo "Baseline: build and tests without a fault ($build)"
build_tree || { echo "the unchanged tree does not build; see $log" >&2; exit 1; }
if failed=$(run_suite api/); then :; else
  echo "the unchanged tree fails tests: $failed" >&2
  exit 1
fi

declare -A wanted=() known=()
for id in "${ids[@]}"; do known[$id]=1; done
for id in "${only[@]}"; do
  [ -n "${known[$id]:-}" ] || { echo "plant-faults.sh: no fault $id in $list" >&2; exit 2; }
  wanted[$id]=1
done

caught=0 missed=0 skipped=0 broken=0
missed_ids=()
for i in "${!ids[@]}"; do
  id=${ids[i]} file=${files[i]}
  if [ ${#only[@]} -gt 0 ] && [ -z "${wanted[$id]:-}" ]; then
    continue
  fi
  t=$(date +%s)
  echo "== $id $file: ${descs[i]}" >>"$log"
  cp "$root/$file" "$backup"
  saved=$file
  if ! plant "$root/$file" "${olds[i]-}" "${news[i]-}"; then
    saved=''
    printf '%-28s did not apply (text not found once in %s)\n' "$id" "$file"
    skipped=$((skipped + 1))
    continue
  fi
  if ! build_tree; then
    restore
    printf '%-28s does not build (fix the fault)\n' "$id"
    broken=$((broken + 1))
    continue
  fi
  if failed=$(run_suite "$file"); then
    result="MISSED"
    missed=$((missed + 1))
    missed_ids+=("$id")
  else
    result="caught by: $failed"
    caught=$((caught + 1))
  fi
  restore
  printf '%-28s %s (%ss)\n' "$id" "$result" "$(($(date +%s) - t))"
done

# Leave the build matching the tree again.
build_tree || true
applied=$((caught + missed))
echo
echo "Score: $caught of $applied planted faults caught ($missed missed, $skipped did not apply, $broken did not build) in $(($(date +%s) - t0)) s"
[ $missed -eq 0 ] || echo "Missed: ${missed_ids[*]}"
