#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Prepares an armhf (arm-linux-gnueabihf) sysroot with Qt 5, GoogleTest,
# Google Benchmark and GStreamer taken from Debian's armhf packages, and prints
# its path.
#
# The packages are resolved by apt with a private state directory (its own
# package lists, an empty dpkg status, APT::Architecture=armhf), downloaded,
# and unpacked with dpkg-deb -x. Nothing is installed into the host's dpkg
# database, so version skew between host and armhf multiarch packages cannot
# break the host; the armhf maintainer scripts never run (they need not: we
# only compile and link against the tree and run tests with qemu-arm -L).
#
# Idempotent and cached: a finished sysroot carries a stamp made from the
# package list, the suite and this script's layout version; a matching stamp
# makes the script return at once. Set KAVREL_CACHE_DIR to move the cache
# (default: ${XDG_CACHE_HOME:-$HOME/.cache}/kavrel).
#
# Usage: scripts/armhf-sysroot.sh [--print-path] [--force]
# Environment: KAVREL_CACHE_DIR, KAVREL_DEBIAN_MIRROR, KAVREL_DEBIAN_SECURITY,
#              KAVREL_DEBIAN_SUITE (default bookworm).
set -euo pipefail

suite=${KAVREL_DEBIAN_SUITE:-bookworm}
mirror=${KAVREL_DEBIAN_MIRROR:-http://deb.debian.org/debian}
security=${KAVREL_DEBIAN_SECURITY:-http://deb.debian.org/debian-security}
home=${HOME:-$(getent passwd "$(id -u)" | cut -d: -f6)}
cache=${KAVREL_CACHE_DIR:-${XDG_CACHE_HOME:-$home/.cache}/kavrel}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
layout=5   # bump when the way the tree is put together changes

# What the cross build compiles and links against. Their dependency closure
# comes along (Qt's X11/GL/font libraries, libc, libgcc...). qttools5-dev
# brings the CMake files of Qt's translation tools (lrelease).
packages=(
  libc6-dev
  libstdc++-12-dev
  qtbase5-dev
  qttools5-dev
  libqt5test5
  libgtest-dev
  libgmock-dev
  libbenchmark-dev
  libv4l-dev
  # Peers of the armhf cost measurement (scripts/arm-cost.sh), same frames.
  libyuv-dev
  libopencv-imgproc-dev
  libgstreamer1.0-dev
  libgstreamer-plugins-base1.0-dev
)

force=0
print_only=0
for a in "$@"; do
  case $a in
    --force) force=1 ;;
    --print-path) print_only=1 ;;
    -h|--help) sed -n '3,20p' "$0"; exit 0 ;;
    *) echo "armhf-sysroot.sh: unknown argument $a" >&2; exit 2 ;;
  esac
done

sysroot=$cache/sysroot-armhf-$suite
stamp_want="layout=$layout suite=$suite packages=${packages[*]}"
if [ "$print_only" = 1 ]; then echo "$sysroot"; exit 0; fi
if [ "$force" = 0 ] && [ -f "$sysroot/.kavrel-sysroot" ] &&
   [ "$(cat "$sysroot/.kavrel-sysroot")" = "$stamp_want" ]; then
  echo "$sysroot"
  exit 0
fi

log() { echo "armhf-sysroot: $*" >&2; }

# Host tools this script needs (apt-get, dpkg-deb are always there on Debian).
# install-deps.sh installs the keyring as root or through sudo.
if [ ! -f "$keyring" ]; then
  "$(dirname "$0")/install-deps.sh" sysroot >&2
fi

mkdir -p "$cache"
exec 9>"$cache/.sysroot-armhf.lock"
flock 9   # two builds at once share one download

# Another process may have finished while we waited for the lock.
if [ "$force" = 0 ] && [ -f "$sysroot/.kavrel-sysroot" ] &&
   [ "$(cat "$sysroot/.kavrel-sysroot")" = "$stamp_want" ]; then
  echo "$sysroot"
  exit 0
fi

aptroot=$cache/apt-armhf-$suite
mkdir -p "$aptroot"/{lists/partial,archives/partial,etc/preferences.d,etc/sources.list.d}
: > "$aptroot/status"
cat > "$aptroot/etc/sources.list" <<EOF
deb [arch=armhf signed-by=$keyring] $mirror $suite main
deb [arch=armhf signed-by=$keyring] $mirror $suite-updates main
deb [arch=armhf signed-by=$keyring] $security $suite-security main
EOF

