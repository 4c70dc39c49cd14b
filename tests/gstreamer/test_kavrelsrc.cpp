// SPDX-License-Identifier: LGPL-2.1-or-later
// kavrelsrc on the simulated camera, in this process: the plugin loads the same
// libtorvane.so as the test, so the simulation's controls steer its camera.
// GStreamer's check library makes every CRITICAL and WARNING fatal.
#include "gstreamer/kavrelsrcconfig.h"
#include "sdk/torvanesim.h"

#include <gst/check/gstcheck.h>
#include <gst/check/gstharness.h>
#include <gst/video/video.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
// GLib is built without frame pointers: only the slow unwinder reaches the
// GLib functions that tests/lsan.supp names.
extern "C" const char* __asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}
#endif

namespace {

const int kSensorWidth = 1280;
const int kSensorHeight = 960;
const char kSettings[] =
    "<Settings><Gain>8</Gain><Exposure>20000</Exposure><Gamma>1.00</Gamma><TriggerType>Video</TriggerType></Settings>";

std::string config(int nPixFmt, const char* pszSettings = kSettings)
{
    return "<PixFmt>" + std::to_string(nPixFmt) + "</PixFmt><ROI>0,0</ROI>" + pszSettings;
}

void resetCamera(double fps)
{
    torvanesim_reset();
    torvanesim_set_sensor(kSensorWidth, kSensorHeight, 3);
    torvanesim_set_frame_rate(fps);
    torvanesim_log_frames(0);
}

struct Pulled {
    std::string strFormat;
    int nWidth = 0, nHeight = 0, nStride = 0;
    std::vector<unsigned char> bytes; // tightly packed lines
};

// One frame through a harness whose sink accepts only sinkCaps (null: anything).
Pulled pullOne(const std::string& strConfig, const char* pszSinkCaps)
{
    GstHarness* h = gst_harness_new("kavrelsrc");
    g_object_set(h->element, "config", strConfig.c_str(), NULL);
    if (pszSinkCaps)
        gst_harness_set_sink_caps_str(h, pszSinkCaps);
    gst_harness_play(h);
    GstBuffer* buf = gst_harness_pull(h);
    fail_unless(buf != nullptr);
    GstCaps* caps = gst_pad_get_current_caps(h->sinkpad);
    fail_unless(caps != nullptr);
    GstVideoInfo info;
    fail_unless(gst_video_info_from_caps(&info, caps));
    gst_caps_unref(caps);
    fail_unless_equals_int(GST_VIDEO_INFO_FPS_N(&info), 0);

    Pulled p;
    p.strFormat = GST_VIDEO_INFO_NAME(&info);
    p.nWidth = GST_VIDEO_INFO_WIDTH(&info);
    p.nHeight = GST_VIDEO_INFO_HEIGHT(&info);
    GstVideoFrame frame;
    fail_unless(gst_video_frame_map(&frame, &info, buf, GST_MAP_READ));
    p.nStride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    const size_t nLine = size_t(p.nWidth) * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, 0);
    const auto* pData = static_cast<const unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    for (int y = 0; y < p.nHeight; ++y)
        p.bytes.insert(p.bytes.end(), pData + size_t(y) * p.nStride, pData + size_t(y) * p.nStride + nLine);
    gst_video_frame_unmap(&frame);
    gst_buffer_unref(buf);
    gst_harness_teardown(h);
    return p;
}

// What the simulated camera made for this frame, in its own B, G, R order.
std::vector<unsigned char> rendered(const Pulled& p, int nBytesPerPixel)
{
    const unsigned int nNumber = torvanesim_frame_number(p.bytes.data(), nBytesPerPixel);
    fail_unless(nNumber > 0);
    std::vector<unsigned char> out(size_t(p.nWidth) * p.nHeight * nBytesPerPixel);
    torvanesim_render_frame(nNumber, p.nWidth, p.nHeight, nBytesPerPixel, out.data());
    return out;
}

