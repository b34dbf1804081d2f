# Shared by the demo scripts: a work folder removed on exit, background processes stopped on
# exit, and a failure that shows the tail of every log. Set $demo_name before sourcing.
work="$(mktemp -d "${TMPDIR:-/tmp}/pelk-${demo_name}-XXXXXX")"
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
  echo "$demo_name: $*" >&2
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

# Starts the emulator serving $work/media, then "alice" (or the name in $alice_name) listening
# into $work/alice.
start_emulator_and_alice() {
  "$emulator" --media "$work/media" "$@" >"$work/trace.log" 2>"$work/emulator.log" &
  pids+=($!)
  await "$work/emulator.log" "listening on 127.0.0.1:20014"
  "$pelk" listen --name "${alice_name:-alice}" --receive-dir "$work/alice" >"$work/alice.out" 2>&1 &
  pids+=($!)
  await "$work/alice.out" "listening as"
}
