# 64-bit ARM with Debian's cross compiler (crossbuild-essential-arm64) and the
# target's libraries installed as multiarch :arm64 packages on the build host.
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Multiarch libraries share / with the host's: search only the arm64 paths
# for libraries and packages, never run a found program for the target.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# `-L /` on purpose: the multiarch libc6:arm64 puts its loader at
# /lib/ld-linux-aarch64.so.1. Pairing the cross toolchain's own libc
# (/usr/aarch64-linux-gnu) with the multiarch one hangs threaded programs.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /)
