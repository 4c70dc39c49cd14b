// SPDX-License-Identifier: LGPL-2.1-or-later
// The settings text reader, with a property: whatever record a text gives,
// writing it and reading the writing back gives the same text again.

#include <QString>

#include <cstdint>

#include "camera/ccdif.h"
#include "fuzzsupport.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzSetUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    CCDIF::CCDSettings record;
    record.fromString(text);
    const QString written = record.toString();

    CCDIF::CCDSettings reread;
    reread.fromString(written);
    const QString again = reread.toString();
    if (written != again) {
        std::fprintf(stderr, "written: %s\nread back and written: %s\n", written.toUtf8().constData(),
                     again.toUtf8().constData());
        FUZZ_CHECK(written == again);
    }
    // The record reads the same over a record that had other values.
    CCDIF::CCDSettings other;
    other.fromString("<TriggerType>soft</TriggerType><WhiteBalance>0.5,0.5,0.5</WhiteBalance>");
    other.fromString(written);
    FUZZ_CHECK(other.toString() == written);
    return 0;
}
