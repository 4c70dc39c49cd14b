#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# End-to-end test of the V4L2 camera against a real kernel driver: the
# kernel's virtual camera vivid, in Debian's current kernel booted under
# qemu-system-x86_64 (TCG) with a small initramfs holding vivid's modules,
# busybox and the host programs (tests/vivid/vivid_host, kavrel-grab) with
# their shared libraries. The programs run through KavrelInterface with the
# V4L2 libtorvane.so, as a host would; see tests/vivid/init.sh.
#
# Usage: scripts/vivid-test.sh [BUILD_DIR]   (default build/release)
#   Builds what it needs in BUILD_DIR (configuring a Release build if there is
#   none), installs qemu, busybox-static, kmod and cpio when missing, and
#   fetches the kernel package once; the kernel and vivid's modules are kept in
#   the cache. The guest's PNG files and log end up in BUILD_DIR/vivid.
# Environment:
#   KAVREL_CACHE_DIR      cache folder (default ~/.cache/kavrel)
#   KAVREL_JOBS           parallel build jobs (default: number of cores)
#   KAVREL_VIVID_TIMEOUT  seconds the virtual machine may run (default 600)
# Fails, saying why, whenever the test cannot run: it never passes silently.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${1:-$root/build/release}")
jobs=${KAVREL_JOBS:-$(nproc)}
home=${HOME:-$(getent passwd "$(id -u)" | cut -d: -f6)}
cache=${KAVREL_CACHE_DIR:-${XDG_CACHE_HOME:-$home/.cache}/kavrel}/vivid
sudo=
[ "$(id -u)" -eq 0 ] || sudo=sudo

log() { echo "vivid-test: $*"; }
fail() { echo "vivid-test: FAILED: $*" >&2; exit 1; }
# Mirrors fail now and then: three tries, with a pause.
retry() {
  local i
  for i in 1 2 3; do
    "$@" && return 0
    log "attempt $i of: $* failed"
    sleep $((5 * i))
  done
  return 1
}

# --- packages -------------------------------------------------------------------
"$root/scripts/install-deps.sh" vivid || fail "cannot install the virtual machine's packages"
for tool in qemu-system-x86_64 busybox depmod modprobe cpio; do
  command -v "$tool" >/dev/null || [ -x "/sbin/$tool" ] || fail "$tool not found"
done
export PATH=$PATH:/sbin:/usr/sbin

# --- kernel ----------------------------------------------------------------------
# Debian retires old kernel packages: ask for the one linux-image-amd64 names now.
current_kernel() {
  apt-cache depends linux-image-amd64 2>/dev/null |
    sed -n 's/^ *Depends: linux-image-\([0-9][^ ]*-amd64\)$/\1/p' | head -1
}
kver=$(current_kernel)
if [ -z "$kver" ]; then
  log "no kernel package known to apt: updating its lists"
  retry $sudo apt-get update -qq || true
  kver=$(current_kernel)
fi
if [ -z "$kver" ]; then
  kver=$(ls -1 "$cache" 2>/dev/null | grep -- '-amd64$' | sort -V | tail -1 || true)
  [ -n "$kver" ] && [ -f "$cache/$kver/.complete" ] ||
    fail "cannot find Debian's current kernel package (linux-image-amd64) and nothing is cached"
  log "apt knows no kernel; using the cached $kver"
