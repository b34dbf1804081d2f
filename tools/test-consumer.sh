#!/usr/bin/env bash
# Builds tests/consumer, a project of its own on libPELKAgent, in the three ways a project takes
# the library, and runs each build's two programs (on the shared and on the static library)
# against pelk-emulator; each must register and hear the service report it back.
#   add_subdirectory of this tree, with no JDK, GoogleTest or Google Benchmark to be found
#   FetchContent of this tree
#   find_package after cmake --install of the plain build (build/) into a temporary prefix
# The plain build is made first if needed (tools/test.sh --build-only). Binds 127.0.0.1:20014:
# run it in tools/isolated.sh beside other users.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
build="$root/build"
demo_name="test-consumer"
source tools/lib/demo-common.sh

generator=()
if command -v ninja >/dev/null 2>&1; then
  generator=(-G Ninja)
fi
# The user's own strict warnings apply to our public headers too.
consumer_flags=(-DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror")
# A user without our development tools: the finds of this tree must not need them.
no_dev_tools=(-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON)

# consume NAME CMAKE_ARGS...: configures and builds tests/consumer in $work/NAME.
consume() {
  local name=$1
  shift
  echo "== $name"
  cmake -S tests/consumer -B "$work/$name" "${generator[@]}" "${consumer_flags[@]}" "$@" \
    >"$work/$name.log" 2>&1 || fail "$name: configuring failed"
  cmake --build "$work/$name" --parallel "$(nproc)" >>"$work/$name.log" 2>&1 || fail "$name: building failed"
}

PELK_SANITIZER= tools/test.sh --build-only
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

libdir=$(find "$prefix" -name libPELKAgent.so -printf '%h\n')
for installed in "$libdir/libPELKAgent.so" "$libdir/libPELKAgentStatic.a" \
  "$prefix/share/java/PELKAgent.jar" "$prefix/include/PELKAgent/ActionAgent.h" \
  "$libdir/cmake/PELKAgent/PELKAgentConfigVersion.cmake"; do
  [ -f "$installed" ] || fail "not installed: ${installed#"$prefix"/}"
done
if find "$prefix/include" -name LogSink.h -o -name TransferClient.h | grep -q .; then
  fail "installed headers that are not for users"
fi
if readelf -d "$libdir/libPELKAgent.so" | grep -q 'NEEDED.*libstdc++'; then
  fail "the installed libPELKAgent.so needs libstdc++.so instead of carrying its runtime"
fi

consume subdirectory -DPELK_CONSUME=subdirectory -DPELK_SOURCE_DIR="$root" "${no_dev_tools[@]}" \
  -DCMAKE_DISABLE_FIND_PACKAGE_Java=ON
consume fetchcontent -DPELK_CONSUME=fetchcontent -DPELK_SOURCE_DIR="$root" "${no_dev_tools[@]}"
[ -f "$work/fetchcontent/_deps/pelkagent-build/PELKAgent.jar" ] || fail "fetchcontent: no PELKAgent.jar with a JDK"
consume package -DPELK_CONSUME=package -DCMAKE_PREFIX_PATH="$prefix"

"$build/emulator/pelk-emulator" >/dev/null 2>"$work/emulator.log" &
pids+=($!)
await "$work/emulator.log" "listening on 127.0.0.1:20014"

for name in subdirectory fetchcontent package; do
  for program in consumer_shared consumer_static; do
    # The library's own log lines go to standard error; shown only when the program fails.
    log="$work/$name-$program.log"
    "$work/$name/$program" "$name-${program#consumer_}" 2>"$log" || fail "$name: $program failed"
  done
done
echo "test-consumer: add_subdirectory, FetchContent and find_package builds registered on both libraries"
