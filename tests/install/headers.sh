#!/bin/sh
# SPDX-License-Identifier: LGPL-2.1-or-later
# Installs the development files of a build tree into a scratch prefix and
# compiles each installed header on its own, as a host would include it: a
# public header that needs an internal one (which is never installed) fails.
#
#   headers.sh <build dir> <C++ compiler>
set -eu
build=$1
cxx=$2

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" --component dev >/dev/null
include=$scratch/prefix/include/kavrel
[ -d "$include" ] || { echo "headers: nothing installed under include/kavrel" >&2; exit 1; }

qt=$(pkg-config --cflags Qt5Widgets)
n=0
failed=0
for header in $(cd "$include" && find . -name '*.h' | sed 's|^\./||' | sort); do
  printf '#include <%s>\n' "$header" > "$scratch/one.cpp"
  # shellcheck disable=SC2086 # the Qt flags are words
  if "$cxx" -std=c++17 -fPIC -fsyntax-only -Wall -Wextra -Werror -I"$include" $qt "$scratch/one.cpp"; then
    echo "headers: $header compiles on its own"
  else
    echo "headers: $header does not compile on its own" >&2
    failed=$((failed + 1))
  fi
  n=$((n + 1))
done
[ "$n" -gt 0 ] || { echo "headers: no header installed" >&2; exit 1; }
[ "$failed" = 0 ] || exit 1
echo "headers: all $n installed headers compile on their own"