GstElement* launch(const std::string& strPipeline)
{
    GError* pError = nullptr;
    GstElement* pipeline = gst_parse_launch(strPipeline.c_str(), &pError);
    fail_unless(pError == nullptr, "%s", pError ? pError->message : "");
    fail_unless(pipeline != nullptr);
    return pipeline;
}

// Plays the pipeline until EOS or an error; returns that message (unref it).
GstMessage* runToEnd(GstElement* pipeline, GstClockTime tLimit = 30 * GST_SECOND)
{
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* msg =
        gst_bus_timed_pop_filtered(bus, tLimit, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    gst_object_unref(bus);
    fail_unless(msg != nullptr, "neither EOS nor an error in time");
    fail_unless_equals_int(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    return msg;
}

std::string errorText(GstMessage* msg)
{
    fail_unless_equals_int(GST_MESSAGE_TYPE(msg), GST_MESSAGE_ERROR);
    GError* pError = nullptr;
    gchar* pszDebug = nullptr;
    gst_message_parse_error(msg, &pError, &pszDebug);
    std::string s = std::string(pError->message) + " | " + (pszDebug ? pszDebug : "");
    g_error_free(pError);
    g_free(pszDebug);
    return s;
}

// Plays the pipeline to its end and unrefs it: "" at EOS, else the error's text.
std::string outcome(GstElement* pipeline)
{
    GstMessage* msg = runToEnd(pipeline);
    const std::string s = GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS ? std::string() : errorText(msg);
    gst_message_unref(msg);
    gst_object_unref(pipeline);
    return s;
}

void expectErrorContaining(GstElement* pipeline, std::initializer_list<const char*> texts)
{
    const std::string s = outcome(pipeline);
    for (const char* pszText : texts)
        fail_unless(s.find(pszText) != std::string::npos, "%s", s.c_str());
}

struct Handoffs {
    std::vector<unsigned int> numbers;
    std::vector<guint64> offsets;
    std::vector<GstClockTime> pts;
};

void onHandoff(GstElement*, GstBuffer* buf, GstPad*, gpointer data)
{
    auto* h = static_cast<Handoffs*>(data);
    GstMapInfo map;
    fail_unless(gst_buffer_map(buf, &map, GST_MAP_READ));
    h->numbers.push_back(torvanesim_frame_number(map.data, 3));
    gst_buffer_unmap(buf, &map);
    h->offsets.push_back(GST_BUFFER_OFFSET(buf));
    h->pts.push_back(GST_BUFFER_PTS(buf));
}

GstElement* pipelineWithHandoffs(const std::string& strSource, Handoffs* pHandoffs)
{
    GstElement* pipeline = launch(strSource + " ! fakesink name=sink signal-handoffs=true sync=false");
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    g_signal_connect(sink, "handoff", G_CALLBACK(onHandoff), pHandoffs);
    gst_object_unref(sink);
    return pipeline;
}

} // namespace

// --- what the library delivers and how the caps name it ------------------------

GST_START_TEST(every_pixfmt_code_is_named_by_what_the_library_delivers)
{
    // The library passes the camera's bytes on unchanged: every 24-bit code,
    // "RGB" (2) included, delivers the simulated camera's B, G, R.
    resetCamera(0);
    for (int nCode = -1; nCode <= 8; ++nCode) {
        const Pulled p = pullOne(config(nCode), nullptr);
        const bool bColour = nCode >= 1 && nCode <= 7;
        fail_unless_equals_string(p.strFormat.c_str(), bColour ? "BGR" : "GRAY8");
        fail_unless_equals_int(p.nWidth, kSensorWidth);
        fail_unless_equals_int(p.nHeight, kSensorHeight);
        if (bColour)
            fail_unless(p.bytes == rendered(p, 3), "code %d: not the camera's bytes", nCode);
    }
}
GST_END_TEST;

GST_START_TEST(caps_choose_format_and_size)
{
    resetCamera(0);
    const char* formats[] = {"GRAY8", "BGR", "RGB"};
    const int sizes[][2] = {{1280, 960}, {640, 480}, {320, 240}, {160, 120}, {4, 4}};
    for (const char* pszFormat : formats) {
        for (const auto& size : sizes) {
            const std::string strCaps = std::string("video/x-raw,format=") + pszFormat +
                                        ",width=" + std::to_string(size[0]) + ",height=" + std::to_string(size[1]);
            // The configuration asks for grey at the sensor size; caps win.
            const Pulled p = pullOne(config(0), strCaps.c_str());
            fail_unless_equals_string(p.strFormat.c_str(), pszFormat);
            fail_unless_equals_int(p.nWidth, size[0]);
            fail_unless_equals_int(p.nHeight, size[1]);
            if (std::strcmp(pszFormat, "GRAY8") == 0) {
                fail_unless_equals_int(int(p.bytes.size()), size[0] * size[1]);
                fail_unless(torvanesim_frame_number(p.bytes.data(), 1) > 0);
                continue;
            }
            std::vector<unsigned char> expected = rendered(p, 3);
            if (std::strcmp(pszFormat, "RGB") == 0) {
                for (size_t i = 0; i < expected.size(); i += 3)
                    std::swap(expected[i], expected[i + 2]);
            }
            fail_unless(p.bytes == expected, "%s %dx%d: wrong bytes", pszFormat, size[0], size[1]);
        }
    }
}
GST_END_TEST;

GST_START_TEST(caps_prefer_the_configuration_and_grey_frames_match_a_grey_sensor)
{
    // A grey sensor: grey frames are its bytes unchanged.
    torvanesim_reset();
    torvanesim_set_sensor(kSensorWidth, kSensorHeight, 1);
    torvanesim_set_frame_rate(0);
    const Pulled p = pullOne("<PixFmt>0</PixFmt><ROI>2,2,318,238</ROI>" + std::string(kSettings),
                             "video/x-raw,format={BGR,GRAY8}");
    // Of the formats downstream takes, the configured one; its region rounded up to 4.
    fail_unless_equals_string(p.strFormat.c_str(), "GRAY8");
    fail_unless_equals_int(p.nWidth, 320);
    fail_unless_equals_int(p.nHeight, 240);
    fail_unless(p.bytes == rendered(p, 1));

    resetCamera(0);
    const Pulled q = pullOne(config(1), "video/x-raw,format={GRAY8,RGB}");
    fail_unless_equals_string(q.strFormat.c_str(), "GRAY8"); // downstream's first choice
}
GST_END_TEST;

GST_START_TEST(a_reconfigure_that_changes_nothing_keeps_the_camera_running)
{
    resetCamera(0);
    GstHarness* h = gst_harness_new("kavrelsrc");
    gst_harness_set_sink_caps_str(h, "video/x-raw,format=BGR,width=320,height=240");
    gst_harness_play(h);
    gst_buffer_unref(gst_harness_pull(h));
    const int nInits = torvanesim_init_calls();
    fail_unless(gst_harness_push_upstream_event(h, gst_event_new_reconfigure()));
    for (int i = 0; i < 3; ++i)
        gst_buffer_unref(gst_harness_pull(h));
    fail_unless_equals_int(torvanesim_init_calls(), nInits);

    // New caps downstream: the camera is reopened with the new size.
    gst_harness_set_sink_caps_str(h, "video/x-raw,format=BGR,width=160,height=120");
    fail_unless(gst_harness_push_upstream_event(h, gst_event_new_reconfigure()));
    GstBuffer* buf = nullptr;
    for (int i = 0; i < 10; ++i) {
        buf = gst_harness_pull(h);
        if (gst_buffer_get_size(buf) == 160 * 120 * 3)
            break;
        gst_buffer_unref(buf);
        buf = nullptr;
    }
    fail_unless(buf != nullptr, "no 160 x 120 frame after the reconfigure");
    gst_buffer_unref(buf);
    fail_unless(torvanesim_init_calls() > nInits);
    gst_harness_teardown(h);
}
GST_END_TEST;

// --- streaming ---------------------------------------------------------------------

GST_START_TEST(num_buffers_offsets_and_increasing_frames_in_video_mode)
{
    // Paced at 200 frames per second: each request must get a newer frame
    // than the one before, never the same one again.
    resetCamera(200);
    Handoffs h;
    fail_unless(outcome(pipelineWithHandoffs("kavrelsrc num-buffers=25", &h)).empty());
    fail_unless_equals_int(int(h.numbers.size()), 25);
    for (size_t i = 0; i < h.numbers.size(); ++i) {
        fail_unless_equals_uint64(h.offsets[i], i);
        fail_unless(GST_CLOCK_TIME_IS_VALID(h.pts[i]));
        if (i > 0) {
            fail_unless(h.numbers[i] > h.numbers[i - 1], "frame %u after %u", h.numbers[i], h.numbers[i - 1]);
            fail_unless(h.pts[i] >= h.pts[i - 1]);
        }
    }
}
GST_END_TEST;

GST_START_TEST(software_trigger_one_frame_per_trigger)
{
    resetCamera(30);
    const std::string strSoft = config(1, "<Settings><Gain>8</Gain><Exposure>20000</Exposure><Gamma>1.00</Gamma>"
                                          "<TriggerType>soft</TriggerType></Settings>");
    Handoffs h;
    fail_unless(outcome(pipelineWithHandoffs("kavrelsrc num-buffers=6 trigger=true timeout=2000 config=\"" + strSoft +
                                                 "\" ! video/x-raw,framerate=0/1",
                                             &h))
                    .empty());
    fail_unless_equals_int(int(h.numbers.size()), 6);
    fail_unless_equals_int(torvanesim_trigger_calls(), 6);
    for (size_t i = 1; i < h.numbers.size(); ++i)
        fail_unless(h.numbers[i] > h.numbers[i - 1]);

    // Without trigger=true nothing comes: an error naming the cure, no hang.
    expectErrorContaining(launch("kavrelsrc timeout=300 config=\"" + strSoft + "\" ! fakesink"),
                          {"No frame from the Main camera within 300 ms", "set trigger=true"});
}
GST_END_TEST;

GST_START_TEST(playing_to_null_and_back_100_times)
{
    resetCamera(0);
    GstElement* pipeline = launch("kavrelsrc ! fakesink sync=false");
    GstBus* bus = gst_element_get_bus(pipeline);
    for (int i = 0; i < 100; ++i) {
        fail_unless(gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE);
        fail_unless_equals_int(gst_element_get_state(pipeline, nullptr, nullptr, 5 * GST_SECOND),
                               GST_STATE_CHANGE_SUCCESS);
        fail_unless_equals_int(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        fail_unless(gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR) == nullptr, "error in round %d", i);
        fail_unless_equals_int(torvanesim_open_count(), 0);
    }
    gst_object_unref(bus);
    gst_object_unref(pipeline);
}
GST_END_TEST;

GST_START_TEST(null_returns_promptly_while_a_request_waits)
{
    // One frame every 20 s and no time-out: the stream thread waits in a
    // request when the pipeline goes to NULL.
    resetCamera(0.05);
    GstElement* pipeline = launch("kavrelsrc timeout=0 config=\"<ROI>64,48</ROI>" + std::string(kSettings) +
                                  "\" ! video/x-raw,width=64,height=48 ! fakesink");
    for (int i = 0; i < 3; ++i) {
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        g_usleep(200 * 1000);
        const gint64 t0 = g_get_monotonic_time();
        fail_unless_equals_int(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        const gint64 nMs = (g_get_monotonic_time() - t0) / 1000;
        fail_unless(nMs < 1000, "NULL took %d ms", int(nMs));
    }
    gst_object_unref(pipeline);
}
GST_END_TEST;

// --- failures ------------------------------------------------------------------------

GST_START_TEST(failures_are_error_messages)
{
    // A size the camera refuses names what it delivers instead.
    resetCamera(0);
    torvanesim_fail_set_window_size(1);
    expectErrorContaining(launch("kavrelsrc ! video/x-raw,width=320,height=240 ! fakesink"), {"delivered 1280 x 960"});
    torvanesim_fail_set_window_size(0);

    // A failed connect posts the library's own text.
    resetCamera(0);
    torvanesim_set_next_init_result(3);
    GstElement* pipeline = launch("kavrelsrc ! fakesink");
    fail_unless_equals_int(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
    fail_unless(msg != nullptr);
    const std::string s = errorText(msg);
    // The library's own text, as getLastError() gives it, follows the prefix.
    const std::string strPrefix = "Could not connect the Main camera: ";
    fail_unless(s.rfind(strPrefix, 0) == 0, "%s", s.c_str());
    fail_unless(s.size() > strPrefix.size() + 3 && s.find("no reason given") == std::string::npos, "%s", s.c_str());
    gst_message_unref(msg);
    gst_object_unref(bus);
    fail_unless_equals_int(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    fail_unless_equals_int(torvanesim_open_count(), 0);

    // The camera is free again afterwards.
    fail_unless(gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE);
    fail_unless_equals_int(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    gst_object_unref(pipeline);

    // One camera serves one element; Main and Slaver side by side are fine.
    expectErrorContaining(launch("kavrelsrc name=a ! fakesink sync=false  kavrelsrc name=b ! fakesink sync=false"),
                          {"The Main camera is already in use by another kavrelsrc"});
    fail_unless(outcome(launch("kavrelsrc num-buffers=3 ! fakesink sync=false  "
                               "kavrelsrc camera=slaver num-buffers=3 ! fakesink sync=false"))
                    .empty());
}
GST_END_TEST;

GST_START_TEST(configuration_reading)
{
    KavrelSrcConfig c = kavrel_gst_parse_config("<pixfmt>2</PIXFMT><roi>1,2,641,479</roi>"
                                                "<Settings><TriggerType>SOFT</TriggerType></Settings>");
    fail_unless_equals_int(c.nPixFmtCode, 2);
    fail_unless_equals_int(c.nRoiWidth, 644);
    fail_unless_equals_int(c.nRoiHeight, 480);
    fail_unless(c.bSoftTrigger);
    c = kavrel_gst_parse_config("</PixFmt><PixFmt>1</PixFmt><ROI>x,8</ROI><ROI>16,16</ROI>");
    fail_unless_equals_int(c.nPixFmtCode, 0); // close tag before the open tag: empty
    fail_unless_equals_int(c.nRoiWidth, 0);   // the first ROI counts; x reads as 0
    fail_unless_equals_int(c.nRoiHeight, 8);
    fail_unless(!c.bSoftTrigger);
}
GST_END_TEST;

static Suite* kavrelsrc_suite(void)
{
    Suite* s = suite_create("kavrelsrc");
    TCase* tc = tcase_create("general");
    tcase_set_timeout(tc, 300);
    tcase_add_test(tc, every_pixfmt_code_is_named_by_what_the_library_delivers);
    tcase_add_test(tc, caps_choose_format_and_size);
    tcase_add_test(tc, caps_prefer_the_configuration_and_grey_frames_match_a_grey_sensor);
    tcase_add_test(tc, a_reconfigure_that_changes_nothing_keeps_the_camera_running);
    tcase_add_test(tc, num_buffers_offsets_and_increasing_frames_in_video_mode);
    tcase_add_test(tc, software_trigger_one_frame_per_trigger);
    tcase_add_test(tc, playing_to_null_and_back_100_times);
    tcase_add_test(tc, null_returns_promptly_while_a_request_waits);
    tcase_add_test(tc, failures_are_error_messages);
    tcase_add_test(tc, configuration_reading);
    suite_add_tcase(s, tc);
    return s;
}

GST_CHECK_MAIN(kavrelsrc)
