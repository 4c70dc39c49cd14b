#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# What the pixel work costs on 32-bit ARM: instructions per pixel counted under
# qemu-arm and cycles per pixel estimated with llvm-mca, for every
# GlobalFunction conversion and every image request case, in both armhf builds
# (baseline VFPv3-D16 and NEON), beside libyuv, OpenCV and a two-memcpy floor,
# on noisy frames at 640x480 and 1280x960. Prints one table.
#
# Usage: scripts/arm-cost.sh [--neon|--baseline] [--out FILE]
#   --neon / --baseline  one build only (default both)
#   --out FILE           also write the table (Markdown) to FILE
#
# Steps: installs the cross compiler, qemu-user, LLVM 15 (llvm-mca) and glib;
# makes the armhf sysroot (with Debian's armhf libyuv and OpenCV); fetches the
# Debian source of the installed qemu-user (only its plugin header is used)
# and builds the counting plugin (bench/armcost/insncount.c) against it;
# cross-builds bench/armcost (kavrel_arm_cost) in build/armhf-cost and
# build/armhf-cost-neon; runs it under qemu-arm with the plugin; feeds the
# blocks that executed 99% of each region's instructions to llvm-mca for a
# Cortex-A9 and a Cortex-A57 (scripts/arm-cost-report.py).
# About 2-3 minutes on the 2-core build machine with the sysroot cached (most
# of it the two builds and llvm-mca).
# Environment: KAVREL_CACHE_DIR (default ~/.cache/kavrel), KAVREL_JOBS.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${KAVREL_JOBS:-$(nproc)}
home=${HOME:-$(getent passwd "$(id -u)" | cut -d: -f6)}
cache=${KAVREL_CACHE_DIR:-${XDG_CACHE_HOME:-$home/.cache}/kavrel}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg

variants=(baseline neon)
out=
while [ $# -gt 0 ]; do
  case $1 in
    --neon) variants=(neon) ;;
    --baseline) variants=(baseline) ;;
    --out) out=$2; shift ;;
    -h|--help) sed -n '3,22p' "$0"; exit 0 ;;
    *) echo "arm-cost.sh: unknown argument $1 (try --help)" >&2; exit 2 ;;
  esac
  shift
done

stage() { echo "== $* ($(date +%T))" >&2; }

stage "build machine packages"
"$root/scripts/install-deps.sh" armcost >&2

stage "armhf sysroot"
sysroot=$("$root/scripts/armhf-sysroot.sh")

