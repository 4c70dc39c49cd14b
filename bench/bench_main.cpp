// SPDX-License-Identifier: LGPL-2.1-or-later
// Runs every benchmark (medians of 5 repetitions, interleaved at random,
// unless told otherwise) and then prints one table: per case and size, each
// implementation's median and Kavrel's time relative to the reference, the
// best other library, or the memcpy floor.

#include "bench/benchsummary.h"
#include "imaging/convertkernels.h"

#include <benchmark/benchmark.h>

#ifdef KAVREL_BENCH_OPENCV
#include <opencv2/core.hpp>
#endif

#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

const std::vector<BenchSize>& benchSizes()
{
    static const std::vector<BenchSize> s_sizes = {{640, 480}, {1920, 1080}, {2592, 1944}};
    return s_sizes;
}

namespace {

// Cases in the order they were registered: the table keeps it whatever order
// the (interleaved) runs come in.
std::vector<std::string>& caseOrder()
{
    static std::vector<std::string> s_cases;
    return s_cases;
}

} // namespace

std::string benchName(const std::string& strCase, const std::string& strImpl, const BenchSize& size)
{
    if (std::find(caseOrder().begin(), caseOrder().end(), strCase) == caseOrder().end())
        caseOrder().push_back(strCase);
    return strCase + "/" + strImpl + "/" + std::to_string(size.nWidth) + "x" + std::to_string(size.nHeight);
}

namespace {

// Keeps the median (or single-run) time of every benchmark by name.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    struct Row {
        std::string strCase, strSize;
        std::map<std::string, double> ms;
    };
    std::vector<Row> rows;

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.error_occurred || (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median"))
                continue;
            const std::string name = r.run_name.function_name;
            const size_t a = name.find('/'), b = name.rfind('/');
            if (a == std::string::npos || a == b)
                continue;
            const std::string strCase = name.substr(0, a), strImpl = name.substr(a + 1, b - a - 1);
            const std::string strSize = name.substr(b + 1);
            auto it = std::find_if(rows.begin(), rows.end(),
                                   [&](const Row& row) { return row.strCase == strCase && row.strSize == strSize; });
            if (it == rows.end())
                it = rows.insert(rows.end(), Row{strCase, strSize, {}});
            it->ms[strImpl] = r.GetAdjustedRealTime() * 1e3 / benchmark::GetTimeUnitMultiplier(r.time_unit);
        }
    }

    void printTable()
    {
        auto rank = [](const Row& row) {
            const auto& cases = caseOrder();
            const long nCase = std::find(cases.begin(), cases.end(), row.strCase) - cases.begin();
            long nSize = 0;
            for (const BenchSize& size : benchSizes()) {
                if (row.strSize == std::to_string(size.nWidth) + "x" + std::to_string(size.nHeight))
                    break;
                ++nSize;
            }
            return std::make_pair(nCase, nSize);
        };
        std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) { return rank(a) < rank(b); });
        auto cell = [](const Row& row, const char* impl) {
            auto it = row.ms.find(impl);
            char sz[32] = "-";
            if (it != row.ms.end())
                std::snprintf(sz, sizeof sz, "%.3f", it->second);
            return std::string(sz);
        };
        std::printf("\n| Case | Size | Kavrel ms | Reference ms | libyuv ms | OpenCV ms | memcpy floor ms | SDK frame ms | Kavrel vs. |\n");
        std::printf("|---|---|---:|---:|---:|---:|---:|---:|---|\n");
        for (const Row& row : rows) {
            auto get = [&](const char* impl) {
                auto it = row.ms.find(impl);
                return it == row.ms.end() ? -1.0 : it->second;
            };
            const double k = get("kavrel");
            std::string strVs;
            char sz[96];
            if (k > 0 && get("reference") > 0) {
                std::snprintf(sz, sizeof sz, "%.1fx faster than reference; ", get("reference") / k);
                strVs += sz;
            }
            double best = -1;
            for (const char* lib : {"libyuv", "opencv"})
                if (get(lib) > 0 && (best < 0 || get(lib) < best))
                    best = get(lib);
            if (k > 0 && best > 0) {
                std::snprintf(sz, sizeof sz, "%.2fx time of best library; ", k / best);
                strVs += sz;
            }
            const double floor = get("memcpy x2") > 0 ? get("memcpy x2") : get("memcpy");
            if (k > 0 && floor > 0) {
                std::snprintf(sz, sizeof sz, "%.2fx memcpy floor; ", k / floor);
                strVs += sz;
            }
            std::printf("| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", row.strCase.c_str(), row.strSize.c_str(),
                        cell(row, "kavrel").c_str(), cell(row, "reference").c_str(), cell(row, "libyuv").c_str(),
                        cell(row, "opencv").c_str(),
                        cell(row, row.ms.count("memcpy x2") ? "memcpy x2" : "memcpy").c_str(),
                        cell(row, "sdk frame").c_str(), strVs.c_str());
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
#ifdef KAVREL_BENCH_OPENCV
    cv::setNumThreads(1);
#endif
    std::vector<char*> args(argv, argv + argc);
    bool bReps = false;
    for (int i = 1; i < argc; ++i)
        bReps = bReps || std::string(argv[i]).rfind("--benchmark_repetitions", 0) == 0;
    char szReps[] = "--benchmark_repetitions=5";
    char szAggr[] = "--benchmark_report_aggregates_only=true";
    char szMin[] = "--benchmark_min_time=0.05";
    // Repetitions in random order: the load of a shared machine drifts, and
    // every implementation of a case should see the same mix of it.
    char szInterleave[] = "--benchmark_enable_random_interleaving=true";
    if (!bReps) {
        args.push_back(szReps);
        args.push_back(szAggr);
        args.push_back(szMin);
        args.push_back(szInterleave);
    }
    int nArgs = static_cast<int>(args.size());
    benchmark::Initialize(&nArgs, args.data());
    // KAVREL_BENCH_KERNELS=<set name> times a simpler kernel set than the
    // processor's best (the library itself reads no environment).
    if (const char* pszSet = std::getenv("KAVREL_BENCH_KERNELS")) {
        kavrel::KernelSet sets[8];
        const std::size_t n = kavrel::pixelKernelSets(sets, 8);
        for (std::size_t i = 0; i < n && i < 8; ++i)
            if (std::strcmp(sets[i].pKernels->pszName, pszSet) == 0 && !sets[i].pszSkipped)
                kavrel::maskCpuFeatures(kavrel::kAllCpuFeatures & ~sets[i].nFeatures);
        if (std::strcmp(kavrel::pixelKernels().pszName, pszSet) != 0) {
            std::fprintf(stderr, "kernel set %s cannot run here\n", pszSet);
            return 1;
        }
    }
    std::printf("kernel set: %s\n", kavrel::pixelKernels().pszName);
    registerConversionBenchmarks();
    registerRequestBenchmarks();
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printTable();
    benchmark::Shutdown();
    return 0;
}
