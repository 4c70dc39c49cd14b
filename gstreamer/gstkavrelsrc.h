// SPDX-License-Identifier: LGPL-2.1-or-later
// kavrelsrc: a live GStreamer source that pulls frames from a Kavrel camera
// (Main or Slaver) through KavrelInterface, as any host of the library does.
#ifndef KAVREL_GSTREAMER_GSTKAVRELSRC_H
#define KAVREL_GSTREAMER_GSTKAVRELSRC_H

#include <gst/base/gstpushsrc.h>
#include <gst/video/video.h>

G_BEGIN_DECLS

#define GST_TYPE_KAVREL_SRC (gst_kavrel_src_get_type())
G_DECLARE_FINAL_TYPE(GstKavrelSrc, gst_kavrel_src, GST, KAVREL_SRC, GstPushSrc)

typedef enum {
    GST_KAVREL_CAMERA_MAIN = 0,
    GST_KAVREL_CAMERA_SLAVER = 1
} GstKavrelCamera;

#define GST_TYPE_KAVREL_CAMERA (gst_kavrel_camera_get_type())
GType gst_kavrel_camera_get_type(void);

G_END_DECLS

#endif
