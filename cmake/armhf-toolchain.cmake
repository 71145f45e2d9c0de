# Cross-building for the device: 32-bit ARMv7 hard-float Debian (armhf).
# The sysroot comes from scripts/armhf-sysroot.sh; UD_ARMHF_SYSROOT in the
# environment points elsewhere. The environment, not a -D variable, because
# try_compile projects read this file again and see only the environment.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

if(DEFINED ENV{UD_ARMHF_SYSROOT})
  set(UD_ARMHF_SYSROOT "$ENV{UD_ARMHF_SYSROOT}")
else()
  get_filename_component(UD_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" ABSOLUTE)
endif()
if(NOT EXISTS "${UD_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
  message(FATAL_ERROR "No armhf sysroot at ${UD_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh")
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_AR arm-linux-gnueabihf-ar)
set(CMAKE_RANLIB arm-linux-gnueabihf-ranlib)
set(CMAKE_STRIP arm-linux-gnueabihf-strip)
set(CMAKE_SYSROOT "${UD_ARMHF_SYSROOT}")
# gcc notes that the ABI for passing some structures changed in GCC 7.1; we
# build everything with one compiler, so the note tells us nothing.
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
set(CMAKE_FIND_ROOT_PATH "${UD_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_LIBDIR}
  "${UD_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${UD_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${UD_ARMHF_SYSROOT}")

# ctest runs every test program through the emulator; no binfmt is needed.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L "${UD_ARMHF_SYSROOT}")

# A project built against an installed tree outside the sysroot names it here.
if(UD_EXTRA_FIND_ROOT)
  list(APPEND CMAKE_FIND_ROOT_PATH "${UD_EXTRA_FIND_ROOT}")
endif()
