#!/bin/sh
# SPDX-License-Identifier: LGPL-2.1-or-later
# kavrelsrc in programs nobody here wrote, as the README shows them, on the
# simulated camera at 30 frames per second.
#
#   real-clients.sh <plugin folder> inspect|mp4|png|opencv
#
# Fails, saying why, when a program or a GStreamer element it needs is missing
# (scripts/install-deps.sh test installs them all).
set -eu
plugins=$1
what=$2

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export GST_PLUGIN_PATH="$plugins" GST_REGISTRY="$scratch/registry.bin"
export TORVANE_SIM_FPS=30

fail() { echo "real-clients ($what): $*" >&2; exit 1; }
need_program() {
  command -v "$1" >/dev/null || fail "$1 is missing (package $2; scripts/install-deps.sh test installs it)"
}
need_element() {
  gst-inspect-1.0 --exists "$1" || fail "GStreamer element $1 is missing (package $2; scripts/install-deps.sh test installs it)"
}

need_program gst-inspect-1.0 gstreamer1.0-tools
case $what in
  inspect)
    out=$(gst-inspect-1.0 kavrelsrc) || fail "gst-inspect-1.0 does not find kavrelsrc in $plugins"
    for p in camera config timeout trigger num-buffers do-timestamp; do
      printf '%s\n' "$out" | grep -q "^  $p " || fail "gst-inspect-1.0 kavrelsrc lists no property $p"
    done
    ;;
  mp4)
    need_program gst-launch-1.0 gstreamer1.0-tools
    need_program gst-discoverer-1.0 gstreamer1.0-plugins-base-apps
    need_element videoconvert gstreamer1.0-plugins-base
    need_element x264enc gstreamer1.0-plugins-ugly
    need_element mp4mux gstreamer1.0-plugins-good
    gst-launch-1.0 -q kavrelsrc num-buffers=60 ! video/x-raw,width=640,height=480 ! videoconvert ! \
      video/x-raw,format=I420 ! queue ! x264enc tune=zerolatency speed-preset=ultrafast ! mp4mux ! filesink location="$scratch/kavrel.mp4"
    info=$(gst-discoverer-1.0 "$scratch/kavrel.mp4")
    printf '%s\n' "$info"
    printf '%s\n' "$info" | grep -q 'Width: 640' || fail "the file is not 640 wide"
    printf '%s\n' "$info" | grep -q 'Height: 480' || fail "the file is not 480 high"
    # 60 frames at 30 per second: two seconds. Frames carry the time they were
    # captured, so an encoder that falls behind stretches it a little.
    printf '%s\n' "$info" | grep -Eq 'Duration: 0:00:0(1\.[89]|2\.|3\.)' || fail "the duration is not 2 to 4 s"
    ;;
  png)
    need_program gst-launch-1.0 gstreamer1.0-tools
    need_element pngenc gstreamer1.0-plugins-good
    gst-launch-1.0 -q kavrelsrc num-buffers=3 ! videoconvert ! pngenc ! \
      multifilesink location="$scratch/snapshot-%02d.png"
    for i in 00 01 02; do
      f=$scratch/snapshot-$i.png
      [ -s "$f" ] || fail "no $f"
      # The PNG signature, then an IHDR of 1280 x 960 (the sensor).
      sig=$(od -An -tx1 -N24 "$f" | tr -d ' \n')
      case $sig in
        89504e470d0a1a0a0000000d4948445200000500000003c0*) ;;
        *) fail "$f is not a 1280 x 960 PNG ($sig)" ;;
      esac
    done
    echo "3 PNG snapshots of 1280 x 960"
    ;;
  opencv)
    # Debian's OpenCV, not whatever python3 comes first on the PATH.
    py=/usr/bin/python3
    [ -x "$py" ] || fail "$py is missing (package python3)"
    "$py" -c 'import cv2' 2>/dev/null || fail "Debian's OpenCV for Python is missing (package python3-opencv)"
    "$py" - <<'PY'
import sys
import cv2

cap = cv2.VideoCapture("kavrelsrc ! videoconvert ! appsink", cv2.CAP_GSTREAMER)
if not cap.isOpened():
    sys.exit("OpenCV could not open the kavrelsrc pipeline")
shapes = []
for _ in range(10):
    ok, frame = cap.read()
    if not ok:
        sys.exit("OpenCV read no frame")
    shapes.append(frame.shape)
cap.release()
if any(s != (960, 1280, 3) for s in shapes):
    sys.exit("unexpected frame shapes %s" % shapes)
# The simulated camera's first bar is white, its sixth red: BGR as OpenCV wants it.
# The camera's colour bars scroll sideways but keep their order: yellow, then
# cyan. Swapped red and blue would show cyan, then yellow.
def name(px):
    b, g, r = (int(v) > 128 for v in px)
    return {(False, True, True): "yellow", (True, True, False): "cyan"}.get((b, g, r), "other")
row = [name(frame[200, x]) for x in range(0, frame.shape[1], 8)]
runs = [c for i, c in enumerate(row) if i == 0 or c != row[i - 1]]
if len(runs) > 1 and runs[0] == runs[-1]:
    runs.pop()  # the row wraps around
after_yellow = {runs[(i + 1) % len(runs)] for i, c in enumerate(runs) if c == "yellow"}
print("OpenCV read 10 frames of", shapes[0], "; after yellow comes", after_yellow)
if after_yellow != {"cyan"}:
    sys.exit("the colour bars are out of order in OpenCV's BGR: red and blue swapped")
PY
    ;;
  *) fail "unknown client (inspect, mp4, png or opencv)" ;;
esac
echo "real-clients ($what): passed"
