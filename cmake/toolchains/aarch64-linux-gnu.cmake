# Cross-builds for 64-bit ARM Linux with Debian's g++-aarch64-linux-gnu, so that the library and
# its suites are checked on the architecture of the devices. The suites run under qemu-aarch64,
# which loads the target's C library and C++ runtime from PELK_AARCH64_ROOT.
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
# tools/test-arm64.sh does this, GoogleTest for the target included.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Debian's cross compilers find their headers and libraries here by themselves; it is not a
# sysroot in CMake's sense (no usr/ inside), so it is only a search root.
set(PELK_AARCH64_ROOT /usr/aarch64-linux-gnu)
list(APPEND CMAKE_FIND_ROOT_PATH ${PELK_AARCH64_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${PELK_AARCH64_ROOT})
