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
demo_name="java-demo"
source tools/lib/demo-common.sh

[ -x "$emulator" ] && [ -x "$pelk" ] || fail "build first: $emulator and $pelk are missing"
mkdir -p "$work/media/Music" "$work/alice" "$work/downloads"
head -c $((2 << 20)) /dev/urandom >"$work/media/Music/track01.mp3"
head -c $((3 << 20)) /dev/urandom >"$work/notes.bin"

start_emulator_and_alice

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
