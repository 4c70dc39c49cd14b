// SPDX-License-Identifier: LGPL-2.1-or-later
/*
 * C interface of the camera SDK (libtorvane.so).
 *
 * This is our own declaration of the vendor's closed library. Every function
 * takes the camera number last (first for camera_init / camera_free); the
 * library always names camera 0.
 */
#ifndef KAVREL_SDK_TORVANE_H
#define KAVREL_SDK_TORVANE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the camera. 0 on success; 1 to 5 are failure codes. */
int camera_init(int camera, int mode);
/* Closes the camera. */
int camera_free(int camera);
/* 1: triggered capture, 0: continuous video. */
int set_camera_mode(int mode, int camera);
/* Fires one software trigger. */
int set_camera_trigger(int camera);
int set_camera_exposure(int exposure, int camera);
int get_camera_exposure(int *exposure, int camera);
int set_camera_gain(int gain, int camera);
int get_camera_gain(int *gain, int camera);
/* Window (image) size; 0 on success. */
int set_camera_window_size(int width, int height, int camera);
int get_camera_window_size(int *width, int *height, int camera);
int get_camera_max_window_size(int *width, int *height, int camera);
/* Waits up to timeoutMs for the next frame. Returns the address of its packed
 * pixel data (owned by the SDK, valid until the next SDK call) and its
 * geometry, or null when no frame came in time. */
unsigned char *get_frame_timeout(int *width, int *height, int *bytesPerPixel, int camera, int timeoutMs);

#ifdef __cplusplus
}
#endif

#endif
