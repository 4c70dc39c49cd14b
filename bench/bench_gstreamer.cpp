// SPDX-License-Identifier: LGPL-2.1-or-later
// Frames per second through `kavrelsrc ! fakesink` beside the plain
// requestImage/releaseImage loop a host would write, both on the simulated
// camera at 1280 x 960 BGR with no frame pacing. The camera reuses its frame
// (only the frame number changes), so both time the consumer, not the drawing
// of test pictures. The element adds one copy into a pooled buffer and the
// hand-over to the sink; it is timed in the steady state, from the 20th
// buffer at the sink to the last. The summary gives its rate relative to the
// loop.

#include "api/interface.h"
#include "bench/requestloop.h"
#include "sdk/torvanesim.h"

#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace {

const int kWidth = 1280;
const int kHeight = 960;
const int kFramesPerPipeline = 300;
// Frames before the clock starts: negotiation, pool and threads settle first.
const int kWarmFrames = 20;
const char kConfig[] = "<PixFmt>1</PixFmt><ROI>0,0</ROI>"
                       "<Settings><Gain>8</Gain><Exposure>20000</Exposure><Gamma>1.00</Gamma>"
                       "<TriggerType>Video</TriggerType></Settings>";

void startCamera()
{
    torvanesim_reset();
    torvanesim_set_sensor(kWidth, kHeight, 3);
    torvanesim_set_frame_rate(0);
    torvanesim_log_frames(0);
    torvanesim_reuse_frames(1);
}

void requestLoop(benchmark::State& state)
{
    startCamera();
    KavrelInterface* api = KavrelInterface::getInstance();
    char szConfig[sizeof kConfig];
    std::snprintf(szConfig, sizeof szConfig, "%s", kConfig);
    api->setConfigStringMain(szConfig);
    if (!api->connectMain() || !api->startMain()) {
        state.SkipWithError(api->getLastError());
        return;
    }
    kavrelbench::timeMainRequests(state, api);
    state.SetItemsProcessed(state.iterations());
    api->stopMain();
    api->disconnectMain();
}

// Monotonic time of the buffer kWarmFrames and of the last buffer at the sink.
struct SinkClock {
    int nBuffers = 0;
    gint64 tStart = 0;
    gint64 tEnd = 0;
};

GstPadProbeReturn onSinkBuffer(GstPad*, GstPadProbeInfo*, gpointer data)
{
    auto* c = static_cast<SinkClock*>(data);
    const gint64 t = g_get_monotonic_time();
    if (++c->nBuffers == kWarmFrames)
        c->tStart = t;
    c->tEnd = t;
    return GST_PAD_PROBE_OK;
}

void throughElement(benchmark::State& state)
{
    startCamera();
    const std::string strPipeline = "kavrelsrc num-buffers=" + std::to_string(kFramesPerPipeline) + " config=\"" +
                                    kConfig + "\" ! video/x-raw,format=BGR ! fakesink name=sink sync=false";
    GError* pError = nullptr;
    GstElement* pipeline = gst_parse_launch(strPipeline.c_str(), &pError);
    if (!pipeline || pError) {
        state.SkipWithError(pError ? pError->message : "no pipeline");
        return;
    }
    GstBus* bus = gst_element_get_bus(pipeline);
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    SinkClock clock;
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, onSinkBuffer, &clock, nullptr);
    for (auto _ : state) {
        clock = SinkClock();
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstMessage* msg = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND,
                                                     GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        const bool bEos = msg && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
        if (msg)
            gst_message_unref(msg);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        if (!bEos) {
            state.SkipWithError("the pipeline did not reach EOS");
            break;
        }
        state.SetIterationTime(double(clock.tEnd - clock.tStart) / G_USEC_PER_SEC);
    }
    state.SetItemsProcessed(state.iterations() * (kFramesPerPipeline - kWarmFrames));
    gst_object_unref(pad);
    gst_object_unref(sink);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
}

// The console table, and each benchmark's rate kept for the summary.
class RateReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> rates;
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            const auto it = run.counters.find("items_per_second");
            if (it != run.counters.end() && run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                rates[run.run_name.function_name] = it->second;
            else if (it != run.counters.end() && run.run_type == Run::RT_Iteration &&
                     !rates.count(run.run_name.function_name))
                rates[run.run_name.function_name] = it->second;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

} // namespace

int main(int argc, char** argv)
{
    // The plugin of this build, through a registry of its own.
    setenv("GST_PLUGIN_PATH", KAVREL_GST_PLUGIN_DIR, 1);
    setenv("GST_REGISTRY", KAVREL_GST_REGISTRY, 1);
    gst_init(&argc, &argv);

    const std::string strSize = std::to_string(kWidth) + "x" + std::to_string(kHeight);
    const std::string strLoop = "requestImage loop BGR " + strSize;
    const std::string strElement = "kavrelsrc ! fakesink BGR " + strSize;
    benchmark::RegisterBenchmark(strLoop.c_str(), requestLoop)->UseRealTime()->MinTime(1.0)->Repetitions(3);
    benchmark::RegisterBenchmark(strElement.c_str(), throughElement)->UseManualTime()->MinTime(1.0)->Repetitions(3);
    benchmark::Initialize(&argc, argv);
    RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    if (reporter.rates.count(strLoop) && reporter.rates.count(strElement)) {
        const double fLoop = reporter.rates[strLoop];
        const double fElement = reporter.rates[strElement];
        std::printf("\nFrames per second, %s BGR, no frame pacing (medians):\n"
                    "  requestImage loop       %8.0f\n  kavrelsrc ! fakesink    %8.0f   (%.2fx the loop)\n",
                    strSize.c_str(), fLoop, fElement, fElement / fLoop);
    }
    gst_deinit();
    return 0;
}
