#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Installs the Debian 12 packages a build needs.
# Usage: install-deps.sh [run|package|test]
#   run     - what building the library and its tools needs
#   package - that, plus what the Debian packages need: help2man (manual
#             pages), Doxygen (API reference), lintian (the packages' check),
#             GStreamer's development packages (the plugin)
#   test    - all of that, plus the test, benchmark and fuzzing tools, and
#             the programs the GStreamer plugin is tested in (gst-launch-1.0,
#             gst-discoverer-1.0, its encoders and muxers, Debian's OpenCV)
# Packages already present are not asked for again, so a prepared machine
# needs no network.
set -euo pipefail

what=${1:-run}
packages=(build-essential cmake pkg-config qtbase5-dev qttools5-dev qttools5-dev-tools libv4l-dev)
# The plugin (libgstreamer1.0-dev carries the check library too), and the
# programs and elements its tests run it in.
gstreamer_dev=(libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev)
gstreamer_clients=(gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-base-apps
                   gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly python3-opencv)
case $what in
  run) ;;
  package) packages+=(help2man doxygen lintian "${gstreamer_dev[@]}") ;;
  test) packages+=(help2man doxygen lintian libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-dev
                   "${gstreamer_dev[@]}" "${gstreamer_clients[@]}") ;;
  *) echo "usage: $0 [run|package|test]" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  sudo=sudo
else
  sudo=
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
