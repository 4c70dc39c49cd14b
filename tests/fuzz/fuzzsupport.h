// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared by the fuzz targets: a fixed local 8-bit encoding, and a failure
// that libFuzzer reports with the input that caused it.
#ifndef KAVREL_TESTS_FUZZSUPPORT_H
#define KAVREL_TESTS_FUZZSUPPORT_H

#include <QTextCodec>

#include <cstdio>
#include <cstdlib>

inline void fuzzSetUp()
{
    // Host texts are decoded as local 8-bit; the result must not depend on
    // the machine's locale.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}

#define FUZZ_CHECK(cond)                                                                 \
    do {                                                                                 \
        if (!(cond)) {                                                                   \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                \
        }                                                                                \
    } while (0)

#endif
