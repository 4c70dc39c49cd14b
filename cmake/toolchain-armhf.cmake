# SPDX-License-Identifier: LGPL-2.1-or-later
# Cross build for 32-bit ARM hard-float Linux (Debian armhf) from an x86-64
# Debian machine.
#
# Needs: crossbuild-essential-armhf (arm-linux-gnueabihf-gcc/g++), the build
# machine's Qt code generators (qtbase5-dev-tools), qemu-user for running
# tests, and a sysroot made by scripts/armhf-sysroot.sh. scripts/cross-armhf.sh
# installs all of that and drives the whole build.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         [-DKAVREL_ARMHF_SYSROOT=/path/to/sysroot] [-DKAVREL_ARMHF_NEON=ON]
#
# KAVREL_ARMHF_SYSROOT  sysroot path (also read from the environment); default
#                       the cache path that scripts/armhf-sysroot.sh uses.
# KAVREL_ARMHF_NEON     ON: compile for NEON-capable cores (-mfpu=neon).
#                       OFF (default): the Debian armhf baseline, ARMv7-A with
#                       VFPv3-D16, which runs on every armhf device.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# try_compile projects read this file again: hand them our settings.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KAVREL_ARMHF_SYSROOT KAVREL_ARMHF_NEON)

if(NOT KAVREL_ARMHF_SYSROOT)
  if(DEFINED ENV{KAVREL_ARMHF_SYSROOT} AND NOT "$ENV{KAVREL_ARMHF_SYSROOT}" STREQUAL "")
    set(_kavrel_sysroot "$ENV{KAVREL_ARMHF_SYSROOT}")
  else()
    if(DEFINED ENV{KAVREL_CACHE_DIR} AND NOT "$ENV{KAVREL_CACHE_DIR}" STREQUAL "")
      set(_kavrel_cache "$ENV{KAVREL_CACHE_DIR}")
    elseif(DEFINED ENV{XDG_CACHE_HOME} AND NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
      set(_kavrel_cache "$ENV{XDG_CACHE_HOME}/kavrel")
    else()
      set(_kavrel_cache "$ENV{HOME}/.cache/kavrel")
    endif()
    set(_kavrel_sysroot "${_kavrel_cache}/sysroot-armhf-bookworm")
  endif()
  set(KAVREL_ARMHF_SYSROOT "${_kavrel_sysroot}" CACHE PATH "armhf sysroot (made by scripts/armhf-sysroot.sh)")
endif()
if(NOT EXISTS "${KAVREL_ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf")
  message(FATAL_ERROR "No armhf sysroot at ${KAVREL_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh "
                      "or set KAVREL_ARMHF_SYSROOT")
endif()
option(KAVREL_ARMHF_NEON "Compile for NEON-capable ARMv7-A cores" OFF)

set(_kavrel_triplet arm-linux-gnueabihf)
find_program(CMAKE_C_COMPILER ${_kavrel_triplet}-gcc)
find_program(CMAKE_CXX_COMPILER ${_kavrel_triplet}-g++)
if(NOT CMAKE_C_COMPILER OR NOT CMAKE_CXX_COMPILER)
  message(FATAL_ERROR "${_kavrel_triplet}-gcc/g++ not found: apt-get install crossbuild-essential-armhf")
endif()

set(CMAKE_SYSROOT "${KAVREL_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${KAVREL_ARMHF_SYSROOT}")
# Programs (moc, uic, pkg-config, qemu) are the build machine's; everything
# compiled or linked against comes from the sysroot only.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -mthumb matches Debian's own armhf packages; -mfpu=vfpv3-d16 is the baseline
# FPU, so nothing may touch d16-d31 or NEON unless the NEON build is asked for
# (gcc then defines __ARM_NEON, which guards the NEON kernels).
if(KAVREL_ARMHF_NEON)
  set(_kavrel_arch_flags "-march=armv7-a -mfpu=neon -mfloat-abi=hard -mthumb")
else()
  set(_kavrel_arch_flags "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -mthumb")
endif()
set(CMAKE_C_FLAGS_INIT "${_kavrel_arch_flags}")
set(CMAKE_CXX_FLAGS_INIT "${_kavrel_arch_flags}")
# The _INIT flags only seed a new build tree: a changed KAVREL_ARMHF_NEON in
# an existing one would silently keep the old FPU.
if(DEFINED CACHE{CMAKE_CXX_FLAGS})
  string(REGEX MATCH "-mfpu=[^ ]+" _kavrel_want_fpu "${_kavrel_arch_flags}")
  if(NOT CMAKE_CXX_FLAGS MATCHES "${_kavrel_want_fpu}( |$)")
    message(FATAL_ERROR "This build tree was configured with other FPU flags (${CMAKE_CXX_FLAGS}); "
                        "use a new build directory for KAVREL_ARMHF_NEON=${KAVREL_ARMHF_NEON}")
  endif()
endif()

# GNUInstallDirs picks Debian's multiarch libdir only for native builds; the
# packages need the same layout as Debian's own armhf libraries.
set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH "Object code libraries (lib/<multiarch>)")

# pkg-config: the sysroot's .pc files, with their paths moved into it.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KAVREL_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${KAVREL_ARMHF_SYSROOT}/usr/lib/${_kavrel_triplet}/pkgconfig:${KAVREL_ARMHF_SYSROOT}/usr/lib/pkgconfig:${KAVREL_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Tests and gtest discovery run armhf programs under user-mode emulation; -L
# makes the sysroot the root for the dynamic loader and Qt's plugins.
find_program(KAVREL_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(KAVREL_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${KAVREL_QEMU_ARM};-L;${KAVREL_ARMHF_SYSROOT}")
else()
  message(WARNING "qemu-arm not found (apt-get install qemu-user): armhf tests cannot run here")
endif()

# Qt's CMake files in the sysroot name moc/uic/rcc inside it; the sysroot
# script links those to the build machine's own generators. Check they run.
foreach(_kavrel_tool moc uic rcc)
  if(NOT EXISTS "${KAVREL_ARMHF_SYSROOT}/usr/lib/qt5/bin/${_kavrel_tool}")
    message(FATAL_ERROR "${KAVREL_ARMHF_SYSROOT}/usr/lib/qt5/bin/${_kavrel_tool} does not exist: "
                        "install qtbase5-dev-tools on this machine and rerun scripts/armhf-sysroot.sh")
  endif()
endforeach()
