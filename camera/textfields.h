// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_CAMERA_TEXTFIELDS_H
#define KAVREL_CAMERA_TEXTFIELDS_H

#include <QString>
#include <QStringRef>

#include <cmath>

// Reading the comma lists and decimals of configuration texts. A list is only
// taken when it has exactly the expected number of parts, so a body of a
// million commas is counted, never split into a million strings.
namespace kavrel {

template <int N>
bool splitExactly(const QString& strText, QStringRef (&aParts)[N])
{
    int nStart = 0;
    for (int i = 0; i < N - 1; ++i) {
        const int nComma = strText.indexOf(QLatin1Char(','), nStart);
        if (nComma < 0)
            return false;
        aParts[i] = strText.midRef(nStart, nComma - nStart);
        nStart = nComma + 1;
    }
    if (strText.indexOf(QLatin1Char(','), nStart) >= 0)
        return false;
    aParts[N - 1] = strText.midRef(nStart);
    return true;
}

// "nan" is no number: it reads as 0, like any other malformed text.
template <typename Text>
float readFloat(const Text& strText)
{
    const float fValue = strText.toFloat();
    return std::isnan(fValue) ? 0.0f : fValue;
}

} // namespace kavrel

#endif
