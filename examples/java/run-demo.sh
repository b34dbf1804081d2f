#!/usr/bin/env bash
# The Java demo against pelk-emulator: "🎉 party" listens with pelk, and the Java app "bob" finds
# her by that name, sends her a text and a file named with an emoji, then browses the media server
# and downloads a track. Exits 0 only when pelk apps lists her under her name, what arrived is
# byte-identical under its own name, and the VM, run with -Xcheck:jni, printed no JNI warning.
# Binds 127.0.0.1:20014 (run it in tools/isolated.sh beside other users).
#   examples/java/run-demo.sh [BUILD_DIR [CLASSPATH]]
# runs the app of BUILD_DIR (default build/), or the one on CLASSPATH (a shrunk jar, say) with the
# library of BUILD_DIR.
set -euo pipefail
cd "$(dirname "$0")/../.."
build="$(cd "${1:-build}" && pwd)"
emulator="$build/emulator/pelk-emulator"
pelk="$build/cli/pelk"
classpath="${2:-$build/PELKAgent.jar:$build/examples/pelk_java_demo.jar}"
java="${JAVA:-java}"
demo_name="java-demo"
# Names outside the Basic Multilingual Plane, to cross the Java boundary both ways.
alice_name="🎉 party"
file_name="Party 🎉 notes.bin"
source tools/lib/demo-common.sh

[ -x "$emulator" ] && [ -x "$pelk" ] || fail "build first: $emulator and $pelk are missing"
mkdir -p "$work/media/Music" "$work/alice" "$work/downloads"
head -c $((2 << 20)) /dev/urandom >"$work/media/Music/track01.mp3"
head -c $((3 << 20)) /dev/urandom >"$work/$file_name"

start_emulator_and_alice
"$pelk" apps >"$work/apps.out" 2>&1 || fail "pelk apps failed"
grep -qF "\"$alice_name\"" "$work/apps.out" || fail "pelk apps does not list \"$alice_name\""

# The VM reads its arguments, file names among them, in the locale's encoding.
LC_ALL=C.UTF-8 "$java" -Xcheck:jni -Djava.library.path="$build" -cp "$classpath" com.quorvik.kolt.pelk.agent.demo.Demo \
  "$alice_name" "$work/$file_name" Music track01.mp3 "$work/downloads" 2>"$work/java.log" ||
  fail "the Java app failed"
# CheckJNI reports misuse on the VM's standard error without failing the call.
if grep -E "WARNING|FATAL|JNI DETECTED ERROR" "$work/java.log"; then
  fail "the VM reported JNI misuse"
fi

await "$work/alice.out" 'data from "bob".*hello from java'
await "$work/alice.out" "file received: .*$file_name"
cmp "$work/$file_name" "$work/alice/$file_name" || fail "the file alice received differs"
cmp "$work/media/Music/track01.mp3" "$work/downloads/track01.mp3" || fail "the downloaded track differs"
echo "java demo: \"$alice_name\" found; the text, the file \"$file_name\" and the downloaded track arrived byte-identical"
