// SPDX-License-Identifier: LGPL-2.1-or-later
// The configuration string reader: any bytes as a host's configuration
// string. It must parse without fault and hand the text back unchanged as
// UTF-8 through the shared text buffer.

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <cstring>
#include <string>

#include "api/interface.h"
#include "fuzzsupport.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzSetUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static KavrelInterface api;
    // Host texts end at their first NUL.
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(std::strlen(text.c_str()));

    // Either camera, chosen by the length, so both readers run.
    if (size % 2)
        api.setConfigStringMain(text.data());
    else
        api.setConfigStringSlaver(text.data());
    const char* back = size % 2 ? api.getConfigStringMain() : api.getConfigStringSlaver();
    const QByteArray expected = QString::fromLocal8Bit(text.c_str()).toUtf8();
    FUZZ_CHECK(back == gszConfigString);
    FUZZ_CHECK(std::strlen(back) == static_cast<std::size_t>(expected.size()));
    FUZZ_CHECK(std::memcmp(back, expected.constData(), static_cast<std::size_t>(expected.size())) == 0);
    FUZZ_CHECK(gnConfigStringLen > expected.size());

    // The parsed form is what a second parse of the same text gives.
    FUZZ_CHECK(api.parseConfigStrMain(QString::fromUtf8(back)));
    return 0;
}
