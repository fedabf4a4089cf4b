# Cross build for 64-bit Arm Linux with Debian's cross compilers
# (packages g++-aarch64-linux-gnu and binutils-aarch64-linux-gnu).
#
# Test programs run under qemu-user (package qemu-user): CMake prefixes every
# test command, and gtest discovery, with CMAKE_CROSSCOMPILING_EMULATOR, so
# `ctest` runs the whole arm64 suite on an x86-64 machine. The Arm C and C++
# runtimes come from /usr/aarch64-linux-gnu, which qemu uses as its root for
# the dynamic loader and shared libraries (qemu-aarch64 -L). qemu is started
# through cmake/qemu-aarch64-run so that a test program can execute itself
# again (death tests), which qemu-user alone cannot do.
#
#   cmake -S . -B build/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake
#   (or: cmake --preset arm64)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(QUORVIN_CROSS_TRIPLE aarch64-linux-gnu)
set(QUORVIN_CROSS_ROOT /usr/${QUORVIN_CROSS_TRIPLE})

find_program(QUORVIN_CROSS_CC ${QUORVIN_CROSS_TRIPLE}-gcc REQUIRED)
find_program(QUORVIN_CROSS_CXX ${QUORVIN_CROSS_TRIPLE}-g++ REQUIRED)
set(CMAKE_C_COMPILER ${QUORVIN_CROSS_CC})
set(CMAKE_CXX_COMPILER ${QUORVIN_CROSS_CXX})

# CMake would derive these from the compiler's name as well; they are set here
# so that nothing can fall back to the host's tools (the symbol-table test runs
# ${CMAKE_NM} on the Arm library).
foreach(tool NM AR RANLIB OBJDUMP OBJCOPY READELF STRIP)
  string(TOLOWER ${tool} program)
  find_program(QUORVIN_CROSS_${tool} ${QUORVIN_CROSS_TRIPLE}-${program} REQUIRED)
  set(CMAKE_${tool} ${QUORVIN_CROSS_${tool}} CACHE FILEPATH "" FORCE)
endforeach()

find_program(QUORVIN_QEMU qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
    ${CMAKE_CURRENT_LIST_DIR}/qemu-aarch64-run ${QUORVIN_QEMU} ${QUORVIN_CROSS_ROOT})

# Libraries and headers come from the Arm root only; programs from the host.
set(CMAKE_FIND_ROOT_PATH ${QUORVIN_CROSS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
