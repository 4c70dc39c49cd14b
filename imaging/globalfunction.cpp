// SPDX-License-Identifier: LGPL-2.1-or-later
#include "imaging/globalfunction.h"

#include "imaging/convertkernels.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

GlobalFunction::GlobalFunction()
{
}

GlobalFunction::~GlobalFunction()
{
}

// Both tags are searched from the start of the text: a close tag standing before
// the first open tag means "no element", not "look further".
QString GlobalFunction::getBody(QString text, QString openTag, QString closeTag)
{
    const int nOpen = text.indexOf(openTag, 0, Qt::CaseInsensitive);
    const int nClose = text.indexOf(closeTag, 0, Qt::CaseInsensitive);
    if (nOpen < 0 || nOpen >= nClose || nClose >= text.length())
        return QString("");
    const int nStart = nOpen + openTag.length();
    // An open tag overlapping the close tag ("<a" / "a>" in "<a>") has no body.
    if (nStart > nClose)
        return QString("");
    return text.mid(nStart, nClose - nStart);
}

QString GlobalFunction::getAndRemoveBody(QString& text, QString openTag, QString closeTag)
{
    const int nOpen = text.indexOf(openTag, 0, Qt::CaseInsensitive);
    const int nClose = text.indexOf(closeTag, 0, Qt::CaseInsensitive);
    if (nOpen < 0 || nOpen >= nClose || nClose >= text.length())
        return QString("");
    const int nStart = nOpen + openTag.length();
    if (nStart > nClose)
        return QString("");
    QString strBody = text.mid(nStart, nClose - nStart);
    text.remove(nOpen, nClose - nOpen + closeTag.length());
    return strBody;
}

// Conversions: the image walk lives here, the per-row work in the kernels
// picked for this processor (imaging/convertkernels.h).

namespace {

std::int64_t dibStride(int nWidth)
{
    return (3 * static_cast<std::int64_t>(nWidth) + 3) & ~static_cast<std::int64_t>(3);
}

std::int64_t grayAlignedStride(int nWidth)
{
    return (static_cast<std::int64_t>(nWidth) + 3) & ~static_cast<std::int64_t>(3);
}

// The images every conversion works on: not empty, and small enough that the
// image in its largest layout (DIB) holds at most INT_MAX bytes, the most the
// int geometry of the API describes. One limit for all conversions; anything
// else writes nothing. Past this check all offsets fit a 32-bit long too.
// A null source or destination reads and writes nothing either.
bool fits(const void* pSrc, const void* pDst, int nWidth, int nHeight)
{
    return pSrc && pDst && nWidth > 0 && nHeight > 0 && dibStride(nWidth) <= INT_MAX / nHeight;
}

bool validYuv(GlobalFunction::YUV422_Type eType)
{
    // Types outside 0 .. 3 have no defined layout: they write nothing.
    return static_cast<int>(eType) >= 0 && static_cast<int>(eType) <= 3;
}

} // namespace

namespace {

// Calls fn(source row, destination row, pixels) for every row, or once for the
// whole image when neither side has row padding (widths that are multiples of
// 4): one long run keeps the kernels in their vector loops.
template <typename Fn>
void forEachRow(const unsigned char* pSrc, long nSrcStride, long nSrcRow, unsigned char* pDst, long nDstStride,
                long nDstRow, int nWidth, int nHeight, Fn fn)
{
    if (nSrcStride == nSrcRow && nDstStride == nDstRow) {
        fn(pSrc, pDst, static_cast<std::size_t>(nWidth) * static_cast<std::size_t>(nHeight));
        return;
    }
    for (long y = 0; y < nHeight; ++y)
        fn(pSrc + y * nSrcStride, pDst + y * nDstStride, static_cast<std::size_t>(nWidth));
}

} // namespace

void GlobalFunction::PixelFormat_YUV422Packed_To_DIB(YUV422_Type eType, const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (!validYuv(eType) || !fits(pSrc, pDst, nWidth, nHeight))
        return;
    const kavrel::PixelKernels& k = kavrel::pixelKernels();
    const int nType = static_cast<int>(eType);
    const unsigned char* pos = kavrel::scalar::kGroupPos[nType];
    const long nStride = static_cast<long>(dibStride(nWidth));
    // Only whole pairs: an odd last pixel has no complete group behind it.
    const long nPixels = static_cast<long>(nWidth) * nHeight / 2 * 2;
    if (nStride == 3L * nWidth) {
        // No row padding: the pixels are one run in the destination too.
        k.yuvToBgr(nType, pSrc, pDst, static_cast<std::size_t>(nPixels / 2));
        return;
    }
    // The pixel stream runs on across rows, so a pair may straddle two rows.
    for (long nRow = 0, p = 0; p < nPixels; ++nRow) {
        const long nEnd = std::min(p + nWidth, nPixels);
        unsigned char* d = pDst + nRow * nStride;
        if (p & 1) {
            const unsigned char* g = pSrc + 2 * (p - 1);
            kavrel::scalar::yuvPixelBgr(g[pos[2]], g[pos[1]], g[pos[3]], d);
            ++p;
            d += 3;
        }
        const long nPairs = (nEnd - p) / 2;
        k.yuvToBgr(nType, pSrc + 2 * p, d, static_cast<std::size_t>(nPairs));
        p += 2 * nPairs;
        d += 6 * nPairs;
        if (p < nEnd) {
            const unsigned char* g = pSrc + 2 * p;
            kavrel::scalar::yuvPixelBgr(g[pos[0]], g[pos[1]], g[pos[3]], d);
            ++p;
        }
    }
}

