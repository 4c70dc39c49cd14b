#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Checks the Debian packages in a folder with lintian and fails on any error
# or warning (informational notes are listed, not counted).
# Usage: scripts/lint-packages.sh <folder with .deb files>
set -euo pipefail
dir=${1:?usage: lint-packages.sh <folder with .deb files>}
debs=("$dir"/*.deb)
[ -e "${debs[0]}" ] || { echo "lint-packages.sh: no .deb files in $dir" >&2; exit 1; }
"$(dirname "$0")/install-deps.sh" lint
ls -1 "${debs[@]}"
echo "lintian:"
# lintian warns that it runs as root; that says nothing about the packages.
lintian --info --fail-on error,warning "${debs[@]}" 2> >(grep -v 'running with root privileges' >&2)
echo "lintian: no errors, no warnings"
