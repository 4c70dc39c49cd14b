// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_BENCH_BENCHSUMMARY_H
#define KAVREL_BENCH_BENCHSUMMARY_H

// Benchmark names are "<case>/<implementation>/<W>x<H>"; the summary puts the
// implementations of one case side by side (medians, milliseconds).

#include <string>
#include <vector>

struct BenchSize {
    int nWidth;
    int nHeight;
};

const std::vector<BenchSize>& benchSizes();
std::string benchName(const std::string& strCase, const std::string& strImpl, const BenchSize& size);

void registerConversionBenchmarks();
void registerRequestBenchmarks();

#endif
