// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_IMAGING_GLOBALFUNCTION_H
#define KAVREL_IMAGING_GLOBALFUNCTION_H

#include <QString>

#include "api/kavrelexport.h"

// Tag extraction for the library's flat tagged texts, and conversions between
// packed YUV 4:2:2, 24-bit BGR rows padded to 4 bytes ("DIB") and 8-bit grey.
// Everything is static; the conversions work on caller-owned buffers.
class KAVREL_EXPORT GlobalFunction
{
public:
    enum YUV422_Type {
        YUV422_Y0UY1V = 0,
        YUV422_Y0VY1U = 1,
        YUV422_VY1UY0 = 2,
        YUV422_UY1VY0 = 3
    };

    GlobalFunction();
    ~GlobalFunction();

    static QString getBody(QString text, QString openTag, QString closeTag);
    static QString getAndRemoveBody(QString& text, QString openTag, QString closeTag);

    static void PixelFormat_YUV422Packed_To_DIB(YUV422_Type eType, const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
    static void PixelFormat_YUV422Packed_To_Gray8(YUV422_Type eType, const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
    static void PixelFormat_DIB_To_Gray8(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
    static void PixelFormat_DIB_To_Gray8Aligned(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
    static void PixelFormat_Gray8_To_DIB(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
    static void PixelFormat_Gray8Aligned_To_DIB(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
    static void PixelFormat_Gray8_To_Gray8Aligned(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
    static void PixelFormat_Gray8Aligned_To_Gray8(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
    static void Exg_RB(unsigned char* pBuf, int nWidth, int nHeight);
};

#endif
