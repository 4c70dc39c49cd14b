// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gstreamer/kavrelsrcconfig.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

namespace {

const int kSizeStep = 4; // the library rounds region sizes up to this

std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

// A decimal number filling the whole text (blanks around it allowed), else 0,
// as the library reads numbers.
int toInt(const std::string& s)
{
    const char* p = s.c_str();
    while (std::isspace(static_cast<unsigned char>(*p)))
        ++p;
    if (!*p)
        return 0;
    char* pEnd = nullptr;
    errno = 0;
    const long n = std::strtol(p, &pEnd, 10);
    while (std::isspace(static_cast<unsigned char>(*pEnd)))
        ++pEnd;
    if (*pEnd || errno == ERANGE || n < INT_MIN || n > INT_MAX)
        return 0;
    return int(n);
}

int roundUpSize(int n)
{
    if (n <= 0)
        return 0;
    if (n > INT_MAX - kSizeStep)
        return n;
    return (n + kSizeStep - 1) / kSizeStep * kSizeStep;
}

// width or height: as fixed by the caps, else the configuration's when the
// caps allow it, else 0 (the sensor's).
int chooseSize(GstStructure* s, const char* pszField, int nPreferred)
{
    int n = 0;
    if (gst_structure_get_int(s, pszField, &n))
        return n;
    if (nPreferred > 0 && gst_structure_fixate_field_nearest_int(s, pszField, nPreferred) &&
        gst_structure_get_int(s, pszField, &n))
        return n;
    return 0;
}

} // namespace

std::string kavrel_gst_body(const std::string& strText, const char* pszTag)
{
    const std::string strLower = lower(strText);
    const std::string strTag = lower(pszTag);
    const std::string strOpen = "<" + strTag + ">";
    const std::string strClose = "</" + strTag + ">";
    const size_t nOpen = strLower.find(strOpen);
    const size_t nClose = strLower.find(strClose);
    if (nOpen == std::string::npos || nClose == std::string::npos || nClose < nOpen + strOpen.size())
        return std::string();
    return strText.substr(nOpen + strOpen.size(), nClose - nOpen - strOpen.size());
}

KavrelSrcConfig kavrel_gst_parse_config(const std::string& strConfig)
{
    KavrelSrcConfig c;
    c.nPixFmtCode = toInt(kavrel_gst_body(strConfig, "PixFmt"));
    std::vector<std::string> parts;
    const std::string strRoi = kavrel_gst_body(strConfig, "ROI");
    size_t nStart = 0;
    for (;;) {
        const size_t nComma = strRoi.find(',', nStart);
        parts.push_back(strRoi.substr(nStart, nComma == std::string::npos ? std::string::npos : nComma - nStart));
        if (nComma == std::string::npos)
            break;
        nStart = nComma + 1;
    }
    // "width,height" or "left,top,width,height"
    if (parts.size() == 2 || parts.size() == 4) {
        c.nRoiWidth = roundUpSize(toInt(parts[parts.size() - 2]));
        c.nRoiHeight = roundUpSize(toInt(parts[parts.size() - 1]));
    }
    const std::string strSettings = kavrel_gst_body(strConfig, "Settings");
    c.bSoftTrigger = lower(kavrel_gst_body(strSettings, "TriggerType")) == "soft";
    return c;
}

const char* kavrel_gst_format_for_code(int nCode)
{
    return nCode >= 1 && nCode <= 7 ? "BGR" : "GRAY8";
}

bool kavrel_gst_choose(const GstCaps* pPeer, const KavrelSrcConfig& cConfig, KavrelSrcChoice* pChoice)
{
    const char* pszNative = kavrel_gst_format_for_code(cConfig.nPixFmtCode);
    GstCaps* pPreferred = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, pszNative, nullptr);
    GstCaps* pCaps = gst_caps_intersect_full(const_cast<GstCaps*>(pPeer), pPreferred, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(pPreferred);
    if (gst_caps_is_empty(pCaps)) {
        gst_caps_unref(pCaps);
        pCaps = gst_caps_copy(const_cast<GstCaps*>(pPeer));
    }
    if (gst_caps_is_empty(pCaps) || gst_caps_is_any(pCaps)) {
        gst_caps_unref(pCaps);
        return false;
    }
    pCaps = gst_caps_truncate(pCaps);
    pCaps = gst_caps_make_writable(pCaps);
    GstStructure* s = gst_caps_get_structure(pCaps, 0);

    KavrelSrcChoice c;
    gst_structure_fixate_field_string(s, "format", pszNative);
    const char* pszFormat = gst_structure_get_string(s, "format");
    const std::string strFormat = pszFormat ? pszFormat : "";
    if (strFormat == "GRAY8") {
        c.pszFormat = "GRAY8";
        c.nPixFmtCode = 0;
    } else if (strFormat == "BGR") {
        c.pszFormat = "BGR";
        c.nPixFmtCode = cConfig.nPixFmtCode >= 1 && cConfig.nPixFmtCode <= 7 ? cConfig.nPixFmtCode : 1;
    } else if (strFormat == "RGB") {
        c.pszFormat = "RGB";
        c.nPixFmtCode = 1;
        c.bSwapRB = true;
    } else {
        gst_caps_unref(pCaps);
        return false;
    }
    c.nWidth = chooseSize(s, "width", cConfig.nRoiWidth);
    c.nHeight = chooseSize(s, "height", cConfig.nRoiHeight);
    gst_caps_unref(pCaps);
    *pChoice = c;
    return true;
}

std::string kavrel_gst_config_for(const KavrelSrcChoice& cChoice, const std::string& strConfig)
{
    return "<PixFmt>" + std::to_string(cChoice.nPixFmtCode) + "</PixFmt><ROI>" + std::to_string(cChoice.nWidth) +
           "," + std::to_string(cChoice.nHeight) + "</ROI>" + strConfig;
}

void kavrel_gst_copy_swap_rb(const unsigned char* pIn, int nInStride, unsigned char* pOut, int nOutStride, int nWidth,
                             int nHeight)
{
    for (int y = 0; y < nHeight; ++y) {
        const unsigned char* s = pIn + size_t(y) * size_t(nInStride);
        unsigned char* d = pOut + size_t(y) * size_t(nOutStride);
        for (int x = 0; x < nWidth; ++x, s += 3, d += 3) {
            d[0] = s[2];
            d[1] = s[1];
            d[2] = s[0];
        }
    }
}
