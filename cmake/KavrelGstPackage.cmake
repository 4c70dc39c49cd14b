# SPDX-License-Identifier: LGPL-2.1-or-later
# The GStreamer plugin (gstreamer/) as its own Debian package,
# gstreamer1.0-kavrel: libgstkavrel.so in <libdir>/gstreamer-1.0, the folder
# GStreamer searches by itself, so gst-inspect-1.0 kavrelsrc finds it right
# after installing. The plugin needs a libtorvane.so to load: the simulated
# camera's (its RUNPATH finds it while kavrel-camera-sim is installed, hence
# the recommendation) or the vendor's in the loader's default path.
#
# Included from KavrelInstall.cmake after the other components are listed and
# before include(CPack).

if(NOT TARGET gstkavrel)
  return()
endif()

list(APPEND CPACK_COMPONENTS_ALL gstreamer)
set(CPACK_COMPONENT_GSTREAMER_GROUP gstreamer)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_NAME gstreamer1.0-kavrel)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SECTION video)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_DEPENDS
    "libkavrel1 (= ${_kavrel_deb_version}), ${_kavrel_deb_cxx}, ${_kavrel_deb_qt}, libglib2.0-0 (>= 2.74), libgstreamer1.0-0 (>= 1.22), libgstreamer-plugins-base1.0-0 (>= 1.22)")
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_RECOMMENDS "kavrel-camera-sim")
set(CPACK_DEBIAN_GSTREAMER_DESCRIPTION
"GStreamer source element for Kavrel cameras
The plugin libgstkavrel.so with the live source element kavrelsrc, which
delivers the frames of the Main or the Slaver camera of libKavrel as GRAY8,
BGR or RGB video to any GStreamer pipeline: displays, encoders, network
streams and OpenCV's GStreamer capture. gst-inspect-1.0 kavrelsrc lists
its properties.")
