# SPDX-License-Identifier: LGPL-2.1-or-later
# Install layout and Debian packages.
#
# Included at the end of the top-level CMakeLists.txt, after every target
# exists. Components, one Debian package each:
#   runtime  libkavrel1          libKavrel.so.1 and the dialog translations
#   dev      libkavrel-dev       headers, libKavrel.so, CMake package, kavrel.pc,
#                                the API reference (HTML, made by Doxygen)
#   tools    kavrel-tools        the host programs in tools/ and their manual
#                                pages (made by help2man from their --help)
#   sim      kavrel-camera-sim   the simulated camera, <libdir>/kavrel/sim/libtorvane.so
# Each package carries the Debian copyright file and changelog in
# share/doc/<package>.
#
# The simulated camera never goes where the loader looks by default, so it can
# never stand in for a vendor's /usr/lib/libtorvane.so behind a host's back.
# The tools carry a RUNPATH that finds it; any other program gets it with
# LD_LIBRARY_PATH=<libdir>/kavrel/sim.
#
# Packages: configure with -DCMAKE_INSTALL_PREFIX=/usr, build, then
# `cpack -G DEB` (or `cmake --build . --target package`) in the build tree.
#
# KAVREL_DOCS: AUTO (default) makes the manual pages and the API reference
# when help2man and Doxygen are installed, ON requires them (the package
# scripts set it), OFF leaves them out.
set(KAVREL_DOCS AUTO CACHE STRING "Manual pages and API reference: AUTO, ON or OFF")
set_property(CACHE KAVREL_DOCS PROPERTY STRINGS AUTO ON OFF)
set(KAVREL_DEB_MAINTAINER "Kavrel developers <kavrel-devel@example.org>" CACHE STRING
    "Maintainer of the Debian packages, \"Name <address>\"")

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KAVREL_SIM_LIBDIR "${CMAKE_INSTALL_LIBDIR}/kavrel/sim")
set(KAVREL_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Kavrel")

# --- the library -----------------------------------------------------------
install(TARGETS Kavrel
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)

# The host interface's headers, and only those: the internal ones (kernels,
# SDK gate, text fields) stay in the source tree. Sources include them as
# "api/interface.h" etc., so the install keeps the subfolders under
# include/kavrel.
set(KAVREL_PUBLIC_HEADERS
  api/interface.h
  api/kavrelexport.h
  api/kavrel.h
  camera/ccdif.h
  camera/ccdwebcam.h
  imaging/globalfunction.h
  dialog/webcamconfigdlg.h
  dialog/webcamcfgviewform.h
  sdk/torvane.h)
foreach(header IN LISTS KAVREL_PUBLIC_HEADERS)
  get_filename_component(subdir "${header}" DIRECTORY)
  install(FILES "${PROJECT_SOURCE_DIR}/${header}"
          DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/kavrel/${subdir}" COMPONENT dev)
endforeach()

# --- CMake package: find_package(Kavrel) gives Kavrel::Kavrel ---------------
get_target_property(_kavrel_version Kavrel VERSION)
get_target_property(_kavrel_soversion Kavrel SOVERSION)
set(KAVREL_SONAME "libKavrel.so.${_kavrel_soversion}")
set(KAVREL_LIBRARY_PATH "${CMAKE_INSTALL_LIBDIR}/libKavrel.so.${_kavrel_version}")
set(KAVREL_INCLUDE_DIR "${CMAKE_INSTALL_INCLUDEDIR}/kavrel")
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/KavrelConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/KavrelConfig.cmake"
  INSTALL_DESTINATION "${KAVREL_CMAKE_DIR}"
  PATH_VARS KAVREL_LIBRARY_PATH KAVREL_INCLUDE_DIR KAVREL_SIM_LIBDIR)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/KavrelConfigVersion.cmake"
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/KavrelConfig.cmake" "${PROJECT_BINARY_DIR}/KavrelConfigVersion.cmake"
        DESTINATION "${KAVREL_CMAKE_DIR}" COMPONENT dev)

