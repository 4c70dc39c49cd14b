// SPDX-License-Identifier: LGPL-2.1-or-later
// The image request path on the simulated camera (frames ready at once):
// SDK frame -> driver image (transfer, grey, gamma) -> hand-over buffer.
// The simulated camera reuses its frame (only the frame number changes), so
// the request times the library's work, not the drawing of test pictures.
// Beside it, the floor: a memcpy of the frame's bytes plus a memcpy of the
// image's bytes (the two copies the path cannot avoid), and, separately, the
// simulated camera's own cost of drawing a frame (get_frame_timeout alone,
// without reuse).

#include "api/interface.h"
#include "bench/benchsummary.h"
#include "bench/requestloop.h"
#include "sdk/torvane.h"
#include "sdk/torvanesim.h"
#include "bench/requestcases.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <algorithm>
#include <cstring>
#include <vector>

namespace {

using kavrelbench::RequestCase;

void startSimulator(const BenchSize& size, int nBytesPerPixel, bool bReuse)
{
    torvanesim_reset();
    torvanesim_set_sensor(size.nWidth, size.nHeight, nBytesPerPixel);
    torvanesim_set_frame_rate(0);
    torvanesim_log_frames(0);
    torvanesim_reuse_frames(bReuse ? 1 : 0);
}

void runRequest(benchmark::State& state, const RequestCase& c, const BenchSize& size)
{
    startSimulator(size, c.nFrameBytes, true);
    char szConfig[256];
    kavrelbench::formatRequestConfig(szConfig, sizeof szConfig, c);
    KavrelInterface* api = KavrelInterface::getInstance();
    api->setConfigStringMain(szConfig);
    if (!api->connectMain() || !api->startMain()) {
        state.SkipWithError(api->getLastError());
        return;
    }
    // The first request draws the frame and sizes the buffers: not timed.
    int nWarmW = 0, nWarmBpl = 0, nWarmH = 0;
    if (unsigned char* p = api->requestImageMain(&nWarmW, &nWarmBpl, &nWarmH, 1000))
        api->releaseImageMain(p);
    kavrelbench::timeMainRequests(state, api);
    api->stopMain();
    api->disconnectMain();
}

void runFloor(benchmark::State& state, const RequestCase& c, const BenchSize& size)
{
    const size_t nPixels = static_cast<size_t>(size.nWidth) * size.nHeight;
    const size_t nFrame = nPixels * c.nFrameBytes, nImage = nPixels * (c.nPixFmt == 0 ? 1 : 3);
    std::vector<unsigned char> frame(nFrame, 1), image(std::max(nFrame, nImage), 2), host(nImage, 3);
    for (auto _ : state) {
        std::memcpy(image.data(), frame.data(), nFrame);
        std::memcpy(host.data(), image.data(), nImage);
        benchmark::ClobberMemory();
    }
}

void runSdk(benchmark::State& state, int nBytesPerPixel, const BenchSize& size)
{
    startSimulator(size, nBytesPerPixel, false);
    if (camera_init(0, 0) != 0) {
        state.SkipWithError("camera_init failed");
        return;
    }
    set_camera_mode(0, 0);
    // The first frame also builds the simulated camera's base picture: not timed.
    int nWarmW = 0, nWarmH = 0, nWarmBpp = 0;
    get_frame_timeout(&nWarmW, &nWarmH, &nWarmBpp, 0, 1000);
    for (auto _ : state) {
        int w = 0, h = 0, bpp = 0;
        const unsigned char* p = get_frame_timeout(&w, &h, &bpp, 0, 1000);
        if (!p) {
            state.SkipWithError("no frame");
            break;
        }
        benchmark::DoNotOptimize(p[0]);
    }
    camera_free(0);
}

} // namespace

void registerRequestBenchmarks()
{
    for (const BenchSize& size : benchSizes()) {
        for (const RequestCase& c : kavrelbench::kRequestCases) {
            benchmark::RegisterBenchmark(benchName(c.pszName, "kavrel", size).c_str(),
                                         [&c, size](benchmark::State& s) { runRequest(s, c, size); })
                ->Unit(benchmark::kMillisecond)->UseRealTime();
            benchmark::RegisterBenchmark(benchName(c.pszName, "memcpy x2", size).c_str(),
                                         [&c, size](benchmark::State& s) { runFloor(s, c, size); })
                ->Unit(benchmark::kMillisecond)->UseRealTime();
            benchmark::RegisterBenchmark(benchName(c.pszName, "sdk frame", size).c_str(),
                                         [&c, size](benchmark::State& s) { runSdk(s, c.nFrameBytes, size); })
                ->Unit(benchmark::kMillisecond)->UseRealTime();
        }
    }
}
