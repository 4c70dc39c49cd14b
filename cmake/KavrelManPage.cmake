# SPDX-License-Identifier: LGPL-2.1-or-later
# Makes a tool's manual page from its --help and --version with help2man, and
# compresses it as Debian wants it (gzip -9n: no name, no time stamp).
#
# cmake -DHELP2MAN=<path> -DTOOL=<program> [-DEMULATOR=<cmd|args...>] -DNAME=<one-line description>
#       -DWORK=<scratch dir> -DOUT=<page.1.gz> -P KavrelManPage.cmake
#
# help2man runs the program by its name, so it runs a small wrapper named like
# the tool that starts the program (under the emulator in a cross build).

string(REPLACE "|" ";" EMULATOR "${EMULATOR}")   # a list, passed with | between its words
get_filename_component(tool_name "${TOOL}" NAME)
file(MAKE_DIRECTORY "${WORK}")
set(wrapper "${WORK}/${tool_name}")
set(command "")
foreach(word IN LISTS EMULATOR ITEMS "${TOOL}")
  string(APPEND command " '${word}'")
endforeach()
file(WRITE "${wrapper}" "#!/bin/sh\nQT_QPA_PLATFORM=offscreen LC_ALL=C.UTF-8 exec${command} \"$@\"\n")
execute_process(COMMAND chmod 755 "${wrapper}" COMMAND_ERROR_IS_FATAL ANY)

get_filename_component(page "${OUT}" NAME_WLE)
execute_process(
  COMMAND "${HELP2MAN}" --no-info --no-discard-stderr --section=1 --source=Kavrel "--manual=User Commands"
          "--name=${NAME}" --output=${WORK}/${page} "${wrapper}"
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "help2man failed for ${tool_name}")
endif()
execute_process(COMMAND gzip -9nf "${WORK}/${page}" COMMAND_ERROR_IS_FATAL ANY)
file(RENAME "${WORK}/${page}.gz" "${OUT}")
