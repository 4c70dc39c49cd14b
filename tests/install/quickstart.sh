#!/bin/sh
# SPDX-License-Identifier: LGPL-2.1-or-later
# Runs the README's host quick start exactly as a user would copy it.
#
#   quickstart.sh prefix   <README.md> <build dir>     (a ctest test)
#   quickstart.sh packages <README.md> <source dir>    (as root: installs the
#                                                       packages, removes them after)
#
# The README marks its quick-start blocks with an HTML comment on the line
# before the opening fence:
#   <!-- quickstart: host/host.cpp -->  the block is that file under $HOME
#   <!-- quickstart: prefix -->         the block runs in the prefix scenario
#   <!-- quickstart: packages -->       the block runs in the packages scenario
# Scenario blocks run one after the other in one shell (set -e), starting in
# a Kavrel clone, with HOME a fresh scratch folder.
set -eu
scenario=$1
readme=$2
tree=$3

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export HOME="$scratch/home"
mkdir -p "$HOME"

# The blocks: files go to $HOME, scenario commands to one script.
awk -v home="$HOME" -v want="$scenario" -v script="$scratch/run.sh" '
  /^<!-- quickstart: [^ ]+ -->$/ { name = $3; armed = 1; next }
  armed && /^```/ { armed = 0; inside = 1; n++
                    if (name ~ /[.\/]/) { out = home "/" name; system("mkdir -p \"$(dirname \"" out "\")\"");
                                          printf "" > out }
                    else if (name == want) out = script
                    else out = ""
                    next }
  inside && /^```/ { inside = 0; if (out != "") close(out); next }
  inside && out != "" { print >> out }
  END { if (n == 0) { print "quickstart: no marked blocks in the README" > "/dev/stderr"; exit 1 } }
' "$readme"
[ -s "$scratch/run.sh" ] || { echo "quickstart: no block for scenario $scenario" >&2; exit 1; }

case $scenario in
  prefix)
    # A clone whose build/release is the build tree under test.
    clone=$scratch/clone
    mkdir -p "$clone/build"
    ln -s "$tree" "$clone/build/release"
    ;;
  packages)
    clone=$tree
    # The README's apt-get asks before it installs; answer yes here.
    printf 'APT::Get::Assume-Yes "true";\n' > "$scratch/apt.conf"
    export APT_CONFIG="$scratch/apt.conf" DEBIAN_FRONTEND=noninteractive
    ours="libkavrel1 libkavrel-dev kavrel-tools kavrel-camera-sim gstreamer1.0-kavrel"
    before=$(dpkg-query -W -f='${Package} ${Status}\n' $ours 2>/dev/null | grep -c ' installed$' || true)
    if [ "$before" = 0 ]; then
      trap 'apt-get purge -y -qq $ours >/dev/null 2>&1 || true; rm -rf "$scratch"' EXIT
    fi
    ;;
  *) echo "quickstart: unknown scenario $scenario" >&2; exit 2 ;;
esac

echo "== README quick start ($scenario) =="
sed 's/^/| /' "$scratch/run.sh"
cd "$clone"
status=0
sh -ex "$scratch/run.sh" > "$scratch/log" 2>&1 || status=$?
cat "$scratch/log"
if [ "$status" != 0 ]; then
  echo "quickstart: a command of the $scenario scenario failed (exit $status)" >&2
  exit 1
fi
# The host prints one line per image; the scenario builds and runs it twice
# (CMake and pkg-config).
runs=$(grep -c '^Main: [0-9]* x [0-9]*, [0-9]* bytes per line$' "$scratch/log" || true)
if [ "$runs" -lt 2 ]; then
  echo "quickstart: the host ran $runs times with an image; expected 2 (CMake and pkg-config)" >&2
  exit 1
fi
if [ "$scenario" = packages ]; then
  # The GStreamer plugin where GStreamer looks by itself, found by a user
  # whose registry is new (HOME is fresh) and who set no plugin path.
  command -v gst-inspect-1.0 >/dev/null ||
    { echo "quickstart: gst-inspect-1.0 is missing (gstreamer1.0-tools; scripts/install-deps.sh test)" >&2; exit 1; }
  if ! env -u GST_PLUGIN_PATH -u GST_REGISTRY gst-inspect-1.0 kavrelsrc > "$scratch/inspect" 2>&1 ||
     ! grep -q 'Kavrel camera source' "$scratch/inspect"; then
    cat "$scratch/inspect"
    echo "quickstart: gst-inspect-1.0 does not find kavrelsrc after installing the packages" >&2
    exit 1
  fi
  grep -E '^  (Filename|Version) ' "$scratch/inspect"
  echo "quickstart: gst-inspect-1.0 finds kavrelsrc"
fi
echo "quickstart: $scenario passed"
