#!/usr/bin/env bash
# Runs a command in a network namespace of its own, so that its 127.0.0.1:20014 is private:
# two builds (or a test run and the emulator) on one machine then never take each other's port.
#   tools/isolated.sh ctest --test-dir build
# Needs root, or unprivileged user namespaces (it then maps the caller to root inside).
set -euo pipefail
if [ $# -eq 0 ]; then
  echo "usage: tools/isolated.sh COMMAND [ARG...]" >&2
  exit 2
fi
flags=(--net)
if [ "$(id -u)" -ne 0 ]; then
  flags+=(--map-root-user)
fi
exec unshare "${flags[@]}" -- sh -c 'ip link set lo up && exec "$@"' isolated "$@"
