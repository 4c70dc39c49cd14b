// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_API_KAVRELEXPORT_H
#define KAVREL_API_KAVRELEXPORT_H

#include <QtGlobal>

/// @file
/// KAVREL_EXPORT marks what hosts link against.

// libKavrel is compiled with hidden visibility: only classes, functions and
// globals marked KAVREL_EXPORT appear in its dynamic symbol table (a class with
// all its members, its vtable and its type information). On ELF the same mark
// serves the library and the hosts that include these headers.
#define KAVREL_EXPORT Q_DECL_EXPORT

#endif
