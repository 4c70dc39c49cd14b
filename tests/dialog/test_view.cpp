// The preview on its own: which frames it paints and how, from the frame
// fields that the dialog fills under the view's mutex.

#include "dialogtest.h"

#include "dialog/webcamcfgviewform.h"

// Hands a frame of 4 rows over as the dialog does and returns what the view
// paints. Row y's pixels have the bytes 10 + y, 20 + y, 30 + y (grey: 10 + y);
// the padding after them is 0xEE.
static QImage paint(WebCamCfgViewForm& view, int nPixType, int nWidth, int nBytesPerLine)
{
    const int nBpp = (nPixType == 0 || nPixType == 3) ? 1 : 3;
    {
        QMutexLocker cLocker(&view.m_cImageMutex);
        delete[] view.m_pImageBuf;
        view.m_pImageBuf = new unsigned char[4 * nBytesPerLine];
        for (int i = 0; i < 4 * nBytesPerLine; ++i) {
            const int x = i % nBytesPerLine;
            view.m_pImageBuf[i] = x < nWidth * nBpp ? 10 * (x % nBpp + 1) + i / nBytesPerLine : 0xEE;
        }
        view.m_nWidth = nWidth;
        view.m_nHeight = 4;
        view.m_nBytesPerLine = nBytesPerLine;
    }
    view.setPixType(nPixType);
    return view.grab().toImage();
}

TEST(Preview, PaintsEachPixelTypeAtTheRowStrideOrNothing)
{
    const QColor cWhite(Qt::white);
    const struct {
        std::vector<int> vPixTypes;
        int nWidth;
        int nBytesPerLine;
        QColor cTop; // row 0; row 3 shows each channel 3 higher
    } cases[] = {
        {{0, 3}, 5, 5, QColor(10, 10, 10)}, {{1, 4, 6}, 5, 16, QColor(30, 20, 10)},
        {{2, 5, 7}, 5, 16, QColor(10, 20, 30)}, {{1}, 4, 12, QColor(30, 20, 10)},
        // Colour rows need 3 * width rounded up to 4, grey rows the width; unknown
        // pixel types and no frame paint nothing.
        {{1}, 5, 15, cWhite}, {{0}, 5, 4, cWhite}, {{8, -1}, 5, 16, cWhite}, {{1}, 0, 16, cWhite},
    };
    for (const auto& c : cases) {
        for (int nPixType : c.vPixTypes) {
            SCOPED_TRACE(::testing::Message() << nPixType << " " << c.nWidth << " " << c.nBytesPerLine);
            WebCamCfgViewForm view;
            const QImage cPicture = paint(view, nPixType, c.nWidth, c.nBytesPerLine);
            // Scaled: the frame covers the whole view, to its last pixel.
            EXPECT_EQ(cPicture.pixelColor(0, 0), c.cTop);
            const QColor cBottom =
                c.cTop == cWhite ? cWhite : QColor(c.cTop.red() + 3, c.cTop.green() + 3, c.cTop.blue() + 3);
            EXPECT_EQ(cPicture.pixelColor(0, 502), cBottom);
            EXPECT_EQ(cPicture.pixelColor(664, 502), cBottom);
        }
    }
    // Unscaled: the frame at its own size in the top-left corner, white around it.
    WebCamCfgViewForm view;
    view.setScaled(false);
    const QImage cPicture = paint(view, 2, 5, 16);
    EXPECT_EQ(cPicture.pixelColor(4, 3), QColor(13, 23, 33));
    EXPECT_EQ(cPicture.pixelColor(5, 3), cWhite);
    EXPECT_EQ(cPicture.pixelColor(4, 4), cWhite);
}
