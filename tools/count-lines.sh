#!/usr/bin/env bash
# Counts the non-blank lines of the tracked C++, Java, Python and shell files, in tests/ against
# everything else, so that the test code's share of the code can be watched from run to run.
#   tools/count-lines.sh           one summary line
#   tools/count-lines.sh --files   also every file in tests/, largest first
set -euo pipefail
cd "$(dirname "$0")/.."

nonblank() { xargs -r -d '\n' grep -hcv '^[[:space:]]*$' -- | awk '{ s += $1 } END { print s + 0 }'; }

mapfile -t files < <(git ls-files -- '*.cpp' '*.cc' '*.h' '*.hpp' '*.java' '*.py' '*.sh')
test_files=() rest_files=()
for f in "${files[@]}"; do
  case "$f" in
    tests/*) test_files+=("$f") ;;
    *) rest_files+=("$f") ;;
  esac
done
tests=$(printf '%s\n' "${test_files[@]}" | nonblank)
rest=$(printf '%s\n' "${rest_files[@]}" | nonblank)
printf 'non-blank lines: tests/ %d, the rest %d; tests/ is %d%% of the rest (a third: %d)\n' \
  "$tests" "$rest" $((100 * tests / rest)) $((rest / 3))
if [ "${1:-}" = "--files" ]; then
  for f in "${test_files[@]}"; do
    printf '%6d %s\n' "$(grep -cv '^[[:space:]]*$' -- "$f")" "$f"
  done | sort -rn
fi
