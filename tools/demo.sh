#!/usr/bin/env bash
# The library at work on one machine: pelk-emulator plays the service with a small media
# folder, "alice" listens, and "bob" sends her a text and a 10 MiB file (with progress), browses
# the media server and downloads a track from it. Exits 0 only when everything arrived
# byte-identical. Binds 127.0.0.1:20014 (run it in tools/isolated.sh beside other users).
#   tools/demo.sh [BUILD_DIR]      the binaries of BUILD_DIR (default build/)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
emulator="$build/emulator/pelk-emulator"
pelk="$build/cli/pelk"
demo_name="demo"
source tools/lib/demo-common.sh

run() {
  echo "\$ pelk $*"
  "$pelk" "$@" || fail "pelk $1 failed"
}

[ -x "$emulator" ] && [ -x "$pelk" ] || fail "build first: $emulator and $pelk are missing"
mkdir -p "$work/media/Music" "$work/alice" "$work/downloads"
head -c $((2 << 20)) /dev/urandom >"$work/media/Music/track01.mp3"
echo "Media served by pelk-emulator for the demo." >"$work/media/readme.txt"
head -c $((10 << 20)) /dev/urandom >"$work/report.bin"

start_emulator_and_alice --rate 16M
echo "pelk-emulator serves $work/media; alice listens, files go to $work/alice"

run send --name bob --to alice "hello from bob"
run send-file --name bob --to alice "$work/report.bin"
run browse --name bob
run browse --name bob Music
run download --name bob --to-dir "$work/downloads" Music/track01.mp3

await "$work/alice.out" 'data from "bob".*hello from bob'
await "$work/alice.out" "file received: .*report.bin"
echo "alice heard:"
grep -E '^(data|file)' "$work/alice.out" | sed 's/^/  /'
cmp "$work/report.bin" "$work/alice/report.bin" || fail "the file alice received differs"
cmp "$work/media/Music/track01.mp3" "$work/downloads/track01.mp3" || fail "the downloaded track differs"
echo "demo: the text, the 10 MiB file and the downloaded track arrived byte-identical"