void GlobalFunction::PixelFormat_YUV422Packed_To_Gray8(YUV422_Type eType, const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (!validYuv(eType) || !fits(pSrc, pDst, nWidth, nHeight))
        return;
    // Gray8 rows have no padding: the whole image is one run of pixels.
    const long nPairs = static_cast<long>(nWidth) * nHeight / 2;
    kavrel::pixelKernels().yuvToGray(static_cast<int>(eType), pSrc, pDst, static_cast<std::size_t>(nPairs));
}

void GlobalFunction::PixelFormat_DIB_To_Gray8(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (!fits(pSrc, pDst, nWidth, nHeight))
        return;
    const kavrel::PixelKernels& k = kavrel::pixelKernels();
    forEachRow(pSrc, static_cast<long>(dibStride(nWidth)), 3L * nWidth, pDst, nWidth, nWidth, nWidth, nHeight,
               [&](const unsigned char* s, unsigned char* d, std::size_t n) { k.bgrToGray(s, d, n); });
}

void GlobalFunction::PixelFormat_DIB_To_Gray8Aligned(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (!fits(pSrc, pDst, nWidth, nHeight))
        return;
    const kavrel::PixelKernels& k = kavrel::pixelKernels();
    forEachRow(pSrc, static_cast<long>(dibStride(nWidth)), 3L * nWidth, pDst, static_cast<long>(grayAlignedStride(nWidth)),
               nWidth, nWidth, nHeight, [&](const unsigned char* s, unsigned char* d, std::size_t n) { k.bgrToGray(s, d, n); });
}

void GlobalFunction::PixelFormat_Gray8_To_DIB(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (!fits(pSrc, pDst, nWidth, nHeight))
        return;
    const kavrel::PixelKernels& k = kavrel::pixelKernels();
    forEachRow(pSrc, nWidth, nWidth, pDst, static_cast<long>(dibStride(nWidth)), 3L * nWidth, nWidth, nHeight,
               [&](const unsigned char* s, unsigned char* d, std::size_t n) { k.expand3(s, d, n, nullptr); });
}

void GlobalFunction::PixelFormat_Gray8Aligned_To_DIB(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (!fits(pSrc, pDst, nWidth, nHeight))
        return;
    const kavrel::PixelKernels& k = kavrel::pixelKernels();
    forEachRow(pSrc, static_cast<long>(grayAlignedStride(nWidth)), nWidth, pDst, static_cast<long>(dibStride(nWidth)),
               3L * nWidth, nWidth, nHeight,
               [&](const unsigned char* s, unsigned char* d, std::size_t n) { k.expand3(s, d, n, nullptr); });
}

void GlobalFunction::PixelFormat_Gray8_To_Gray8Aligned(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (!fits(pSrc, pDst, nWidth, nHeight))
        return;
    forEachRow(pSrc, nWidth, nWidth, pDst, static_cast<long>(grayAlignedStride(nWidth)), nWidth, nWidth, nHeight,
               [](const unsigned char* s, unsigned char* d, std::size_t n) { std::memcpy(d, s, n); });
}

void GlobalFunction::PixelFormat_Gray8Aligned_To_Gray8(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (!fits(pSrc, pDst, nWidth, nHeight))
        return;
    forEachRow(pSrc, static_cast<long>(grayAlignedStride(nWidth)), nWidth, pDst, nWidth, nWidth, nWidth, nHeight,
               [](const unsigned char* s, unsigned char* d, std::size_t n) { std::memcpy(d, s, n); });
}

void GlobalFunction::Exg_RB(unsigned char* pBuf, int nWidth, int nHeight)
{
    if (!fits(pBuf, pBuf, nWidth, nHeight))
        return;
    const kavrel::PixelKernels& k = kavrel::pixelKernels();
    const long nStride = static_cast<long>(dibStride(nWidth));
    forEachRow(pBuf, nStride, 3L * nWidth, pBuf, nStride, 3L * nWidth, nWidth, nHeight,
               [&](const unsigned char*, unsigned char* d, std::size_t n) { k.swapRB(d, n); });
}
