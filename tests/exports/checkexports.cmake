# SPDX-License-Identifier: LGPL-2.1-or-later
# Compares the dynamic symbol table of libKavrel.so with the host interface.
#   cmake -DNM=<nm> -DLIBRARY=<libKavrel.so.1> -DLIST=<hostinterface.txt> -DMODE=<mode> -P checkexports.cmake
# MODE complete: every symbol of the list is exported, as often as listed.
# MODE internal: nothing else is: no symbol of the kavrel namespace, and no C++
#   symbol outside the listed classes, functions and globals (template code
#   from Qt or the standard library included). Names that begin with an
#   underscore belong to the linker and the toolchain (_edata, _end,
#   __bss_start, sanitizer runtimes) and are left alone.
foreach(var NM LIBRARY LIST MODE)
  if(NOT ${var})
    message(FATAL_ERROR "checkexports.cmake: ${var} is not set")
  endif()
endforeach()
if(NOT EXISTS "${NM}")
  message(FATAL_ERROR "No nm to read the symbol table with (${NM}); install binutils")
endif()

execute_process(COMMAND "${NM}" -D --defined-only --demangle "${LIBRARY}"
                OUTPUT_VARIABLE table ERROR_VARIABLE errors RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${errors}")
endif()
# Lines are "<address> <type> <name>"; a name may hold ';' only in theory.
string(REPLACE ";" "\\;" table "${table}")
string(REPLACE "\n" ";" lines "${table}")
set(exported "")
foreach(line IN LISTS lines)
  if(line MATCHES "^[0-9a-fA-F]* *[A-Za-z] (.+)$")
    list(APPEND exported "${CMAKE_MATCH_1}")
  endif()
endforeach()
list(LENGTH exported count)
if(count EQUAL 0)
  message(FATAL_ERROR "${LIBRARY} exports nothing")
endif()

file(STRINGS "${LIST}" listed REGEX "^[^#]")

if(MODE STREQUAL "complete")
  set(left "${exported}")
  set(missing "")
  foreach(name IN LISTS listed)
    list(FIND left "${name}" at)
    if(at EQUAL -1)
      list(APPEND missing "${name}")
    else()
      list(REMOVE_AT left ${at})
    endif()
  endforeach()
  if(missing)
    list(JOIN missing "\n  " text)
    message(FATAL_ERROR "libKavrel no longer exports what hosts link against:\n  ${text}")
  endif()
  list(LENGTH listed n)
  message(STATUS "All ${n} host interface symbols exported (${count} exported in all)")
elseif(MODE STREQUAL "internal")
  # The interface's names: the classes (with their members, vtables, type
  # information and thunks) and the free functions and globals.
  set(names "")
  foreach(name IN LISTS listed)
    if(name MATCHES "^(vtable for |typeinfo for |typeinfo name for |non-virtual thunk to )?([A-Za-z_][A-Za-z0-9_]*)")
      list(APPEND names "${CMAKE_MATCH_2}")
    endif()
  endforeach()
  list(REMOVE_DUPLICATES names)
  list(JOIN names "|" alternatives)
  set(ours "^(vtable for |typeinfo for |typeinfo name for |non-virtual thunk to |virtual thunk to )?(${alternatives})(::|\\(|$)")
  set(leaked "")
  foreach(name IN LISTS exported)
    if(name MATCHES "kavrel::" OR NOT (name MATCHES "${ours}" OR name MATCHES "^_"))
      list(APPEND leaked "${name}")
    endif()
  endforeach()
  if(leaked)
    list(JOIN leaked "\n  " text)
    message(FATAL_ERROR "libKavrel exports what is not part of the host interface:\n  ${text}")
  endif()
  message(STATUS "Nothing but the host interface exported (${count} symbols)")
else()
  message(FATAL_ERROR "checkexports.cmake: MODE is complete or internal, not ${MODE}")
endif()
