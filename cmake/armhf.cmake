# Cross build for the phone's 32-bit ARM processor (Debian armhf) against a sysroot made by
# scripts/armhf-sysroot.sh:
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake -DARMHF_SYSROOT=DIR
# The test programs run under the user-mode emulator with the sysroot as its library root, so test
# discovery and ctest work on the build machine without any machine-wide emulator registration.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

# try_compile projects load this file again: hand them the sysroot too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ARMHF_SYSROOT)
if(NOT ARMHF_SYSROOT AND DEFINED ENV{ARMHF_SYSROOT})
  set(ARMHF_SYSROOT "$ENV{ARMHF_SYSROOT}")
endif()
if(NOT ARMHF_SYSROOT OR NOT EXISTS "${ARMHF_SYSROOT}/usr/include")
  message(FATAL_ERROR "ARMHF_SYSROOT must name a sysroot made by scripts/armhf-sysroot.sh")
endif()
get_filename_component(ARMHF_SYSROOT "${ARMHF_SYSROOT}" ABSOLUTE)

set(ARMHF_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ARMHF_TRIPLET}-g++)
set(CMAKE_SYSROOT "${ARMHF_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE ${ARMHF_TRIPLET})

# Libraries, headers and package files only from the sysroot; programs (pkg-config) from the host.
set(CMAKE_FIND_ROOT_PATH "${ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ARMHF_SYSROOT}/usr/lib/${ARMHF_TRIPLET}/pkgconfig:${ARMHF_SYSROOT}/usr/share/pkgconfig")

find_program(ARMHF_QEMU qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${ARMHF_QEMU};-L;${ARMHF_SYSROOT}")
