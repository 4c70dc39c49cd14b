// SPDX-License-Identifier: LGPL-2.1-or-later
// What kavrelsrc reads from a configuration string and how it turns caps into
// one: kept apart from the element so that tests reach it directly.
#ifndef KAVREL_GSTREAMER_KAVRELSRCCONFIG_H
#define KAVREL_GSTREAMER_KAVRELSRCCONFIG_H

#include <gst/gst.h>

#include <string>

// The parts of a configuration string that decide the caps.
struct KavrelSrcConfig {
    int nPixFmtCode = 0;   // <PixFmt> as read (0 when missing or malformed)
    int nRoiWidth = 0;     // <ROI> size, rounded up to a multiple of 4 as the
    int nRoiHeight = 0;    // library does; 0 means the sensor's
    bool bSoftTrigger = false;
};

// Format, <PixFmt> code and size the element asks the camera for.
struct KavrelSrcChoice {
    const char* pszFormat = nullptr; // "GRAY8", "BGR" or "RGB"
    int nPixFmtCode = 0;
    int nWidth = 0;                  // 0: the sensor's
    int nHeight = 0;
    bool bSwapRB = false;            // RGB: the library delivers B, G, R
};

// The body of <tag>...</tag> as the library finds it: first opening and first
// closing tag, ignoring case; empty when missing or out of order.
std::string kavrel_gst_body(const std::string& strText, const char* pszTag);

KavrelSrcConfig kavrel_gst_parse_config(const std::string& strConfig);

// The caps format of the bytes the library delivers for a <PixFmt> code: it
// never reorders colour bytes, and every camera it drives sends B, G, R, so
// all 24-bit codes (1 to 7) deliver BGR; any other code delivers grey.
const char* kavrel_gst_format_for_code(int nCode);

// Picks format and size from the caps downstream accepts, preferring what the
// configuration says. False when no structure has a usable format.
bool kavrel_gst_choose(const GstCaps* pPeer, const KavrelSrcConfig& cConfig, KavrelSrcChoice* pChoice);

// The configuration handed to the library: the choice in front of the
// user's string (of a repeated element the first counts).
std::string kavrel_gst_config_for(const KavrelSrcChoice& cChoice, const std::string& strConfig);

// Copies width x height pixels of 3 bytes, exchanging the first and the third.
void kavrel_gst_copy_swap_rb(const unsigned char* pIn, int nInStride, unsigned char* pOut, int nOutStride, int nWidth,
                             int nHeight);

#endif
