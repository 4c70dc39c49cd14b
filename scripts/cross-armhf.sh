#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Cross build for 32-bit ARM hard-float (Debian armhf) with the test suite run
# under user-mode emulation (qemu-arm), from an x86-64 Debian 12 machine.
#
# Usage: scripts/cross-armhf.sh [--neon] [--both] [--package] [--no-test]
#   (default)  Debian armhf baseline: ARMv7-A, VFPv3-D16, no NEON
#   --neon     a build for NEON-capable cores instead (NEON pixel kernels)
#   --both     the baseline build and then the NEON build
#   --package  also make the armhf Debian packages (build dir /packages) and
#              check them with lintian
#   --no-test  build only
#
# One command does everything: installs the cross compiler, qemu-user and the
# build machine's Qt tools, prepares (or reuses) the armhf sysroot, configures,
# builds and runs ctest, where every test runs under qemu-arm.
# Environment:
#   KAVREL_ARMHF_BUILD_DIR  build directory (default build/armhf, build/armhf-neon)
#   KAVREL_CACHE_DIR        where the sysroot is kept (default ~/.cache/kavrel)
#   KAVREL_JOBS             parallel jobs (default: number of cores)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${KAVREL_JOBS:-$(nproc)}

variants=(baseline)
package=0
run_tests=1
for a in "$@"; do
  case $a in
    --neon) variants=(neon) ;;
    --both) variants=(baseline neon) ;;
    --package) package=1 ;;
    --no-test) run_tests=0 ;;
    -h|--help) sed -n '3,20p' "$0"; exit 0 ;;
    *) echo "cross-armhf.sh: unknown argument $a (try --help)" >&2; exit 2 ;;
  esac
done

stage() { echo; echo "== $* =="; }

# --- build machine packages ----------------------------------------------------
if [ "$package" = 1 ]; then
  "$root/scripts/install-deps.sh" armhf docs lint
else
  "$root/scripts/install-deps.sh" armhf
fi

stage "armhf sysroot"
sysroot=$("$root/scripts/armhf-sysroot.sh")
echo "$sysroot"

for variant in "${variants[@]}"; do
  if [ "$variant" = neon ]; then
    neon=ON
    build=${KAVREL_ARMHF_BUILD_DIR:-$root/build/armhf}-neon
  else
    neon=OFF
    build=${KAVREL_ARMHF_BUILD_DIR:-$root/build/armhf}
  fi

  stage "armhf $variant: configure and build in $build"
  cmake -S "$root" -B "$build" \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" \
    -DKAVREL_ARMHF_SYSROOT="$sysroot" \
    -DKAVREL_ARMHF_NEON=$neon \
    -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=$([ "$run_tests" = 1 ] && echo ON || echo OFF) \
    -DKAVREL_DOCS=$([ "$package" = 1 ] && echo ON || echo AUTO) >/dev/null
  cmake --build "$build" -j"$jobs"

  lib="$build/libKavrel.so.1"
  readelf=arm-linux-gnueabihf-readelf
  if [ -f "$lib" ]; then
    # The library must be what a device loads: 32-bit ARM, EABI5 hard-float,
    # SONAME libKavrel.so.1, the SDK as an ordinary DT_NEEDED.
    $readelf -h "$lib" | grep -q 'Machine:.*ARM' || { echo "$lib is not an ARM object" >&2; exit 1; }
    $readelf -h "$lib" | grep -q 'Version5 EABI, hard-float ABI' || { echo "$lib is not EABI5 hard-float" >&2; exit 1; }
    $readelf -d "$lib" | grep -q 'SONAME.*\[libKavrel.so.1\]' || { echo "$lib: wrong SONAME" >&2; exit 1; }
    $readelf -d "$lib" | grep -q 'NEEDED.*\[libtorvane.so\]' || { echo "$lib: no DT_NEEDED libtorvane.so" >&2; exit 1; }
    if [ "$neon" = OFF ] && $readelf -A "$lib" | grep -q 'Tag_Advanced_SIMD_arch'; then
      echo "$lib: the baseline build uses NEON" >&2; exit 1
    fi
    echo "$lib: $($readelf -h "$lib" | sed -n 's/ *Flags: *//p'); $($readelf -A "$lib" | grep -E 'Tag_(FP|Advanced_SIMD)_arch' | sed 's/^ *//' | paste -sd ' ')"
  fi

  if [ "$run_tests" = 1 ]; then
    stage "armhf $variant: tests under qemu-arm"
    # Emulation is several times slower than native: allow for it.
    (cd "$build" && ctest --output-on-failure --no-tests=error -j"$jobs" --timeout 1800)
  fi

  if [ "$package" = 1 ]; then
    stage "armhf $variant: Debian packages"
    rm -rf "$build/packages"
    (cd "$build" && cpack -G DEB >/dev/null)
    "$root/scripts/lint-packages.sh" "$build/packages"
  fi
done
