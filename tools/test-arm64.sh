#!/usr/bin/env bash
# Cross-builds the library and its test suites for aarch64 (Debian's g++-aarch64-linux-gnu, with
# GoogleTest built from its sources for the target) and runs the suites under qemu-aarch64.
#   tools/test-arm64.sh                      every suite but the soak, in build-arm64/
#   tools/test-arm64.sh --quick              only the quick suites
#   tools/test-arm64.sh -L 'quick|agent'     any ctest selection; each suite carries its own name
#                                            as a label, besides "quick" for the quick ones
# Some suites bind 127.0.0.1:20014: on a shared machine run this inside tools/isolated.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

selection=("$@")
if [ $# -eq 0 ]; then
  selection=(-LE '^soak$')
elif [ "$1" = "--quick" ]; then
  selection=(-L quick)
fi

tools/install-deps.sh --arm64

toolchain="$PWD/cmake/toolchains/aarch64-linux-gnu.cmake"
build_dir=build-arm64
googletest_dir="$PWD/build-arm64-googletest"
jobs=$(nproc)

if [ ! -f "$googletest_dir/install/lib/cmake/GTest/GTestConfig.cmake" ]; then
  cmake -S /usr/src/googletest -B "$googletest_dir/build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release -DBUILD_GMOCK=OFF \
    -DCMAKE_INSTALL_PREFIX="$googletest_dir/install" -DCMAKE_INSTALL_LIBDIR=lib
  cmake --build "$googletest_dir/build" --parallel "$jobs"
  cmake --install "$googletest_dir/build" >/dev/null
fi

if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  cmake -S . -B "$build_dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DPELK_BUILD_BENCH=OFF \
    -DPELK_WERROR="${PELK_WERROR:-OFF}" -DGTest_DIR="$googletest_dir/install/lib/cmake/GTest"
fi
cmake --build "$build_dir" --parallel "$jobs"
ctest --test-dir "$build_dir" "${selection[@]}" --output-on-failure --parallel "$jobs"
