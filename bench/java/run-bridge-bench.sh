#!/usr/bin/env bash
# The Java bridge benchmark (BridgeBench) in a plain VM, on a build's library and jars: events
# and sendData through the library beside plain Java sockets. Binds 127.0.0.1:20014, so run it in
# tools/isolated.sh. JAVA picks the java launcher, JAVA_OPTS adds VM options.
#   bench/java/run-bridge-bench.sh [BUILD_DIR [ROUNDS [CALLS_PER_ROUND [DATA_BYTES]]]]
set -euo pipefail
cd "$(dirname "$0")/../.."
build="$(cd "${1:-build}" && pwd)"
[ $# -eq 0 ] || shift
jar="$build/bench/pelk_bridge_bench.jar"
if [ ! -f "$jar" ] || [ ! -f "$build/PELKAgent.jar" ]; then
  echo "build first: $jar or $build/PELKAgent.jar is missing" >&2
  exit 1
fi
# shellcheck disable=SC2086 # JAVA_OPTS holds several options
exec "${JAVA:-java}" ${JAVA_OPTS:-} -Djava.library.path="$build" -cp "$build/PELKAgent.jar:$jar" \
  com.quorvik.kolt.pelk.agent.bench.BridgeBench "$@"
