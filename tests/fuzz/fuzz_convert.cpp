// SPDX-License-Identifier: LGPL-2.1-or-later
// The pixel format conversions on fuzzer-chosen geometry and pixels. Every
// buffer is allocated to exactly the size its layout gives, so any access
// past it is caught; destination rows' padding must stay untouched.
//
// Input: byte 0 picks the operation, byte 1 the YUV layout, bytes 2-3 the width, bytes 4-5 the height (both may come out zero or
// negative); the rest fills the source image, repeated as needed.

#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzzsupport.h"
#include "imaging/globalfunction.h"

namespace {

long dib(int w) { return (3L * w + 3) & ~3L; }
long aligned(int w) { return (static_cast<long>(w) + 3) & ~3L; }

enum Layout { Yuv, Dib, Gray, GrayAligned };

long stride(Layout l, int w)
{
    switch (l) {
    case Yuv: return 2L * w;
    case Dib: return dib(w);
    case Gray: return w;
    case GrayAligned: return aligned(w);
    }
    return 0;
}

// Bytes written per row by an operation into a destination layout.
long written(Layout l, int w)
{
    return l == Dib ? 3L * w : static_cast<long>(w);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 6)
        return 0;
    const int op = data[0] % 9;
    // Only the four named layouts: any other value of the enumeration is out
    // of its range, undefined already in the caller.
    const int yuvType = data[1] % 4;
    // Sizes from -8 to 247 by 1 to 120: small enough to run fast, with the
    // odd, zero and negative cases among them.
    const int w = static_cast<int>(data[2] ^ (data[3] << 1)) % 256 - 8;
    const int h = static_cast<int>(data[4] ^ (data[5] << 1)) % 128 - 8;
    const std::uint8_t* pixels = data + 6;
    const std::size_t nPixels = size - 6;

    static const Layout kSrc[9] = {Yuv, Yuv, Dib, Dib, Gray, GrayAligned, Gray, GrayAligned, Dib};
    static const Layout kDst[9] = {Dib, Gray, Gray, GrayAligned, Dib, Dib, GrayAligned, Gray, Dib};
    const Layout src = kSrc[op], dst = kDst[op];
    const int rows = h > 0 ? h : 0;
    const int cols = w > 0 ? w : 0;

    std::vector<std::uint8_t> in(static_cast<std::size_t>(stride(src, cols) * rows));
    for (std::size_t i = 0; i < in.size(); ++i)
        in[i] = nPixels ? pixels[i % nPixels] : static_cast<std::uint8_t>(i);
    std::vector<std::uint8_t> out(static_cast<std::size_t>(stride(dst, cols) * rows), 0xC3);
    // Exact sizes: a zero-sized image gets no buffer at all, so that any
    // write is caught as a null access.
    std::uint8_t* pOut = out.empty() ? nullptr : out.data();
    const std::uint8_t* pIn = in.empty() ? nullptr : in.data();

    const auto type = static_cast<GlobalFunction::YUV422_Type>(yuvType);
    switch (op) {
    case 0: GlobalFunction::PixelFormat_YUV422Packed_To_DIB(type, pIn, pOut, w, h); break;
    case 1: GlobalFunction::PixelFormat_YUV422Packed_To_Gray8(type, pIn, pOut, w, h); break;
    case 2: GlobalFunction::PixelFormat_DIB_To_Gray8(pIn, pOut, w, h); break;
    case 3: GlobalFunction::PixelFormat_DIB_To_Gray8Aligned(pIn, pOut, w, h); break;
    case 4: GlobalFunction::PixelFormat_Gray8_To_DIB(pIn, pOut, w, h); break;
    case 5: GlobalFunction::PixelFormat_Gray8Aligned_To_DIB(pIn, pOut, w, h); break;
    case 6: GlobalFunction::PixelFormat_Gray8_To_Gray8Aligned(pIn, pOut, w, h); break;
    case 7: GlobalFunction::PixelFormat_Gray8Aligned_To_Gray8(pIn, pOut, w, h); break;
    case 8:
        // In place, twice: the image comes back as it was.
        out.assign(in.begin(), in.end());
        pOut = out.empty() ? nullptr : out.data();
        GlobalFunction::Exg_RB(pOut, w, h);
        GlobalFunction::Exg_RB(pOut, w, h);
        FUZZ_CHECK(out == in);
        return 0;
    }

    const long rowBytes = stride(dst, cols), used = written(dst, cols);
    for (int y = 0; y < rows; ++y) {
        const std::uint8_t* row = out.data() + static_cast<std::size_t>(y) * rowBytes;
        for (long x = used; x < rowBytes; ++x)
            FUZZ_CHECK(row[x] == 0xC3);
    }
    return 0;
}
