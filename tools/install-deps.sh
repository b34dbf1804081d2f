#!/usr/bin/env bash
# Installs the build and test tools that are missing (Debian/Ubuntu, as root or with sudo).
set -euo pipefail

need=()
command -v cmake >/dev/null 2>&1 || need+=(cmake)
command -v ninja >/dev/null 2>&1 || need+=(ninja-build)
command -v g++ >/dev/null 2>&1 || need+=(g++)
command -v clang++ >/dev/null 2>&1 || need+=(clang)
# libFuzzer's runtime, for tools/fuzz.sh.
compgen -G '/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a' >/dev/null || need+=(libclang-rt-dev)
command -v javac >/dev/null 2>&1 || need+=(openjdk-17-jdk-headless)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)

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
