#!/usr/bin/env bash
# Installs the build and test tools that are missing (Debian/Ubuntu, as root or with sudo).
#   tools/install-deps.sh          what the host build, its suites and benchmarks need
#   tools/install-deps.sh --arm64  also the aarch64 cross compiler, qemu-aarch64 and GoogleTest's
#                                  sources (tools/test-arm64.sh)
# Silent when nothing is missing.
set -euo pipefail

need=()
command -v cmake >/dev/null 2>&1 || need+=(cmake)
command -v ninja >/dev/null 2>&1 || need+=(ninja-build)
command -v g++ >/dev/null 2>&1 || need+=(g++)
command -v clang++ >/dev/null 2>&1 || need+=(clang)
# libFuzzer's runtime, for tools/fuzz.sh.
compgen -G '/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a' >/dev/null || need+=(libclang-rt-dev)
command -v javac >/dev/null 2>&1 || need+=(openjdk-17-jdk-headless)
# Shrinks the Java demo as an app's release build would (the java_demo_minified test).
command -v proguard >/dev/null 2>&1 || need+=(proguard)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
if [ "${1:-}" = "--arm64" ]; then
  command -v aarch64-linux-gnu-g++ >/dev/null 2>&1 || need+=(g++-aarch64-linux-gnu)
  command -v qemu-aarch64 >/dev/null 2>&1 || need+=(qemu-user)
  [ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest)
fi

if [ ${#need[@]} -eq 0 ]; then
  exit 0
fi
echo "installing: ${need[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update
"${sudo_cmd[@]}" apt-get install -y "${need[@]}"
