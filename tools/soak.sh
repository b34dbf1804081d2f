#!/usr/bin/env bash
# Runs the soak suites under ASan+UBSan and then under ThreadSanitizer, each for a few minutes.
#   tools/soak.sh [SECONDS]    seconds per sanitizer run (default 180)
# The suites bind 127.0.0.1:20014: on a shared machine run it as tools/isolated.sh tools/soak.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
export PELK_SOAK_SECONDS="${1:-180}"
for sanitizer in asan tsan; do
  PELK_SANITIZER="$sanitizer" tools/test.sh --soak
done