# The host's apt.conf (proxies, mirror quirks) stays in force; only state,
# cache, sources and the architecture are private to the sysroot.
apt_opts=(
  -o "APT::Architecture=armhf"
  -o "APT::Architectures::=armhf"
  -o "Dir::State=$aptroot"
  -o "Dir::State::Lists=$aptroot/lists"
  -o "Dir::State::status=$aptroot/status"
  -o "Dir::Cache=$aptroot"
  -o "Dir::Cache::archives=$aptroot/archives"
  -o "Dir::Cache::pkgcache="
  -o "Dir::Cache::srcpkgcache="
  -o "Dir::Etc::SourceList=$aptroot/etc/sources.list"
  -o "Dir::Etc::SourceParts=$aptroot/etc/sources.list.d"
  -o "Dir::Etc::Preferences=$aptroot/etc/preferences"
  -o "Dir::Etc::PreferencesParts=$aptroot/etc/preferences.d"
  -o "Debug::NoLocking=1"
  -o "APT::Install-Recommends=0"
  -o "APT::Install-Suggests=0"
  -o "APT::Sandbox::User=root"
)

log "updating armhf package lists ($suite)"
# A mirror caught mid-sync fails one index now and then: retry, and in the end
# go on with the lists that did arrive (a missing main list makes the install
# step below fail with a clear message).
for try in 1 2; do
  if apt-get "${apt_opts[@]}" -q update >&2; then break; fi
  if [ "$try" = 2 ]; then log "some armhf indexes failed to download; going on without them"; break; fi
  log "apt-get update failed; retrying once"
  sleep 5
done

log "resolving and downloading ${packages[*]} with dependencies"
apt-get "${apt_opts[@]}" -q -y --download-only install "${packages[@]}" >&2

# Unpack the exact set apt chose for this run (the archive directory may
# also hold older versions from earlier runs).
mapfile -t chosen < <(apt-get "${apt_opts[@]}" -q -s install "${packages[@]}" 2>/dev/null |
                      sed -n 's/^Inst \([^ ]*\) (\([^ ]*\) .*/\1 \2/p')
[ "${#chosen[@]}" -gt 0 ] || { log "apt chose no packages"; exit 1; }

tmp=$cache/.sysroot-armhf-$suite.tmp
rm -rf "$tmp"
mkdir -p "$tmp"
n=0
for pv in "${chosen[@]}"; do
  name=${pv%% *}; name=${name%%:*}
  ver=${pv#* }
  # Debian file names escape the epoch colon as %3a.
  file=$(ls "$aptroot/archives/${name}_${ver/:/%3a}_"*.deb 2>/dev/null | head -n 1 || true)
  if [ -z "$file" ]; then log "missing download for $name $ver"; exit 1; fi
  dpkg-deb -x "$file" "$tmp"
  n=$((n + 1))
done
log "unpacked $n packages"

# Absolute symlinks point into the host once the tree is a sysroot: make them
# relative to their own place in the tree.
while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  case $target in
    /*)
      rel=$(realpath -m --relative-to="$(dirname "$link")" "$tmp$target")
      ln -sfn "$rel" "$link"
      ;;
  esac
done < <(find "$tmp" -type l -print0)

# Linker scripts in libc6-dev name absolute paths (/lib/arm-linux-gnueabihf/...);
# with --sysroot the linker prefixes them itself, so they stay as they are.

# Some libraries reach their SONAME through update-alternatives, which only the
# maintainer scripts (never run here) set up: BLAS and LAPACK, which OpenCV
# needs. Give them the default the scripts would pick.
for alt in blas/libblas.so.3 lapack/liblapack.so.3; do
  dir=$tmp/usr/lib/arm-linux-gnueabihf
  if [ -e "$dir/$alt" ] && [ ! -e "$dir/$(basename "$alt")" ]; then
    ln -s "$alt" "$dir/$(basename "$alt")"
  fi
done

# merged-/usr: Debian 12 ships files under /usr/lib but binaries look for
# /lib/ld-linux-armhf.so.3; give the tree the same top-level links.
for d in bin sbin lib; do
  if [ ! -e "$tmp/$d" ] && [ -d "$tmp/usr/$d" ]; then ln -s "usr/$d" "$tmp/$d"; fi
done

# Qt's CMake files in the tree name the code generators (moc, uic, rcc...)
# inside it, but those are armhf programs: point them at the build machine's
# own (package qtbase5-dev-tools), which produce the same output.
for dir in usr/lib/qt5/bin usr/lib/arm-linux-gnueabihf/qt5/bin; do
  [ -d "$tmp/$dir" ] || continue
  for f in "$tmp/$dir"/*; do
    name=$(basename "$f")
    case $name in *.pl) continue ;; esac
    ln -sfn "/usr/lib/qt5/bin/$name" "$f"
  done
done

# Keep the downloads for the next rebuild, less those no longer on the mirror.
apt-get "${apt_opts[@]}" -q autoclean >&2 || true

echo "$stamp_want" > "$tmp/.kavrel-sysroot"
rm -rf "$sysroot.old"
if [ -d "$sysroot" ]; then mv "$sysroot" "$sysroot.old"; fi
mv "$tmp" "$sysroot"
rm -rf "$sysroot.old"
log "sysroot ready: $sysroot ($(du -sh "$sysroot" | cut -f1))"
echo "$sysroot"
