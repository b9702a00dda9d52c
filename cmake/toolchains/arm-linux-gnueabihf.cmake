# 32-bit ARM (hard float) with Debian's cross compiler and a sysroot made of
# :armhf packages unpacked with dpkg -x (scripts/cross builds one), so that
# armhf never has to be a foreign architecture of the build host's dpkg.
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake \
#         -DFWU_ARMHF_SYSROOT=/path/to/sysroot
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT FWU_ARMHF_SYSROOT)
  if(DEFINED ENV{FWU_ARMHF_SYSROOT})
    set(FWU_ARMHF_SYSROOT "$ENV{FWU_ARMHF_SYSROOT}")
  else()
    get_filename_component(FWU_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build-sysroot-armhf" ABSOLUTE)
  endif()
endif()
if(NOT EXISTS "${FWU_ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf")
  message(FATAL_ERROR "no armhf sysroot at ${FWU_ARMHF_SYSROOT} (scripts/cross armhf makes one)")
endif()
# try_compile projects read this file again and need the same root.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FWU_ARMHF_SYSROOT)

set(CMAKE_SYSROOT "${FWU_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${FWU_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${FWU_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${FWU_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${FWU_ARMHF_SYSROOT}/usr/share/pkgconfig")

# g++ notes that the argument-passing ABI of some types changed in GCC 7;
# nothing here links against code built before that.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Loader and libc both come from the sysroot's libc6:armhf, never from the
# cross toolchain's own copy.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${FWU_ARMHF_SYSROOT}")
