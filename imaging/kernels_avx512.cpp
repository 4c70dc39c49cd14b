// Table lookups with AVX-512 VBMI (compiled with -mavx512bw -mavx512vbmi, only
// called when the processor has both): two 128-byte permutes and a blend
// replace the 31-step AVX2 lookup. Everything else is the AVX2 set.

#include "imaging/convertkernels.h"
#include "imaging/kernels_x86.h"

#include <immintrin.h>

namespace kavrel {
namespace avx512 {

namespace {

struct Lut {
    __m512i t[4];
    explicit Lut(const unsigned char* lut)
    {
        for (int j = 0; j < 4; ++j)
            t[j] = _mm512_loadu_si512(lut + 64 * j);
    }
    __m512i operator()(__m512i x) const
    {
        const __m512i low = _mm512_permutex2var_epi8(t[0], x, t[1]);
        const __m512i high = _mm512_permutex2var_epi8(t[2], x, t[3]);
        return _mm512_mask_blend_epi8(_mm512_movepi8_mask(x), low, high);
    }
};

void lutCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    const Lut table(lut);
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64)
        _mm512_storeu_si512(pDst + i, table(_mm512_loadu_si512(pSrc + i)));
    if (i < n) {
        const __mmask64 m = ~0ULL >> (64 - (n - i));
        _mm512_mask_storeu_epi8(pDst + i, m, table(_mm512_maskz_loadu_epi8(m, pSrc + i)));
    }
}

void expand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    if (!lut) {
        avx2::expand3(pSrc, pDst, n, nullptr);
        return;
    }
    alignas(64) unsigned char block[1024];
    for (std::size_t i = 0; i < n; i += sizeof block) {
        const std::size_t m = n - i < sizeof block ? n - i : sizeof block;
        lutCopy(pSrc + i, block, m, lut);
        avx2::expand3(block, pDst + 3 * i, m, nullptr);
    }
}

} // namespace

const PixelKernels kKernels = {
    "avx512vbmi", avx2::yuvToBgr, avx2::yuvToGray, avx2::bgrToGray, expand3, avx2::swapRB, lutCopy, avx2::grey3To1,
};

} // namespace avx512
} // namespace kavrel
