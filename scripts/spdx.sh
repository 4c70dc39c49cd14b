#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Adds the licence identifier line to every source file that lacks one:
#   // SPDX-License-Identifier: LGPL-2.1-or-later   C and C++ (.c .cpp .h)
#   # SPDX-License-Identifier: LGPL-2.1-or-later    shell scripts (after the #! line),
#                                                   CMake files, *.in templates
# Idempotent: a file that names an SPDX identifier in its first five lines is
# left alone. Data files (test corpora, images), Markdown and XML (.ui, .ts)
# are not touched.
#
# Usage: scripts/spdx.sh [--check] [path...]   (default: every file git tracks)
#   --check  change nothing; list the files that lack the line, fail if any do
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
id="SPDX-License-Identifier: LGPL-2.1-or-later"

check=0
if [ "${1:-}" = --check ]; then check=1; shift; fi
if [ $# -gt 0 ]; then
  mapfile -t files < <(git ls-files -- "$@")
else
  mapfile -t files < <(git ls-files)
fi

missing=0
for f in "${files[@]}"; do
  [ -f "$f" ] || continue
  case $f in
    */corpus/*|cmake/debian/*) continue ;;   # data; Debian formats without comments
    *.c|*.cpp|*.h) style=cxx ;;
    *.sh|.ci/*) style=shell ;;
    CMakeLists.txt|*/CMakeLists.txt|*.cmake|*.in|*.supp) style=hash ;;
    *) continue ;;
  esac
  head -n 5 "$f" | grep -q 'SPDX-License-Identifier' && continue
  missing=$((missing + 1))
  if [ "$check" = 1 ]; then echo "$f"; continue; fi
  tmp=$(mktemp)
  case $style in
    cxx) { echo "// $id"; cat "$f"; } > "$tmp" ;;
    hash) { echo "# $id"; cat "$f"; } > "$tmp" ;;
    shell)
      if head -n 1 "$f" | grep -q '^#!'; then
        { head -n 1 "$f"; echo "# $id"; tail -n +2 "$f"; } > "$tmp"
      else
        { echo "# $id"; cat "$f"; } > "$tmp"
      fi ;;
  esac
  cat "$tmp" > "$f"   # keeps the file's mode
  rm -f "$tmp"
  echo "added: $f"
done
if [ "$check" = 1 ] && [ "$missing" -gt 0 ]; then
  echo "spdx.sh: $missing files lack the identifier" >&2
  exit 1
fi
