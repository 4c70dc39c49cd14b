// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_IMAGING_WHITEBALANCE_H
#define KAVREL_IMAGING_WHITEBALANCE_H

// The measurement behind the dialog's automatic white balance: the gains that
// bring a colour frame's red, green and blue means to their common average.
// Internal to the library.

#include <optional>

namespace kavrel {

// Byte order of a 3-byte pixel.
enum class ChannelOrder { RGB, BGR };

// Which pixels the means are taken over.
enum class WhiteReference {
    WholeFrame,   // every pixel
    WhiteSurface, // the brightest pixels, at most a tenth of the frame
};

// Gains in percent (100 is 1.00), each limited to 0..200: the white-balance
// sliders' scale.
struct WhiteBalanceGains {
    int nRed;
    int nGreen;
    int nBlue;
};

// gain * 100 in single precision, truncated toward zero; values beyond int
// saturate and NaN gives 0, so that odd gains stay defined.
int gainToPercent(float fGain);

// pFrame holds nHeight lines of nBytesPerLine bytes with nWidth 3-byte pixels
// at the start of each. Every mean and gain is single precision; the channel
// sums wrap at 32 bits. A channel mean of 0 gives 200 (an infinite gain,
// limited); 0 / 0 gives 0. No result for a null or empty frame, or lines
// shorter than 3 * nWidth bytes.
//
// WhiteSurface: a pixel's brightness is the sum of its three bytes; walking
// down from the brightest, the level at which more than a tenth of the frame
// is reached is the threshold, and only pixels above it count. A frame of one
// brightness thus counts no pixel at all and gives 0, 0, 0.
std::optional<WhiteBalanceGains> measureWhiteBalance(const unsigned char* pFrame, int nWidth, int nBytesPerLine,
                                                     int nHeight, ChannelOrder eOrder, WhiteReference eReference);

} // namespace kavrel

#endif
