#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Installs the Debian 12 packages that a build, a test or a script needs; the
# one place where the project's scripts install packages.
# Usage: install-deps.sh [SET...]   (default: run)
#   run      building the library and its tools
#   package  run, plus what the Debian packages need: help2man (manual pages),
#            Doxygen (API reference), lintian (the packages' check),
#            GStreamer's development packages (the plugin)
#   test     package, plus the test, benchmark and fuzzing tools, and the
#            programs the GStreamer plugin is tested in (gst-launch-1.0,
#            gst-discoverer-1.0, its encoders and muxers, Debian's OpenCV)
#   lint     lintian alone (scripts/lint-packages.sh)
#   sysroot  Debian's archive keyring (scripts/armhf-sysroot.sh)
#   armhf    sysroot, plus the cross compiler, qemu-user and the build
#            machine's Qt tools (scripts/cross-armhf.sh)
#   armcost  armhf, plus LLVM 15 (llvm-mca), glib and python3
#            (scripts/arm-cost.sh)
#   docs     help2man and Doxygen (KAVREL_DOCS=ON in a cross build)
#   vivid    qemu-system-x86, busybox-static, kmod, cpio (scripts/vivid-test.sh)
# Packages already present are not asked for again, so a prepared machine
# needs no network. Works as root and, through sudo, as any other user.
set -euo pipefail

run=(build-essential cmake pkg-config qtbase5-dev qttools5-dev qttools5-dev-tools libv4l-dev)
docs=(help2man doxygen)
lint=(lintian)
sysroot=(debian-archive-keyring)
# moc, uic, rcc and lrelease run on the build machine in a cross build, so
# they come from its own Qt packages; what the target links is in the sysroot.
armhf=("${sysroot[@]}" crossbuild-essential-armhf qemu-user cmake make pkg-config
       qtbase5-dev-tools qttools5-dev-tools)
# The plugin (libgstreamer1.0-dev carries the check library too), and the
# programs and elements its tests run it in.
gstreamer_dev=(libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev)
gstreamer_clients=(gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-base-apps
                   gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly python3-opencv)
package=("${run[@]}" "${docs[@]}" "${lint[@]}" "${gstreamer_dev[@]}")
test=("${package[@]}" libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-dev
      "${gstreamer_clients[@]}")
vivid=(qemu-system-x86 busybox-static kmod cpio)
# The counting plugin is built against glib; llvm-mca estimates cycles.
armcost=("${armhf[@]}" gcc llvm-15 libglib2.0-dev python3 xz-utils)

[ $# -gt 0 ] || set -- run
packages=()
for name in "$@"; do
  case $name in
    run|package|test|lint|sysroot|armhf|armcost|docs|vivid)
      declare -n named=$name
      packages+=("${named[@]}")
      unset -n named ;;
    *) echo "usage: $0 [run|package|test|lint|sysroot|armhf|armcost|docs|vivid]..." >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
# A package named by two sets is asked for once.
mapfile -t missing < <(printf '%s\n' "${missing[@]}" | sort -u)

sudo=
[ "$(id -u)" -eq 0 ] || sudo=sudo
# Mirrors fail now and then, and on a fresh machine another apt may still hold
# the lock: three tries, with a pause, each waiting for the lock.
retry() {
  local i
  for i in 1 2 3; do
    "$@" && return 0
    echo "install-deps: apt-get failed (attempt $i of 3)" >&2
    [ "$i" = 3 ] || sleep $((5 * i))
  done
  return 1
}
echo "Installing: ${missing[*]}" >&2
retry $sudo apt-get -o DPkg::Lock::Timeout=600 update -qq
retry $sudo env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 \
  install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
