# SPDX-License-Identifier: LGPL-2.1-or-later
# The V4L2 camera (sdk/v4l2) as its own Debian package, kavrel-camera-v4l2:
# its libtorvane.so goes to <libdir>/kavrel/v4l2, a private folder where the
# loader never finds it by itself, so it can never hide the vendor's
# /usr/lib/libtorvane.so. Hosts pick it with
#   LD_LIBRARY_PATH=<libdir>/kavrel/v4l2
# and the tools with --camera v4l2.
#
# Included from KavrelInstall.cmake after the other components are listed and
# before include(CPack).

if(NOT TARGET torvane_v4l2)
  return()
endif()

set(KAVREL_V4L2_LIBDIR "${CMAKE_INSTALL_LIBDIR}/kavrel/v4l2")
install(TARGETS torvane_v4l2 LIBRARY DESTINATION "${KAVREL_V4L2_LIBDIR}" COMPONENT v4l2)

list(APPEND CPACK_COMPONENTS_ALL v4l2)
set(CPACK_COMPONENT_V4L2_GROUP v4l2)
set(CPACK_DEBIAN_V4L2_PACKAGE_NAME kavrel-camera-v4l2)
set(CPACK_DEBIAN_V4L2_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_V4L2_PACKAGE_DEPENDS "${_kavrel_deb_cxx}, libv4lconvert0 (>= 1.22)")
set(CPACK_DEBIAN_V4L2_DESCRIPTION
"Video4Linux2 camera in place of the vendor's camera SDK
A libtorvane.so that drives a V4L2 capture device (a USB webcam, or any
other video capture device) for libKavrel, installed in a private folder
(lib/<arch>/kavrel/v4l2) where it never replaces the vendor's library.
Programs use it with LD_LIBRARY_PATH set to that folder; the kavrel-tools
programs with --camera v4l2.")
string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS ", kavrel-camera-v4l2")
