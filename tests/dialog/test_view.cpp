// The preview on its own: which frames it paints and how, from the frame
// fields that the dialog fills under the view's mutex.

#include "dialogtest.h"

#include <cstring>

#include "dialog/webcamcfgviewform.h"

namespace {

// Hands a frame over as the dialog does and returns what the view paints.
QImage paint(WebCamCfgViewForm& view, int nPixType, int nWidth, int nBytesPerLine, int nHeight,
             const std::vector<unsigned char>& bytes)
{
    {
        QMutexLocker cLocker(&view.m_cImageMutex);
        delete[] view.m_pImageBuf;
        view.m_pImageBuf = new unsigned char[bytes.size()];
        std::memcpy(view.m_pImageBuf, bytes.data(), bytes.size());
        view.m_nWidth = nWidth;
        view.m_nHeight = nHeight;
        view.m_nBytesPerLine = nBytesPerLine;
    }
    view.setPixType(nPixType);
    return view.grab().toImage().convertToFormat(QImage::Format_RGB32);
}

// Rows of nBytesPerLine bytes; every pixel's first bytes are 10, 20, 30.
std::vector<unsigned char> rows(int nWidth, int nBytesPerPixel, int nBytesPerLine, int nHeight)
{
    // Slack at the end, so that rows shorter than their pixels stay in bounds.
    std::vector<unsigned char> v(static_cast<size_t>(nBytesPerLine) * nHeight + nWidth * nBytesPerPixel, 0xEE);
    for (int y = 0; y < nHeight; ++y)
        for (int x = 0; x < nWidth; ++x)
            for (int c = 0; c < nBytesPerPixel; ++c)
                v[static_cast<size_t>(y) * nBytesPerLine + x * nBytesPerPixel + c] =
                    static_cast<unsigned char>(10 * (c + 1));
    return v;
}

TEST(Preview, PaintsEachPixelTypeOrNothing)
{
    const QColor cWhite(Qt::white);
    const struct {
        int nPixType;
        int nWidth;
        int nBytesPerLine;
        QColor cExpected;
    } cases[] = {
        {0, 5, 5, QColor(10, 10, 10)},    // grey
        {3, 5, 5, QColor(10, 10, 10)},    // grey as well
        {1, 5, 16, QColor(30, 20, 10)},   // B, G, R
        {4, 5, 16, QColor(30, 20, 10)},
        {6, 5, 16, QColor(30, 20, 10)},
        {2, 5, 16, QColor(10, 20, 30)},   // R, G, B
        {5, 5, 16, QColor(10, 20, 30)},
        {7, 5, 16, QColor(10, 20, 30)},
        {1, 5, 15, cWhite},               // colour rows need 3 * width rounded up to 4
        {1, 4, 12, QColor(30, 20, 10)},   // already a multiple of 4
        {0, 5, 4, cWhite},                // a grey row shorter than the width
        {8, 5, 16, cWhite},               // unknown pixel types
        {-1, 5, 16, cWhite},
        {1, 0, 16, cWhite},               // no frame yet
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "type " << c.nPixType << " width " << c.nWidth << " bpl "
                                          << c.nBytesPerLine);
        WebCamCfgViewForm view;
        const int nBpp = (c.nPixType == 0 || c.nPixType == 3) ? 1 : 3;
        const QImage cPicture = paint(view, c.nPixType, c.nWidth, c.nBytesPerLine, 4,
                                      rows(std::max(c.nWidth, 1), nBpp, std::max(c.nBytesPerLine, 3), 4));
        ASSERT_EQ(cPicture.size(), QSize(665, 503));
        // Scaled: the frame covers the whole view, to its last pixel.
        EXPECT_EQ(cPicture.pixelColor(0, 0), c.cExpected);
        EXPECT_EQ(cPicture.pixelColor(664, 502), c.cExpected);
    }
}

TEST(Preview, UnscaledShowsTheFrameAtTheTopLeftOnly)
{
    WebCamCfgViewForm view;
    EXPECT_EQ(view.objectName(), "WebCamCfgViewForm");
    const std::vector<unsigned char> bytes = rows(640, 3, 1920, 480);

    view.setScaled(false);
    const QImage cPicture = paint(view, 2, 640, 1920, 480, bytes);
    EXPECT_EQ(cPicture.pixelColor(639, 479), QColor(10, 20, 30));
    EXPECT_EQ(cPicture.pixelColor(640, 0), QColor(Qt::white));
    EXPECT_EQ(cPicture.pixelColor(0, 480), QColor(Qt::white));

    // The row padding beyond the pixels is never shown.
    view.setScaled(true);
    const QImage cScaled = paint(view, 2, 640, 1920, 480, bytes);
    EXPECT_EQ(cScaled.pixelColor(664, 502), QColor(10, 20, 30));
}

TEST(Preview, ReadsRowsAtTheirStride)
{
    // Two rows of two grey pixels with padding in between: 1, 2 | pad pad | 3, 4.
    WebCamCfgViewForm view;
    view.setScaled(false);
    const QImage cPicture = paint(view, 0, 2, 4, 2, {1, 2, 99, 99, 3, 4, 99, 99});
    EXPECT_EQ(cPicture.pixelColor(0, 0), QColor(1, 1, 1));
    EXPECT_EQ(cPicture.pixelColor(1, 0), QColor(2, 2, 2));
    EXPECT_EQ(cPicture.pixelColor(0, 1), QColor(3, 3, 3));
    EXPECT_EQ(cPicture.pixelColor(1, 1), QColor(4, 4, 4));
}

} // namespace
