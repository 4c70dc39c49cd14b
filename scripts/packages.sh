#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Builds the Debian packages: libkavrel1, libkavrel-dev, kavrel-tools and
# kavrel-camera-sim, for this machine (amd64), for armhf devices, or both,
# and checks them with lintian (no error and no warning may remain).
#
# Usage: scripts/packages.sh [amd64|armhf|all]   (default: all)
# The .deb files land in build/pkg-amd64/packages and build/armhf/packages.
# Packages are release builds without tests; the test scripts run those.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${KAVREL_JOBS:-$(nproc)}
what=${1:-all}

case $what in
  amd64|armhf|all) ;;
  *) echo "usage: $0 [amd64|armhf|all]" >&2; exit 2 ;;
esac

if [ "$what" != armhf ]; then
  "$root/scripts/install-deps.sh" package
  build=$root/build/pkg-amd64
  echo "== amd64 packages in $build/packages =="
  # Prefix /usr: the packages install where Debian's own libraries go.
  # KAVREL_DOCS=ON: manual pages and API reference, or a failed build.
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
        -DBUILD_TESTING=OFF -DKAVREL_BUILD_BENCH=OFF -DKAVREL_DOCS=ON >/dev/null
  cmake --build "$build" -j"$jobs"
  rm -rf "$build/packages"
  (cd "$build" && cpack -G DEB >/dev/null)
  "$root/scripts/lint-packages.sh" "$build/packages"
fi

if [ "$what" != amd64 ]; then
  "$root/scripts/cross-armhf.sh" --package --no-test
fi
