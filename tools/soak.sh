#!/usr/bin/env bash
# Runs the soak suites under ASan+UBSan and then under ThreadSanitizer, and prints their figures.
#   tools/soak.sh [SECONDS]    seconds per sanitizer run of the time-bound soaks (default 180)
#   PELK_SOAK_CYCLES=N         service kill-and-restart cycles of the agent's soak (default 100)
#   PELK_STRESS_SECONDS=N      seconds of the bridge's stress in a VM (default: as the soaks)
# The suites bind 127.0.0.1:20014: on a shared machine run it as tools/isolated.sh tools/soak.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
export PELK_SOAK_SECONDS="${1:-180}"
export PELK_SOAK_CYCLES="${PELK_SOAK_CYCLES:-100}"
export PELK_STRESS_SECONDS="${PELK_STRESS_SECONDS:-$PELK_SOAK_SECONDS}"
for sanitizer in asan tsan; do
  PELK_SANITIZER="$sanitizer" tools/test.sh --soak
done
