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
work="$(mktemp -d "${TMPDIR:-/tmp}/pelk-consumer-XXXXXX")"
emulator_pid=

cleanup() {
  if [ -n "$emulator_pid" ]; then
    kill "$emulator_pid" 2>/dev/null || true
    wait "$emulator_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "test-consumer: $*" >&2
  [ -f "$work/emulator.log" ] && tail -n 20 "$work/emulator.log" >&2
  exit 1
}

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
    >"$work/$name.log" 2>&1 || { cat "$work/$name.log" >&2; fail "$name: configuring failed"; }
  cmake --build "$work/$name" --parallel "$(nproc)" >>"$work/$name.log" 2>&1 \
    || { tail -n 40 "$work/$name.log" >&2; fail "$name: building failed"; }
}

PELK_SANITIZER= tools/test.sh --build-only >/dev/null
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
emulator_pid=$!
for _ in $(seq 100); do
  grep -q "listening on 127.0.0.1:20014" "$work/emulator.log" && break
  kill -0 "$emulator_pid" 2>/dev/null || fail "pelk-emulator did not start"
  sleep 0.1
done
grep -q "listening on 127.0.0.1:20014" "$work/emulator.log" || fail "pelk-emulator does not listen"

for name in subdirectory fetchcontent package; do
  for program in consumer_shared consumer_static; do
    log="$work/$name-$program.log"
    # The library's own log lines go to standard error; shown only when the program fails.
    "$work/$name/$program" "$name-${program#consumer_}" 2>"$log" || { cat "$log" >&2; fail "$name: $program failed"; }
  done
done
echo "test-consumer: add_subdirectory, FetchContent and find_package builds registered on both libraries"
