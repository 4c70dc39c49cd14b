// SPDX-License-Identifier: LGPL-2.1-or-later
// One camera of KavrelInterface for the tools: every operation exists as a
// Main and a Slaver twin, and a tool picks its camera's set once.
#ifndef KAVREL_TOOLS_COMMON_TWINCAMERA_H
#define KAVREL_TOOLS_COMMON_TWINCAMERA_H

#include "api/interface.h"

namespace kavreltool {

struct TwinCamera {
    const char* name;
    bool (KavrelInterface::*isStarted)();
    void (KavrelInterface::*setConfig)(char*);
    bool (KavrelInterface::*applyNewConfig)();
    bool (KavrelInterface::*connect)();
    bool (KavrelInterface::*start)();
    void (KavrelInterface::*stop)();
    void (KavrelInterface::*disconnect)();
    bool (KavrelInterface::*click)();
    unsigned char* (KavrelInterface::*request)(int*, int*, int*, int);
    void (KavrelInterface::*release)(unsigned char*);
    char* (KavrelInterface::*showConfigWindow)(char*);
};

// Both sets from one list: S is Main or Slaver.
#define KAVRELTOOL_TWIN_CAMERA(S)                                                                      \
    {#S,                                                                                               \
     &KavrelInterface::IsStarted##S,      &KavrelInterface::setConfigString##S,                        \
     &KavrelInterface::applyNewConfig##S, &KavrelInterface::connect##S,                                \
     &KavrelInterface::start##S,          &KavrelInterface::stop##S,                                   \
     &KavrelInterface::disconnect##S,     &KavrelInterface::click##S,                                  \
     &KavrelInterface::requestImage##S,   &KavrelInterface::releaseImage##S,                           \
     &KavrelInterface::showConfigWindow##S}

inline const TwinCamera kMainCamera = KAVRELTOOL_TWIN_CAMERA(Main);
inline const TwinCamera kSlaverCamera = KAVRELTOOL_TWIN_CAMERA(Slaver);

#undef KAVRELTOOL_TWIN_CAMERA

} // namespace kavreltool

#endif