# --- the counting plugin, against the installed qemu's own header ----------------
# The source package of the qemu-user in use, fetched with a private apt state
# (deb-src lines need not be configured on the machine); only the plugin
# header is unpacked from it.
qemu_version=$(dpkg-query -W -f='${source:Version}' qemu-user)
srcdir=$cache/qemu-src
tag=${qemu_version//:/_}
plugin=$srcdir/libinsncount-$tag.so
header_dir=$srcdir/include-$tag
if [ ! -f "$header_dir/qemu-plugin.h" ]; then
  stage "qemu $qemu_version source (plugin header)"
  apt_dir=$srcdir/apt
  mkdir -p "$apt_dir"/{lists/partial,archives/partial,etc/sources.list.d}
  : > "$apt_dir/status"
  cat > "$apt_dir/etc/sources.list" <<SRC
deb-src [signed-by=$keyring] http://deb.debian.org/debian bookworm main
deb-src [signed-by=$keyring] http://deb.debian.org/debian bookworm-updates main
deb-src [signed-by=$keyring] http://deb.debian.org/debian-security bookworm-security main
SRC
  apt_opts=(-o "Dir::State=$apt_dir" -o "Dir::State::Lists=$apt_dir/lists"
            -o "Dir::State::status=$apt_dir/status" -o "Dir::Cache=$apt_dir"
            -o "Dir::Etc::SourceList=$apt_dir/etc/sources.list"
            -o "Dir::Etc::SourceParts=$apt_dir/etc/sources.list.d"
            -o "Debug::NoLocking=1" -o "APT::Sandbox::User=root")
  apt-get "${apt_opts[@]}" -q update >/dev/null
  (cd "$srcdir" && apt-get "${apt_opts[@]}" -q source --download-only "qemu=$qemu_version" >/dev/null)
  orig=$(ls "$srcdir"/qemu_"${qemu_version#*:}"*.orig.tar.* 2>/dev/null | head -n 1 || true)
  [ -n "$orig" ] || orig=$(ls "$srcdir"/qemu_*.orig.tar.* | head -n 1)
  tmp=$srcdir/.unpack
  rm -rf "$tmp"; mkdir -p "$tmp"
  tar -xf "$orig" -C "$tmp" --wildcards '*/include/qemu/qemu-plugin.h'
  mkdir -p "$header_dir"
  cp "$tmp"/*/include/qemu/qemu-plugin.h "$header_dir/"
  rm -rf "$tmp"
fi
if [ ! -f "$plugin" ] || [ "$root/bench/armcost/insncount.c" -nt "$plugin" ]; then
  stage "building the counting plugin"
  # shellcheck disable=SC2046
  gcc -O2 -shared -fPIC -Wall -Wextra -Werror -I"$header_dir" $(pkg-config --cflags glib-2.0) \
    "$root/bench/armcost/insncount.c" -o "$plugin" $(pkg-config --libs glib-2.0)
fi
# Debian's qemu-user must have been built with plugin support.
if ! qemu-arm -plugin "$plugin,on=2,off=4" -L "$sysroot" "$sysroot/lib/ld-linux-armhf.so.3" --version >/dev/null; then
  echo "arm-cost.sh: qemu-arm $(qemu-arm --version | head -n 1) does not load TCG plugins" >&2
  exit 1
fi

results=()
for variant in "${variants[@]}"; do
  if [ "$variant" = neon ]; then neon=ON; build=$root/build/armhf-cost-neon
  else neon=OFF; build=$root/build/armhf-cost; fi
  stage "armhf $variant: building kavrel_arm_cost in $build"
  cmake -S "$root" -B "$build" \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" \
    -DKAVREL_ARMHF_SYSROOT="$sysroot" -DKAVREL_ARMHF_NEON=$neon \
    -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DKAVREL_BUILD_TOOLS=OFF >/dev/null
  cmake --build "$build" -j"$jobs" --target kavrel_arm_cost >/dev/null
  prog=$build/bench/armcost/kavrel_arm_cost
  grep -q KAVREL_ARMCOST_LIBYUV "$build/bench/armcost/CMakeFiles/kavrel_arm_cost.dir/flags.make" ||
    { echo "arm-cost.sh: libyuv not found in the sysroot" >&2; exit 1; }
  grep -q KAVREL_ARMCOST_OPENCV "$build/bench/armcost/CMakeFiles/kavrel_arm_cost.dir/flags.make" ||
    { echo "arm-cost.sh: OpenCV not found in the sysroot" >&2; exit 1; }
  on=$(arm-linux-gnueabihf-nm "$prog" | awk '$3 == "kavrel_cost_begin" { print $1 }')
  off=$(arm-linux-gnueabihf-nm "$prog" | awk '$3 == "kavrel_cost_end" { print $1 }')
  [ -n "$on" ] && [ -n "$off" ] || { echo "arm-cost.sh: no markers in $prog" >&2; exit 1; }

  stage "armhf $variant: counting under qemu-arm"
  counts=$build/arm-cost-counts.txt
  regions=$build/arm-cost-regions.txt
  qemu-arm -plugin "$plugin,on=$on,off=$off,out=$counts" -L "$sysroot" "$prog" > "$regions"
  results+=("$variant" "$regions" "$counts")
done

stage "llvm-mca and the table"
report_args=()
[ -n "$out" ] && report_args+=(--out "$out")
python3 "$root/scripts/arm-cost-report.py" "${report_args[@]}" "${results[@]}"
