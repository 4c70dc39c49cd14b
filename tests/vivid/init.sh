#!/bin/sh
# SPDX-License-Identifier: LGPL-2.1-or-later
# /init of the virtual machine that scripts/vivid-test.sh boots: loads vivid,
# runs the host programs against it with the V4L2 camera, sends the results
# and the PNG files out on the second serial port and powers off.
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mkdir -p /tmp /out
. /vivid/env.sh   # KAVREL_BUILD, KAVREL_V4L2_DIR, module list

result=FAIL
run() { echo "+ $*"; "$@"; }
finish() {
  echo "VIVID-RESULT: $result"
  stty -F /dev/ttyS1 raw 2>/dev/null
  (cd /out && tar cf - . | base64 && echo END-OF-DATA) > /dev/ttyS1
  sleep 1   # the serial port drains
  poweroff -f
}

for m in $VIVID_MODULES; do
  insmod "/vivid/modules/$m" || { echo "insmod $m failed"; finish; }
done
# One webcam input on one capture node.
insmod /vivid/modules/vivid.ko n_devs=1 node_types=0x1 num_inputs=1 input_types=0x0 ||
  { echo "insmod vivid.ko failed"; finish; }
[ -c /dev/video0 ] || { echo "no /dev/video0 after loading vivid"; finish; }

export LD_LIBRARY_PATH=$KAVREL_V4L2_DIR
export TORVANE_V4L2_DEVICE=/dev/video0 TORVANE_V4L2_FPS=10
export QT_QPA_PLATFORM=offscreen HOME=/tmp
failed=0
# The cheapest format (BGR24, passed through), then two converted ones.
run "$KAVREL_BUILD/tests/vivid/vivid_host" BGR3 /vivid/golden.txt || failed=1
TORVANE_V4L2_FORMAT=YUYV run "$KAVREL_BUILD/tests/vivid/vivid_host" YUYV /vivid/golden.txt || failed=1
TORVANE_V4L2_FORMAT=GREY run "$KAVREL_BUILD/tests/vivid/vivid_host" GREY /vivid/golden.txt || failed=1
# The grab tool, with its own switch and without LD_LIBRARY_PATH.
unset LD_LIBRARY_PATH TORVANE_V4L2_DEVICE
main='<CCDType>WebCam</CCDType><CCDPos>0</CCDPos><PixFmt>1</PixFmt><ROI>0,0,640,360</ROI><RAW>0</RAW><Settings><Gamma>1.00</Gamma><TriggerType>Video</TriggerType></Settings><UseCUDA>0</UseCUDA>'
slaver='<CCDType>WebCam</CCDType><CCDPos>0</CCDPos><PixFmt>0</PixFmt><ROI>0,0,320,180</ROI><RAW>0</RAW><Settings><Gamma>1.00</Gamma><TriggerType>Video</TriggerType></Settings><UseCUDA>0</UseCUDA>'
if run "$KAVREL_BUILD/tools/grab/kavrel-grab" --camera v4l2 --device /dev/video0 -n 3 --timeout 5000 \
     -o /out --main "$main" --slaver "$slaver"; then
  for f in main-first.png main-last.png slaver-first.png slaver-last.png; do
    [ -s "/out/$f" ] || { echo "kavrel-grab wrote no $f"; failed=1; }
  done
else
  echo "kavrel-grab failed"; failed=1
fi
# A picture of the viewer on vivid, for the documentation; not a check.
viewer=$KAVREL_BUILD/tools/viewer/kavrel-viewer
if [ -x "$viewer" ]; then
  QT_QPA_PLATFORM=offscreen timeout 120 "$viewer" --camera v4l2 --device /dev/video0 \
    --main "$main" --slaver "$(echo "$slaver" | sed 's/0,0,320,180/0,0,640,360/')" --screenshots /out/viewer >/dev/null 2>&1 ||
    echo "kavrel-viewer did not finish; no picture of it"
fi
# Last, as it takes the device away.
TORVANE_V4L2_DEVICE=/dev/video0 LD_LIBRARY_PATH=$KAVREL_V4L2_DIR TORVANE_V4L2_DEBUG=1 \
  run "$KAVREL_BUILD/tests/vivid/vivid_host" UNPLUG /vivid/golden.txt --unplug || failed=1
[ "$failed" = 0 ] && result=PASS
finish
