// SPDX-License-Identifier: LGPL-2.1-or-later
// Small helpers over the simulated camera's call log.
#ifndef KAVREL_TESTS_SIMLOG_H
#define KAVREL_TESTS_SIMLOG_H

#include <algorithm>
#include <string>
#include <vector>

#include "sdk/torvanesim.h"

inline std::vector<std::string> simLog()
{
    std::vector<std::string> entries;
    char buf[256];
    for (int i = 0; torvanesim_log_entry(i, buf, sizeof buf) >= 0; ++i)
        entries.emplace_back(buf);
    return entries;
}

// The calls, sorted: for settings whose order the SDK does not care about.
inline std::vector<std::string> simLogSorted()
{
    std::vector<std::string> entries = simLog();
    std::sort(entries.begin(), entries.end());
    return entries;
}

// Entries that begin with `prefix`.
inline int simLogCount(const std::string& prefix)
{
    int n = 0;
    for (const auto& e : simLog())
        n += e.rfind(prefix, 0) == 0;
    return n;
}

#endif
