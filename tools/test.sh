#!/usr/bin/env bash
# Configures a build, builds everything and runs the test suites.
#   tools/test.sh            plain build in build/, every suite but the soak
#   tools/test.sh --quick    only the quick suites
#   tools/test.sh --soak     only the soak suites, with their output (PELK_SOAK_SECONDS, PELK_SOAK_CYCLES; tools/soak.sh)
#   tools/test.sh --build-only   configure and build, run nothing
#   PELK_SANITIZER=asan|tsan tools/test.sh   the same under a sanitizer (build-asan/, build-tsan/)
#   PELK_WERROR=ON tools/test.sh             warnings are errors (as in CI)
set -euo pipefail
cd "$(dirname "$0")/.."

# Labels are regular expressions to ctest; every suite also carries its own name as a label.
selection=(-LE '^soak$')
build_only=
case "${1:-}" in
  --quick) selection=(-L '^quick$') ;;
  --soak) selection=(-L '^soak$' --verbose) ;;
  --build-only) build_only=1 ;;
esac

build_dir=build
options=()
case "${PELK_SANITIZER:-}" in
  asan) build_dir=build-asan; options+=(-DPELK_ASAN=ON) ;;
  tsan) build_dir=build-tsan; options+=(-DPELK_TSAN=ON) ;;
  "") ;;
  *) echo "unknown PELK_SANITIZER=${PELK_SANITIZER}" >&2; exit 2 ;;
esac

generator=()
if command -v ninja >/dev/null 2>&1; then
  generator=(-G Ninja)
fi
if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  cmake -S . -B "$build_dir" "${generator[@]}" "${options[@]}"
fi
# PELK_WERROR=ON (CI sets it) makes every warning an error, in a build made before too.
if [ -n "${PELK_WERROR:-}" ]; then
  cmake -B "$build_dir" -DPELK_WERROR="$PELK_WERROR" >/dev/null
fi
cmake --build "$build_dir" --parallel "$(nproc)"
[ -z "$build_only" ] || exit 0
ctest --test-dir "$build_dir" "${selection[@]}" --no-tests=error --output-on-failure --parallel "$(nproc)"
