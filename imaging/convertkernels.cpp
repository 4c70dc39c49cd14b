// SPDX-License-Identifier: LGPL-2.1-or-later
#include "imaging/convertkernels.h"

namespace kavrel {

namespace {

#if (defined(__x86_64__) || defined(_M_X64)) && defined(KAVREL_HAVE_AVX2_KERNELS)
bool cpuHasAvx2()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}
#endif
#if (defined(__x86_64__) || defined(_M_X64)) && defined(KAVREL_HAVE_AVX512_KERNELS)
bool cpuHasAvx512Vbmi()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("avx512bw")
        && __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vbmi");
}
#endif

} // namespace

std::size_t availablePixelKernels(const PixelKernels** ppList, std::size_t nMax)
{
    std::size_t n = 0;
    auto add = [&](const PixelKernels& k) {
        if (n < nMax)
            ppList[n] = &k;
        ++n;
    };
    add(scalar::kKernels);
#if (defined(__x86_64__) || defined(_M_X64)) && defined(KAVREL_HAVE_AVX2_KERNELS)
    if (cpuHasAvx2())
        add(avx2::kKernels);
#endif
#if (defined(__x86_64__) || defined(_M_X64)) && defined(KAVREL_HAVE_AVX512_KERNELS)
    if (cpuHasAvx512Vbmi())
        add(avx512::kKernels);
#endif
#if defined(__ARM_NEON)
    add(neon::kKernels);
#endif
    return n;
}

const PixelKernels& pixelKernels()
{
    static const PixelKernels* const s_pKernels = [] {
        const PixelKernels* list[8];
        const std::size_t n = availablePixelKernels(list, 8);
        return list[(n < 8 ? n : 8) - 1];
    }();
    return *s_pKernels;
}

} // namespace kavrel
