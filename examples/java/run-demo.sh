#!/usr/bin/env bash
# The Java demo against pelk-emulator: "alice" listens with pelk, and the Java app "bob" sends her
# a text and a file, then browses the media server and downloads a track. Exits 0 only when what
# arrived is byte-identical and the VM, run with -Xcheck:jni, printed no JNI warning.
# Binds 127.0.0.1:20014 (run it in tools/isolated.sh beside other users).
#   examples/java/run-demo.sh [BUILD_DIR]     the build of BUILD_DIR (default build/)
set -euo pipefail
cd "$(dirname "$0")/../.."
build="$(cd "${1:-build}" && pwd)"
emulator="$build/emulator/pelk-emulator"
pelk="$build/cli/pelk"
classpath="$build/PELKAgent.jar:$build/examples/pelk_java_demo.jar"
java="${JAVA:-java}"
work="$(mktemp -d "${TMPDIR:-/tmp}/pelk-java-demo-XXXXXX")"
pids=()

cleanup() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "java demo: $*" >&2
  for log in "$work"/*.log "$work"/*.out; do
    [ -f "$log" ] && { echo "--- ${log##*/}" >&2; tail -n 20 "$log" >&2; }
  done
  exit 1
}

# Waits up to 10 s for a line matching $2 in file $1.
await() {
  for _ in $(seq 100); do
    grep -q -- "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  fail "no \"$2\" in ${1##*/}"
}

[ -x "$emulator" ] && [ -x "$pelk" ] || fail "build first: $emulator and $pelk are missing"
mkdir -p "$work/media/Music" "$work/alice" "$work/downloads"
head -c $((2 << 20)) /dev/urandom >"$work/media/Music/track01.mp3"
head -c $((3 << 20)) /dev/urandom >"$work/notes.bin"

"$emulator" --media "$work/media" >"$work/trace.log" 2>"$work/emulator.log" &
pids+=($!)
await "$work/emulator.log" "listening on 127.0.0.1:20014"
"$pelk" listen --name alice --receive-dir "$work/alice" >"$work/alice.out" 2>&1 &
pids+=($!)
await "$work/alice.out" "listening as"

"$java" -Xcheck:jni -Djava.library.path="$build" -cp "$classpath" com.quorvik.kolt.pelk.agent.demo.Demo \
  alice "$work/notes.bin" Music track01.mp3 "$work/downloads" 2>"$work/java.log" ||
  fail "the Java app failed"
# CheckJNI reports misuse on the VM's standard error without failing the call.
if grep -E "WARNING|FATAL|JNI DETECTED ERROR" "$work/java.log"; then
  fail "the VM reported JNI misuse"
fi

await "$work/alice.out" 'data from "bob".*hello from java'
await "$work/alice.out" "file received: .*notes.bin"
cmp "$work/notes.bin" "$work/alice/notes.bin" || fail "the file alice received differs"
cmp "$work/media/Music/track01.mp3" "$work/downloads/track01.mp3" || fail "the downloaded track differs"
echo "java demo: the text, the file and the downloaded track arrived byte-identical"
