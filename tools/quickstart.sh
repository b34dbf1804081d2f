#!/usr/bin/env bash
# One command on a fresh machine: installs what is missing, builds libPELKAgent.so and runs the
# quick test suites.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
tools/test.sh --quick
ls -l build/libPELKAgent.so
