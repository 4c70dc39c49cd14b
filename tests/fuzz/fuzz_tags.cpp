// SPDX-License-Identifier: LGPL-2.1-or-later
// Tag extraction: getBody and getAndRemoveBody on fuzzer-chosen texts and
// tags. The first two bytes give the lengths of the open and close tag taken
// from the front of the input; the rest is the text.

#include <QString>

#include <cstdint>

#include "camera/ccdif.h"
#include "fuzzsupport.h"
#include "imaging/globalfunction.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzSetUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    const std::size_t nOpen = data[0] % 16, nClose = data[1] % 16;
    if (size < 2 + nOpen + nClose)
        return 0;
    const char* p = reinterpret_cast<const char*>(data) + 2;
    const QString open = QString::fromUtf8(p, static_cast<int>(nOpen));
    const QString close = QString::fromUtf8(p + nOpen, static_cast<int>(nClose));
    const QString text = QString::fromUtf8(p + nOpen + nClose, static_cast<int>(size - 2 - nOpen - nClose));

    const QString body = GlobalFunction::getBody(text, open, close);
    CCDIF::CCDSettings record;
    FUZZ_CHECK(record.getBody(text, open, close) == body);

    QString cut = text;
    const QString removed = GlobalFunction::getAndRemoveBody(cut, open, close);
    FUZZ_CHECK(removed == body);
    if (cut != text) {
        // The whole element went, and only it: what is left is the text
        // before the open tag joined to the text after the close tag.
        const int at = text.indexOf(open, 0, Qt::CaseInsensitive);
        const int end = text.indexOf(close, 0, Qt::CaseInsensitive) + close.length();
        FUZZ_CHECK(at >= 0 && end <= text.length());
        FUZZ_CHECK(cut == text.left(at) + text.mid(end));
        FUZZ_CHECK(text.mid(at + open.length()).startsWith(body));
    } else {
        FUZZ_CHECK(body.isEmpty());
    }
    return 0;
}
