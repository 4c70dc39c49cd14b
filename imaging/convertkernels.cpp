// SPDX-License-Identifier: LGPL-2.1-or-later
#include "imaging/convertkernels.h"

#include <atomic>

namespace kavrel {

namespace {

// The first of the features a set needs that the processor lacks, or null.
#if (defined(__x86_64__) || defined(_M_X64)) && defined(KAVREL_HAVE_X86_KERNELS)
#define KAVREL_REQUIRE(feature)                                                                                        \
    if (!__builtin_cpu_supports(feature))                                                                              \
    return "CPU lacks " feature
const char* avx2Lacking()
{
    __builtin_cpu_init();
    KAVREL_REQUIRE("avx2");
    return nullptr;
}
const char* avx512VnniLacking()
{
    __builtin_cpu_init();
    KAVREL_REQUIRE("avx2");
    KAVREL_REQUIRE("bmi2");
    KAVREL_REQUIRE("avx512bw");
    KAVREL_REQUIRE("avx512dq");
    KAVREL_REQUIRE("avx512vbmi");
    KAVREL_REQUIRE("avx512vnni");
    return nullptr;
}
#undef KAVREL_REQUIRE
#endif

std::atomic<unsigned> g_nMaskedFeatures{0};
std::atomic<const PixelKernels*> g_pChosen{nullptr};

const PixelKernels* bestKernels()
{
    const PixelKernels* list[8];
    const std::size_t n = availablePixelKernels(list, 8);
    return list[(n < 8 ? n : 8) - 1];
}

} // namespace

std::size_t pixelKernelSets(KernelSet* pList, std::size_t nMax)
{
    const unsigned nMasked = g_nMaskedFeatures.load(std::memory_order_relaxed);
    std::size_t n = 0;
    auto add = [&](const PixelKernels& k, unsigned nFeatures, const char* pszLacking) {
        if (n < nMax)
            pList[n] = {&k, nFeatures, pszLacking ? pszLacking : (nFeatures & nMasked) != 0 ? "masked" : nullptr};
        ++n;
    };
    add(scalar::kKernels, 0, nullptr);
#if (defined(__x86_64__) || defined(_M_X64)) && defined(KAVREL_HAVE_X86_KERNELS)
    add(avx2::kKernels, kCpuAvx2, avx2Lacking());
    add(avx512::kKernels, kCpuAvx2 | kCpuAvx512Vnni, avx512VnniLacking());
#endif
#if defined(__ARM_NEON)
    add(neon::kKernels, kCpuNeon, nullptr);
#endif
    return n;
}

std::size_t availablePixelKernels(const PixelKernels** ppList, std::size_t nMax)
{
    KernelSet sets[8];
    const std::size_t nSets = pixelKernelSets(sets, 8);
    std::size_t n = 0;
    for (std::size_t i = 0; i < nSets && i < 8; ++i)
        if (!sets[i].pszSkipped) {
            if (n < nMax)
                ppList[n] = sets[i].pKernels;
            ++n;
        }
    return n;
}

void maskCpuFeatures(unsigned nMask)
{
    g_nMaskedFeatures.store(nMask, std::memory_order_relaxed);
    g_pChosen.store(bestKernels(), std::memory_order_release);
}

const PixelKernels& pixelKernels()
{
    const PixelKernels* p = g_pChosen.load(std::memory_order_acquire);
    if (!p) {
        // Threads racing here all store the same set.
        p = bestKernels();
        g_pChosen.store(p, std::memory_order_release);
    }
    return *p;
}

} // namespace kavrel
