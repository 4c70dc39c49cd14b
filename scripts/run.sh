#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Builds the library with the simulated camera and runs the grab tool on both
# cameras. Extra arguments go to kavrel-grab (try --help).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KAVREL_BUILD_DIR:-$root/build/release}

"$root/scripts/install-deps.sh" run
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DKAVREL_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"

out=${KAVREL_GRAB_DIR:-$root/build/grab}
echo
echo "== kavrel-grab (simulated camera), PNG files in $out =="
"$build/tools/grab/kavrel-grab" --output "$out" "$@"
