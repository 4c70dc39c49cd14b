// SPDX-License-Identifier: LGPL-2.1-or-later
/*
 * Controls of the simulated camera, the stand-in for libtorvane.so.
 *
 * Only the stand-in exports these; the library never calls them. Tests and
 * demos use them to steer the simulation: its sensor, its frame rate, failures
 * of single SDK calls, frames of their own, and a log of every SDK call.
 * All functions are thread-safe.
 *
 * Behaviour of the SDK calls as simulated:
 * - Only camera 0 exists: camera_init with another number answers 3 (and
 *   leaves an armed result alone), every other call answers -1 or null.
 * - Continuous mode at a positive rate: frame k is due k / rate after the rate
 *   or the mode was last set; get_frame_timeout waits for the first frame due
 *   after the call, never an older one. Callers waiting at the same time all
 *   get that same frame. Triggered mode: each trigger makes one frame for one
 *   caller; triggers fired in continuous mode, or pending when the mode
 *   changes, are dropped.
 * - The camera need not be open for frames or settings; camera_init and
 *   camera_free only count.
 * - The frame handed out lives in a buffer of the calling thread: it stays
 *   valid until that thread's next get_frame_timeout call (or its end). The
 *   strict mode (torvanesim_strict_frames) gives exactly the lifetime the SDK
 *   documents instead: one buffer for all callers, valid until the next SDK
 *   call from any thread.
 * - Environment (read at first use and by torvanesim_reset):
 *   TORVANE_SIM_SENSOR=WIDTHxHEIGHT, TORVANE_SIM_BPP=1|3, TORVANE_SIM_FPS=rate.
 */
#ifndef KAVREL_SDK_TORVANESIM_H
#define KAVREL_SDK_TORVANESIM_H

#ifdef __cplusplus
extern "C" {
#endif

/* Back to the start state: settings from the environment (or the defaults
 * 1280 x 960, 3 bytes per pixel, 30 frames per second), window = sensor,
 * continuous mode, exposure 20000, gain 0, no queued frames, no failures armed,
 * counters and log cleared, camera closed. */
void torvanesim_reset(void);

/* Sensor geometry of generated frames; resets the window to the sensor size. */
void torvanesim_set_sensor(int width, int height, int bytesPerPixel);
/* Frame rate of continuous mode; 0 or below delivers a frame on every call. */
void torvanesim_set_frame_rate(double framesPerSecond);

/* Result of the next camera_init call only (then back to 0 = success). */
void torvanesim_set_next_init_result(int result);
/* Non-zero: every get_camera_max_window_size / set_camera_window_size fails
 * (returns -1) until switched off again. */
void torvanesim_fail_max_window_size(int fail);
void torvanesim_fail_set_window_size(int fail);

/* Queues a frame of any geometry (bytes are copied: width * height *
 * bytesPerPixel of them, or none when data is null; the stand-in then fills
 * it with the test pattern). Queued frames are delivered first, one per
 * get_frame_timeout call, in any mode, before generated ones. width and height
 * may be anything, even sizes whose byte count does not fit an int: such a
 * frame is only described, its data address points at a small dummy buffer
 * (so do frames with no bytes at all). Pattern frames queued without data carry
 * frame number 0 and the exposure and gain of the moment they were queued. */
void torvanesim_queue_frame(int width, int height, int bytesPerPixel, const unsigned char *data);
/* Non-zero: set_camera_exposure, set_camera_gain or set_camera_mode answers
 * -1 and changes nothing until switched off again. */
void torvanesim_fail_set_exposure(int fail);
void torvanesim_fail_set_gain(int fail);
void torvanesim_fail_set_mode(int fail);

/* Non-zero: every frame is handed out in one buffer shared by all callers,
 * which every SDK call spoils on entry (its bytes then decode as frame number
 * 0xAAAAAAAA) and which grows, moving, for larger frames. A frame read after
 * any later SDK call, from any thread, is therefore visibly wrong. Off after
 * torvanesim_reset. */
void torvanesim_strict_frames(int enable);

/* Non-zero: get_frame_timeout answers null (after waiting its time-out, at
 * most 50 ms) until switched off again, even when frames are queued. */
void torvanesim_starve_frames(int starve);

/* Counters. */
int torvanesim_init_calls(void);          /* camera_init calls so far */
int torvanesim_open_count(void);          /* successful camera_init minus camera_free */
int torvanesim_trigger_calls(void);       /* set_camera_trigger calls so far */
unsigned int torvanesim_frames_delivered(void); /* frames handed out so far */

/* Frame counter carried by generated frames: the number of the frame is
 * written into its first 8 pixels' first bytes (see torvanesim_frame_number)
 * and drawn as digits into the picture. Numbers start at 1 and grow by one per
 * frame made (skipped ones in continuous mode count too).
 * Code: 4 bits per pixel, most significant first; every byte of pixel i holds
 * nibble i * 16 + 8, decoded as byte / 16. It survives unchanged copies, the
 * 1 -> 3 byte expansion and grey conversions, not gamma. `pixels` must hold 8
 * pixels. The code and the digits are not scaled by exposure and gain. */
unsigned int torvanesim_frame_number(const unsigned char *pixels, int bytesPerPixel);
/* Renders the generated frame with number `number` for the current exposure
 * and gain into `out` (width * height * bytesPerPixel bytes), byte for byte
 * what get_frame_timeout delivers for that frame. Brightness: the pattern's
 * bytes times exposure / 20000 * (1 + gain / 16), truncated, 0..255. */
void torvanesim_render_frame(unsigned int number, int width, int height, int bytesPerPixel, unsigned char *out);

/* Call log: every SDK call as text, for example "camera_init(0,0)",
 * "set_camera_exposure(20000,0)", "get_frame_timeout(0,100)". */
int torvanesim_log_count(void);
/* Copies entry i (0 = oldest kept) into buf (NUL-terminated, cut to size);
 * returns its full length, or -1 when there is no such entry. */
int torvanesim_log_entry(int i, char *buf, int size);
void torvanesim_log_clear(void);
/* Logging of get_frame_timeout calls can be switched off for long runs. */
void torvanesim_log_frames(int enable);

/* Non-zero: a thread whose last frame was generated with the same window,
 * bytes per pixel, exposure and gain gets that frame again, not redrawn: only
 * the frame number code (first 8 pixels) is rewritten in its buffer, so the
 * picture and the drawn digits keep showing the first such frame. Numbers,
 * pacing, queued frames and the per-thread buffer lifetime are unchanged.
 * Meant for benchmarks that time the consumer rather than the drawing. Off
 * after torvanesim_reset. */
void torvanesim_reuse_frames(int enable);

#ifdef __cplusplus
}
#endif

#endif
