#!/usr/bin/env bash
# One command on a fresh machine: installs what is missing, builds everything (the library,
# pelk-emulator, pelk, the tests) and runs the demo, which exits 0 only when everything the
# demo's apps sent arrived byte-identical.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
tools/test.sh --build-only
# The demo binds 127.0.0.1:20014: in a network namespace of its own where one can be made, so
# that it takes the port from nobody.
if tools/isolated.sh true >/dev/null 2>&1; then
  exec tools/isolated.sh tools/demo.sh build
fi
exec tools/demo.sh build
