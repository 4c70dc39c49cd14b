// SPDX-License-Identifier: LGPL-2.1-or-later
// The timed loop both request benchmarks share: one request and release of
// the main camera's image per iteration.
#pragma once

#include "api/interface.h"

#include <benchmark/benchmark.h>

namespace kavrelbench {

inline void timeMainRequests(benchmark::State& state, KavrelInterface* api)
{
    for (auto _ : state) {
        int w = 0, bpl = 0, h = 0;
        unsigned char* p = api->requestImageMain(&w, &bpl, &h, 1000);
        if (!p) {
            state.SkipWithError("no image");
            break;
        }
        benchmark::DoNotOptimize(p[0]);
        api->releaseImageMain(p);
    }
}

} // namespace kavrelbench