fi
kdir=$cache/$kver
if [ ! -f "$kdir/.complete" ]; then
  log "fetching linux-image-$kver-unsigned"
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' EXIT
  (cd "$tmp" && retry apt-get download -q "linux-image-$kver-unsigned") >/dev/null ||
    fail "cannot download linux-image-$kver-unsigned"
  dpkg-deb -x "$tmp"/linux-image-*.deb "$tmp/x"
  depmod -b "$tmp/x" "$kver"
  # vivid and what it needs, in load order.
  deps=$(modprobe -d "$tmp/x" -S "$kver" --show-depends vivid | awk '$1 == "insmod" {print $2}')
  [ -n "$deps" ] || fail "vivid is not among the modules of $kver"
  rm -rf "$kdir"
  mkdir -p "$kdir/modules"
  cp "$tmp/x/boot/vmlinuz-$kver" "$kdir/vmlinuz"
  : >"$kdir/modules.order"
  for m in $deps; do
    cp "$m" "$kdir/modules/"
    basename "$m" >>"$kdir/modules.order"
  done
  touch "$kdir/.complete"
  rm -rf "$tmp"
  trap - EXIT
  # Kernels Debian has retired are of no further use.
  for old in "$cache"/*-amd64; do
    [ "$old" = "$kdir" ] || rm -rf "$old"
  done
fi
log "kernel $kver, modules: $(paste -sd ' ' "$kdir/modules.order")"

# --- build -----------------------------------------------------------------------
if [ ! -f "$build/CMakeCache.txt" ]; then
  log "configuring a Release build in $build"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$build" -j"$jobs" --target torvane_v4l2 vivid_host kavrel-grab kavrel-viewer >/dev/null ||
  fail "cannot build the test programs in $build"
v4l2dir=$build/sdk/v4l2
programs=("$build/tests/vivid/vivid_host" "$build/tools/grab/kavrel-grab" "$build/tools/viewer/kavrel-viewer")
# The viewer draws with Qt's offscreen platform and one font.
qtplugin=$(qtpaths --plugin-dir 2>/dev/null || echo /usr/lib/x86_64-linux-gnu/qt5/plugins)/platforms/libqoffscreen.so
font=/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf
for f in "${programs[@]}" "$v4l2dir/libtorvane.so"; do
  [ -f "$f" ] || fail "$f was not built"
done

# --- initramfs -------------------------------------------------------------------
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
rootfs=$work/root
mkdir -p "$rootfs"/{bin,proc,sys,dev,tmp,vivid/modules}
cp /bin/busybox "$rootfs/bin/busybox"
for applet in sh mount insmod poweroff tar base64 mkdir cat echo ls sleep env stty timeout sed; do
  ln -s busybox "$rootfs/bin/$applet"
done
cp "$root/tests/vivid/init.sh" "$rootfs/init"
cp "$root/tests/vivid/golden.txt" "$rootfs/vivid/golden.txt"
cp "$kdir"/modules/*.ko "$rootfs/vivid/modules/"
{
  echo "KAVREL_BUILD='$build'"
  echo "KAVREL_V4L2_DIR='$v4l2dir'"
  echo "VIVID_MODULES='$(grep -v '^vivid.ko$' "$kdir/modules.order" | paste -sd ' ')'"
} >"$rootfs/vivid/env.sh"
# The programs and every library they load, at the same paths as here, so that
# their RUNPATHs and kavrel-grab's --camera switch work unchanged.
copy() { mkdir -p "$rootfs$(dirname "$1")" && cp -L "$1" "$rootfs$1"; }
extras=()
[ -f "$qtplugin" ] && [ -f "$font" ] && extras=("$qtplugin" "$font" /etc/fonts/fonts.conf)
libs=$( { for p in "${programs[@]}" "$v4l2dir/libtorvane.so" "${extras[@]:0:1}"; do
            ldd "$p"; LD_LIBRARY_PATH=$v4l2dir ldd "$p"
          done; } | awk '$2 == "=>" && $3 ~ /^\// {print $3} $1 ~ /^\// {print $1}' | sort -u)
for f in "${programs[@]}" $libs "$v4l2dir/libtorvane.so" "${extras[@]}"; do
  copy "$f"
done
(cd "$rootfs" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initrd.gz"
log "initramfs: $(du -h "$work/initrd.gz" | cut -f1) compressed, $(du -sh "$rootfs" | cut -f1) unpacked"

# --- run -------------------------------------------------------------------------
out=$build/vivid
rm -rf "$out"
mkdir -p "$out"
log "booting $kver under qemu (TCG)"
start=$(date +%s)
set +e
timeout "${KAVREL_VIVID_TIMEOUT:-600}" qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 1024 \
  -kernel "$kdir/vmlinuz" -initrd "$work/initrd.gz" \
  -append "console=ttyS0 rdinit=/init panic=-1 quiet loglevel=3" \
  -display none -monitor none -no-reboot \
  -serial stdio -serial "file:$work/out.b64" </dev/null | tee "$out/console.log"
status=${PIPESTATUS[0]}
set -e
log "virtual machine ran $(($(date +%s) - start)) s (exit status $status)"
[ "$status" -eq 124 ] && fail "the virtual machine did not finish in time"
if [ -s "$work/out.b64" ]; then
  sed '/END-OF-DATA/,$d' "$work/out.b64" | base64 -d -i 2>/dev/null | tar xf - -C "$out" 2>/dev/null ||
    log "the guest's files did not arrive whole"
fi
ls "$out"/*.png >/dev/null 2>&1 && log "PNG files from the guest: $(cd "$out" && ls -1 ./*.png | paste -sd ' ')"
grep -q '^VIVID-RESULT: PASS' "$out/console.log" || fail "see the checks above (log: $out/console.log)"
log "passed"
