# Cross-build for 64-bit Arm Linux (aarch64-linux-gnu) on a Debian host.
#
#   scripts/setup-deps.sh --arm
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake
#
# Compiler: Debian's g++-aarch64-linux-gnu. Libraries (FFTW, iniparser,
# GoogleTest, libgomp) come from Debian's arm64 multiarch packages, installed
# beside the host's under /usr/lib/aarch64-linux-gnu and /usr/include.
# Binaries run on the host through qemu-aarch64 (user mode); the dynamic
# loader and libraries it needs are the multiarch ones in /lib and /usr/lib.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(AKUDOA_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${AKUDOA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${AKUDOA_CROSS_TRIPLE}-g++)

# Multiarch: headers are shared with the host in /usr/include, libraries sit in
# the triple's subfolder. Searching the host root with the library architecture
# set finds /usr/lib/aarch64-linux-gnu/libiniparser.so and never the x86_64
# copy; programs (pkg-config, code generators) are the host's.
set(CMAKE_LIBRARY_ARCHITECTURE ${AKUDOA_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH /usr/${AKUDOA_CROSS_TRIPLE} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The plain pkg-config reports the x86_64 FFTW; the triple-prefixed one
# (from pkgconf:arm64) searches the arm64 .pc files only.
set(PKG_CONFIG_EXECUTABLE ${AKUDOA_CROSS_TRIPLE}-pkg-config CACHE FILEPATH "pkg-config for the target")

# ctest and gtest_discover_tests run test binaries through this. It must be a
# cache entry to reach try_run and the test-discovery scripts. qemu-aarch64
# is used without -L/QEMU_LD_PREFIX: with the cross sysroot as prefix the
# emulated program hangs when it creates its first thread; the multiarch
# loader /lib/ld-linux-aarch64.so.1 and libraries work. QEMU_CPU selects the
# emulated processor (e.g. cortex-a72 without, max with the dot product).
find_program(AKUDOA_QEMU_AARCH64 qemu-aarch64)
if(AKUDOA_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${AKUDOA_QEMU_AARCH64} CACHE FILEPATH "Runs target binaries on the build host")
endif()
