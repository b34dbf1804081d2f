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
work="$(mktemp -d "${TMPDIR:-/tmp}/pelk-demo-XXXXXX")"
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
  echo "demo: $*" >&2
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

run() {
  echo "\$ pelk $*"
  "$pelk" "$@" || fail "pelk $1 failed"
}

[ -x "$emulator" ] && [ -x "$pelk" ] || fail "build first: $emulator and $pelk are missing"
mkdir -p "$work/media/Music" "$work/alice" "$work/downloads"
head -c $((2 << 20)) /dev/urandom >"$work/media/Music/track01.mp3"
echo "Media served by pelk-emulator for the demo." >"$work/media/readme.txt"
head -c $((10 << 20)) /dev/urandom >"$work/report.bin"

"$emulator" --media "$work/media" --rate 16M >"$work/trace.log" 2>"$work/emulator.log" &
pids+=($!)
await "$work/emulator.log" "listening on 127.0.0.1:20014"
"$pelk" listen --name alice --receive-dir "$work/alice" >"$work/alice.out" 2>&1 &
pids+=($!)
await "$work/alice.out" "listening as"
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
