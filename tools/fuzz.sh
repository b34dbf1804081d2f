#!/usr/bin/env bash
# Builds every fuzz target (tests/fuzz/*_fuzz.cpp) with clang's libFuzzer in build-fuzz/, the
# library instrumented alike, and runs each for PELK_FUZZ_SECONDS seconds (default 60).
# Each target starts from its own corpus in build-fuzz/corpus/NAME, which it seeds with real
# messages when run with PELK_FUZZ_SEEDS=DIR; what it finds is added there. A crash stops the
# script with the fuzzer's report and leaves the input in build-fuzz/.
#   tools/fuzz.sh                      every target
#   PELK_FUZZ_SECONDS=20 tools/fuzz.sh emulator_request_fuzz
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${PELK_FUZZ_SECONDS:-60}"
build_dir=build-fuzz

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in tests/fuzz/*_fuzz.cpp; do
    targets+=("$(basename "$source" .cpp)")
  done
fi

generator=()
if command -v ninja >/dev/null 2>&1; then
  generator=(-G Ninja)
fi
if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build_dir" "${generator[@]}" -DPELK_ASAN=ON -DPELK_BUILD_BENCH=OFF -DPELK_WERROR="${PELK_WERROR:-OFF}" \
    -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link
fi
cmake --build "$build_dir" --parallel "$(nproc)" --target "${targets[@]}"

for target in "${targets[@]}"; do
  corpus="$PWD/$build_dir/corpus/$target"
  mkdir -p "$corpus"
  binary="$PWD/$build_dir/tests/fuzz/$target"
  PELK_FUZZ_SEEDS="$corpus" "$binary" -runs=0 "$corpus" >/dev/null 2>&1
  log="$build_dir/$target.log"
  echo "== $target: ${seconds}s from $(ls "$corpus" | wc -l) inputs"
  if ! (cd "$build_dir" && "$binary" -max_total_time="$seconds" "$corpus") >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz target $target failed: report in $log, input in $build_dir/" >&2
    exit 1
  fi
  grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1
done
