// SPDX-License-Identifier: LGPL-2.1-or-later
#include "settings.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace torvane_v4l2 {

namespace {

std::string trimmed(const std::string& strText)
{
    const auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    auto itBegin = std::find_if_not(strText.begin(), strText.end(), isSpace);
    auto itEnd = std::find_if_not(strText.rbegin(), strText.rend(), isSpace).base();
    return itBegin < itEnd ? std::string(itBegin, itEnd) : std::string();
}

bool parseNumber(const std::string& strText, double& dValue)
{
    if (strText.empty())
        return false;
    char* pEnd = nullptr;
    const double d = std::strtod(strText.c_str(), &pEnd);
    if (*pEnd != '\0' || !(d >= 0.0) || d > 1e6)
        return false;
    dValue = d;
    return true;
}

void applyValue(const std::string& strKey, const std::string& strValue, Settings& cSettings)
{
    double d = 0.0;
    if (strKey == "device") {
        cSettings.strDevice = strValue;
    } else if (strKey == "fps") {
        if (parseNumber(strValue, d))
            cSettings.dFps = d;
    } else if (strKey == "format") {
        cSettings.nFormat = fourccFromText(strValue);
    } else if (strKey == "buffers") {
        if (parseNumber(strValue, d))
            cSettings.nBuffers = std::clamp(static_cast<int>(d), 2, 32);
    }
}

} // namespace

std::uint32_t fourccFromText(const std::string& strText)
{
    if (strText.size() != 4)
        return 0;
    std::uint32_t n = 0;
    for (int i = 3; i >= 0; --i)
        n = (n << 8) | static_cast<unsigned char>(strText[static_cast<std::size_t>(i)]);
    return n;
}

void applySettingsText(const std::string& strText, Settings& cSettings)
{
    std::istringstream cLines(strText);
    std::string strLine;
    while (std::getline(cLines, strLine)) {
        strLine = strLine.substr(0, strLine.find('#'));
        const std::size_t nEq = strLine.find('=');
        if (nEq == std::string::npos)
            continue;
        applyValue(trimmed(strLine.substr(0, nEq)), trimmed(strLine.substr(nEq + 1)), cSettings);
    }
}

Settings settingsFromEnvironment()
{
    Settings cSettings;
    if (const char* szFile = std::getenv("TORVANE_V4L2_CONFIG"); szFile && *szFile) {
        std::ifstream cFile(szFile);
        if (!cFile) {
            cSettings.bConfigMissing = true;
            return cSettings;
        }
        std::stringstream cText;
        cText << cFile.rdbuf();
        applySettingsText(cText.str(), cSettings);
    }
    static const struct {
        const char* szVariable;
        const char* szKey;
    } s_aEnvironment[] = {{"TORVANE_V4L2_DEVICE", "device"},
                          {"TORVANE_V4L2_FPS", "fps"},
                          {"TORVANE_V4L2_FORMAT", "format"},
                          {"TORVANE_V4L2_BUFFERS", "buffers"}};
    for (const auto& cEntry : s_aEnvironment)
        if (const char* szValue = std::getenv(cEntry.szVariable); szValue && *szValue)
            applyValue(cEntry.szKey, trimmed(szValue), cSettings);
    return cSettings;
}

} // namespace torvane_v4l2
