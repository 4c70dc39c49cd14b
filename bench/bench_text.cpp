// SPDX-License-Identifier: LGPL-2.1-or-later
// Time of the text readers against the length of hostile texts: each family
// runs from 64 KiB to 16 MiB and Google Benchmark fits the growth (expect
// "O(N)" with a steady per-byte cost, not "O(N^2)").
//   build/release/bench/kavrel_bench_text --benchmark_filter=Text

#include <benchmark/benchmark.h>

#include <QString>
#include <QTextCodec>

#include <string>

#include "api/interface.h"
#include "camera/ccdif.h"
#include "imaging/globalfunction.h"

namespace {

std::string repeatTo(const std::string& piece, size_t size)
{
    std::string s;
    s.reserve(size + piece.size());
    while (s.size() < size)
        s += piece;
    return s;
}

// The hostile shapes of a configuration string, by kind.
std::string configText(int kind, size_t size)
{
    switch (kind) {
    case 0: // junk, then the elements at the very end
        return std::string(size, 'x') + "<CCDPos>1</CCDPos><PixFmt>1</PixFmt><ROI>640,480</ROI>"
                                        "<Settings><Gain>3</Gain></Settings><UseCUDA>1</UseCUDA>";
    case 1: // one element repeated
        return repeatTo("<CCDPos>2</CCDPos>", size);
    case 2: // nested settings
        return repeatTo("<Settings>", size / 2) + "<Gain>7</Gain>" + repeatTo("</Settings>", size / 2);
    default: // open tags that never close
        return repeatTo("<ROI>1,", size);
    }
}

void configString(benchmark::State& state, int kind)
{
    KavrelInterface api;
    std::string text = configText(kind, static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        api.setConfigStringMain(text.data());
        benchmark::DoNotOptimize(api.getConfigStringMain());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
    state.SetComplexityN(static_cast<int64_t>(text.size()));
}

void settingsText(benchmark::State& state, int kind)
{
    const size_t size = static_cast<size_t>(state.range(0));
    const QString text = kind == 0 ? QString::fromStdString(repeatTo("<Gain>1</Gain><Hue>", size))
                                   : "<WhiteBalance>" + QString(static_cast<int>(size), ',') + "</WhiteBalance>";
    CCDIF::CCDSettings record;
    for (auto _ : state) {
        record.fromString(text);
        benchmark::DoNotOptimize(record.nGain);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.size());
    state.SetComplexityN(text.size());
}

void tagSearch(benchmark::State& state)
{
    // A near-miss at every position: "<Gai" over and over, the element at the end.
    const QString text = QString::fromStdString(repeatTo("<Gai", static_cast<size_t>(state.range(0))) +
                                                "<Gain>5</Gain>");
    for (auto _ : state)
        benchmark::DoNotOptimize(GlobalFunction::getBody(text, "<Gain>", "</Gain>"));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.size());
    state.SetComplexityN(text.size());
}

void sharedBuffer(benchmark::State& state)
{
    const QString text(static_cast<int>(state.range(0)), QChar(0x00E9)); // two UTF-8 bytes each
    for (auto _ : state)
        benchmark::DoNotOptimize(transConfigString(text));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.size() * 2);
    state.SetComplexityN(text.size());
}

constexpr int64_t kFrom = 64 << 10, kTo = 16 << 20;

BENCHMARK_CAPTURE(configString, TextJunkThenElements, 0)->RangeMultiplier(4)->Range(kFrom, kTo)->Complexity();
BENCHMARK_CAPTURE(configString, TextRepeatedElement, 1)->RangeMultiplier(4)->Range(kFrom, kTo)->Complexity();
BENCHMARK_CAPTURE(configString, TextNestedSettings, 2)->RangeMultiplier(4)->Range(kFrom, kTo)->Complexity();
BENCHMARK_CAPTURE(configString, TextUnclosedTags, 3)->RangeMultiplier(4)->Range(kFrom, kTo)->Complexity();
BENCHMARK_CAPTURE(settingsText, TextRepeatedSettings, 0)->RangeMultiplier(4)->Range(kFrom, kTo)->Complexity();
BENCHMARK_CAPTURE(settingsText, TextWhiteBalanceCommas, 1)->RangeMultiplier(4)->Range(kFrom, kTo)->Complexity();
BENCHMARK(tagSearch)->Name("TextTagNearMisses")->RangeMultiplier(4)->Range(kFrom, kTo)->Complexity();
BENCHMARK(sharedBuffer)->Name("TextSharedBuffer")->RangeMultiplier(4)->Range(kFrom, kTo)->Complexity();

} // namespace

int main(int argc, char** argv)
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
