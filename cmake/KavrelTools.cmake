# SPDX-License-Identifier: LGPL-2.1-or-later
# kavrel_install_tool(<target>): installs a host program into bindir (package
# kavrel-tools) and lists it in the global property KAVREL_TOOLS, from which
# cmake/KavrelInstall.cmake makes the manual pages. Included before tools/.
#
# The program's RUNPATH holds the simulated camera's folder, then libdir (for
# prefixes the loader does not search). A RUNPATH only serves the program's own
# DT_NEEDED entries, so the program also links libtorvane.so directly: the
# loader then finds it through the program's RUNPATH before libKavrel asks for
# it. With kavrel-camera-sim removed, that folder is gone and the loader falls
# back to the vendor's library in its default path; LD_LIBRARY_PATH still
# overrides either.
include(GNUInstallDirs)

file(RELATIVE_PATH _kavrel_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set(KAVREL_TOOL_RUNPATH "$ORIGIN/${_kavrel_bin_to_lib}/kavrel/sim:$ORIGIN/${_kavrel_bin_to_lib}")
set_property(GLOBAL PROPERTY KAVREL_TOOLS "")

function(kavrel_install_tool target)
  if(KAVREL_HAVE_SIMULATOR)
    set_property(TARGET ${target} PROPERTY INSTALL_RPATH "${KAVREL_TOOL_RUNPATH}")
    target_link_libraries(${target} PRIVATE Torvane::torvane)
    # Debian's toolchain does not default to --as-needed, but others do.
    target_link_options(${target} PRIVATE -Wl,--no-as-needed)
  endif()
  install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  set_property(GLOBAL APPEND PROPERTY KAVREL_TOOLS ${target})
endfunction()