# --- pkg-config --------------------------------------------------------------
# kavrel.pc finds its prefix from its own place (${pcfiledir}), so a tree
# installed with `cmake --install <build> --prefix <dir>` or copied elsewhere
# needs no editing, and PKG_CONFIG_SYSROOT_DIR still works for cross builds.
# Libs carry an -rpath-link to the simulated camera's folder, where the linker
# then finds the libtorvane.so that libKavrel needs when no vendor library is
# installed (a folder that does not exist costs nothing); simdir names that
# folder for LD_LIBRARY_PATH. -fPIC, without which Qt's headers refuse to
# compile, is the host's to give: Debian does not allow it in Cflags.
set(KAVREL_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
set(KAVREL_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  # Set apart from the prefix on purpose: keep the absolute paths.
  set(KAVREL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(KAVREL_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(KAVREL_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
  file(RELATIVE_PATH _kavrel_pc_up "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" _kavrel_pc_up "${_kavrel_pc_up}")
  set(KAVREL_PC_PREFIX "\${pcfiledir}/${_kavrel_pc_up}")
  set(KAVREL_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(KAVREL_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file("${CMAKE_CURRENT_LIST_DIR}/kavrel.pc.in" "${PROJECT_BINARY_DIR}/kavrel.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/kavrel.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)

# --- simulated camera ----------------------------------------------------------
if(KAVREL_HAVE_SIMULATOR AND TARGET torvane)
  install(TARGETS torvane LIBRARY DESTINATION "${KAVREL_SIM_LIBDIR}" COMPONENT sim)
endif()

# --- tools -----------------------------------------------------------------------
# Each program in tools/ installs itself with kavrel_install_tool()
# (cmake/KavrelTools.cmake), which also lists it here.
get_property(KAVREL_TOOLS GLOBAL PROPERTY KAVREL_TOOLS)

# --- manual pages of the tools -------------------------------------------------------
# Made by help2man from each tool's --help and --version, so the page says what
# the program says. In a cross build the tools run under the emulator.
set(KAVREL_TOOL_SUMMARY_kavrel-grab "grab frames from the Main and the Slaver camera through libKavrel")
set(KAVREL_TOOL_SUMMARY_kavrel-viewer "show the Main and the Slaver camera live and open their configuration dialogs")
if(KAVREL_TOOLS AND NOT KAVREL_DOCS STREQUAL "OFF")
  find_program(KAVREL_HELP2MAN help2man)
  if(NOT KAVREL_HELP2MAN AND KAVREL_DOCS STREQUAL "ON")
    message(FATAL_ERROR "KAVREL_DOCS=ON needs help2man (apt-get install help2man)")
  elseif(NOT KAVREL_HELP2MAN)
    message(STATUS "No manual pages for the tools (help2man is not installed)")
  else()
    string(REPLACE ";" "|" _kavrel_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
    set(_kavrel_pages "")
    foreach(tool IN LISTS KAVREL_TOOLS)
      set(summary "${KAVREL_TOOL_SUMMARY_${tool}}")
      if(NOT summary)
        set(summary "a Kavrel host program")
      endif()
      set(page "${PROJECT_BINARY_DIR}/man/${tool}.1.gz")
      add_custom_command(OUTPUT "${page}"
        COMMAND ${CMAKE_COMMAND} -DHELP2MAN=${KAVREL_HELP2MAN} -DTOOL=$<TARGET_FILE:${tool}>
                "-DEMULATOR=${_kavrel_emulator}" "-DNAME=${summary}" -DWORK=${PROJECT_BINARY_DIR}/man/work
                -DOUT=${page} -P ${CMAKE_CURRENT_LIST_DIR}/KavrelManPage.cmake
        DEPENDS ${tool} ${CMAKE_CURRENT_LIST_DIR}/KavrelManPage.cmake
        COMMENT "Manual page of ${tool}"
        VERBATIM)
      list(APPEND _kavrel_pages "${page}")
    endforeach()
    add_custom_target(kavrel_manpages ALL DEPENDS ${_kavrel_pages})
    install(FILES ${_kavrel_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  endif()
endif()

# --- API reference -------------------------------------------------------------------
# Doxygen makes HTML from the public headers' comments; libkavrel-dev installs it.
if(NOT KAVREL_DOCS STREQUAL "OFF")
  find_package(Doxygen QUIET)
  if(NOT DOXYGEN_FOUND AND KAVREL_DOCS STREQUAL "ON")
    message(FATAL_ERROR "KAVREL_DOCS=ON needs Doxygen (apt-get install doxygen)")
  elseif(NOT DOXYGEN_FOUND)
    message(STATUS "No API reference (Doxygen is not installed)")
  else()
    set(KAVREL_DOXYGEN_INPUT "${PROJECT_SOURCE_DIR}/docs/api.md")
    foreach(header IN LISTS KAVREL_PUBLIC_HEADERS)
      string(APPEND KAVREL_DOXYGEN_INPUT " ${PROJECT_SOURCE_DIR}/${header}")
    endforeach()
    set(KAVREL_DOXYGEN_OUTPUT "${PROJECT_BINARY_DIR}/apidoc")
    configure_file("${PROJECT_SOURCE_DIR}/docs/Doxyfile.in" "${PROJECT_BINARY_DIR}/Doxyfile" @ONLY)
    list(TRANSFORM KAVREL_PUBLIC_HEADERS PREPEND "${PROJECT_SOURCE_DIR}/" OUTPUT_VARIABLE _kavrel_header_paths)
    add_custom_command(OUTPUT "${KAVREL_DOXYGEN_OUTPUT}/html/index.html"
      COMMAND ${CMAKE_COMMAND} -E rm -rf "${KAVREL_DOXYGEN_OUTPUT}/html"
      COMMAND Doxygen::doxygen "${PROJECT_BINARY_DIR}/Doxyfile"
      DEPENDS ${_kavrel_header_paths} "${PROJECT_SOURCE_DIR}/docs/api.md" "${PROJECT_SOURCE_DIR}/docs/Doxyfile.in"
      COMMENT "API reference (Doxygen)"
      VERBATIM)
    add_custom_target(kavrel_api_reference ALL DEPENDS "${KAVREL_DOXYGEN_OUTPUT}/html/index.html")
    install(DIRECTORY "${KAVREL_DOXYGEN_OUTPUT}/html/"
            DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/libkavrel-dev/html" COMPONENT dev)
  endif()
endif()

# --- Debian packages -------------------------------------------------------------
# The Debian architecture follows the compiler's target, not the build machine.
if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
  set(_kavrel_deb_arch armhf)
elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "x86_64-linux-gnu")
  set(_kavrel_deb_arch amd64)
elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "aarch64-linux-gnu")
  set(_kavrel_deb_arch arm64)
else()
  execute_process(COMMAND dpkg --print-architecture
                  OUTPUT_VARIABLE _kavrel_deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
set(KAVREL_DEB_ARCH "${_kavrel_deb_arch}" CACHE STRING "Debian architecture of the packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kavrel)
set(CPACK_PACKAGE_VENDOR "Kavrel developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KAVREL_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KAVREL_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# Each description: first line the synopsis, then the long text.
# Install rules without a component (the dialog translations) belong with the
# library; each group below is one package.
set(CPACK_COMPONENTS_ALL runtime Unspecified dev tools)
if(KAVREL_HAVE_SIMULATOR)
  list(APPEND CPACK_COMPONENTS_ALL sim)
endif()
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENT_RUNTIME_GROUP runtime)
set(CPACK_COMPONENT_UNSPECIFIED_GROUP runtime)
set(CPACK_COMPONENT_DEV_GROUP dev)
set(CPACK_COMPONENT_TOOLS_GROUP tools)
set(CPACK_COMPONENT_SIM_GROUP sim)

# dpkg-shlibdeps cannot see the armhf libraries' package data in a sysroot, and
# it rejects libtorvane.so (no package owns the vendor's library), so the
# dependencies are stated by hand; they are the same on every architecture.
set(_kavrel_deb_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(_kavrel_deb_cxx "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12)")
set(_kavrel_deb_qt "libqt5core5a (>= 5.15.1), libqt5gui5 (>= 5.15.1) | libqt5gui5-gles (>= 5.15.1), libqt5widgets5 (>= 5.15.1)")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkavrel1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${_kavrel_deb_cxx}, ${_kavrel_deb_qt}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "kavrel-camera-sim")
# The configuration dialog's own texts are Chinese: without a CJK font every
# label is an empty box. The first is small; either will do.
set(_kavrel_deb_cjk_font "fonts-wqy-microhei | fonts-noto-cjk")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "${_kavrel_deb_cjk_font}")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"Two-camera acquisition library for Qt 5 hosts
libKavrel.so.1 drives the Main and Slaver cameras through the camera
vendor's SDK (libtorvane.so, not part of this package) and hands their
frames to the host as grey or 24-bit colour images.")

# ldconfig refreshes its cache after install/removal, and shlibs lets other
# packages' dpkg-shlibdeps map libKavrel.so.1 to this package.
file(WRITE "${PROJECT_BINARY_DIR}/deb/runtime/triggers" "activate-noawait ldconfig\n")
file(WRITE "${PROJECT_BINARY_DIR}/deb/runtime/shlibs"
     "libKavrel ${_kavrel_soversion} libkavrel1 (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${PROJECT_BINARY_DIR}/deb/runtime/triggers;${PROJECT_BINARY_DIR}/deb/runtime/shlibs")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkavrel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libkavrel1 (= ${_kavrel_deb_version}), qtbase5-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"Development files for libKavrel
Headers under include/kavrel, the CMake package Kavrel (target
Kavrel::Kavrel), the pkg-config module kavrel and the API reference
in /usr/share/doc/libkavrel-dev/html.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kavrel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkavrel1 (= ${_kavrel_deb_version}), ${_kavrel_deb_cxx}, ${_kavrel_deb_qt}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "kavrel-camera-sim")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "${_kavrel_deb_cjk_font}")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"Programs that grab and show frames through libKavrel
They use the simulated camera while kavrel-camera-sim is installed, and
the vendor's libtorvane.so otherwise.")

set(CPACK_DEBIAN_SIM_PACKAGE_NAME kavrel-camera-sim)
set(CPACK_DEBIAN_SIM_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_SIM_PACKAGE_DEPENDS "${_kavrel_deb_cxx}")
set(CPACK_DEBIAN_SIM_DESCRIPTION
"Simulated camera in place of the vendor's camera SDK
A stand-in libtorvane.so that produces test-pattern frames, installed in
a private folder (lib/<arch>/kavrel/sim) where it never replaces the
vendor's library. Programs use it with LD_LIBRARY_PATH set to that
folder; the kavrel-tools programs find it by themselves.")

include(${CMAKE_CURRENT_LIST_DIR}/KavrelV4l2Package.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/KavrelGstPackage.cmake)

# Copyright file and changelog in share/doc/<package> of every package.
set(KAVREL_COPYRIGHT_YEARS 2026)
set(KAVREL_DEB_VERSION "${_kavrel_deb_version}")
set(KAVREL_DEB_DATE "Mon, 23 Nov 2026 20:00:00 +0000")
configure_file("${CMAKE_CURRENT_LIST_DIR}/debian/copyright.in" "${PROJECT_BINARY_DIR}/deb/copyright" @ONLY)
configure_file("${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in" "${PROJECT_BINARY_DIR}/deb/changelog.Debian" @ONLY)
execute_process(COMMAND gzip -9nc "${PROJECT_BINARY_DIR}/deb/changelog.Debian"
                OUTPUT_FILE "${PROJECT_BINARY_DIR}/deb/changelog.Debian.gz" COMMAND_ERROR_IS_FATAL ANY)
# These packages are not uploaded to Debian, so their first changelog entry
# closes no "intent to package" bug; each says so in a lintian override.
set(_kavrel_packaged ${CPACK_COMPONENTS_ALL})
list(REMOVE_ITEM _kavrel_packaged Unspecified)
foreach(component IN LISTS _kavrel_packaged)
  string(TOUPPER "${component}" _kavrel_upper)
  set(_kavrel_package "${CPACK_DEBIAN_${_kavrel_upper}_PACKAGE_NAME}")
  install(FILES "${PROJECT_BINARY_DIR}/deb/copyright" "${PROJECT_BINARY_DIR}/deb/changelog.Debian.gz"
          DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${_kavrel_package}" COMPONENT ${component})
  file(WRITE "${PROJECT_BINARY_DIR}/deb/lintian/${_kavrel_package}"
       "# Not uploaded to Debian: there is no ITP bug to close.\n"
       "${_kavrel_package}: initial-upload-closes-no-bugs\n")
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    install(FILES "${PROJECT_BINARY_DIR}/deb/lintian/${_kavrel_package}"
            DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" COMPONENT ${component})
  endif()
endforeach()

include(CPack)
