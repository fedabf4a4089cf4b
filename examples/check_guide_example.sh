#!/usr/bin/env bash
# Runs the guide's example in a private mount namespace (with its own run
# folder for the pid list) and checks that it ended by itself, with status 0,
# after adding up every reading.
# Usage: check_guide_example.sh [emulator ...] guide_example
set -u
run_dir="$(readlink -f /var/run)"
if ! unshare --mount --propagation private true 2>/dev/null; then
  echo "SKIPPED: no private mount namespace available"
  exit 0
fi
output="$(unshare --mount --propagation private bash -c '
  run_dir="$1"; shift
  mount -t tmpfs tmpfs "$run_dir" && mkdir -p "$run_dir/velmora" || exit 1
  timeout 30 "$@"; status=$?
  echo "--- pid list"; cat "$run_dir/velmora/velmora_pid.lst"
  exit $status' check "$run_dir" "$@" 2>&1)"
status=$?
echo "$output"
fail() { echo "FAILED: $1"; exit 1; }
[ "$status" -eq 0 ] || fail "exit status $status"
grep -q '^IPMI initial costs [0-9]* seconds, [0-9]* nanoseconds$' <<<"$output" || fail "start-up line"
grep -q '^consumer: 10 readings, sum 55; the next receive ended with status 10 (LX_QUEUE_EMPTY)$' <<<"$output" ||
  fail "consumer's line"
for name in CMRH TimerISR SoftTimer producer consumer; do
  grep -q "^Name: $name, pid:[0-9]*$" <<<"$output" || fail "pid-list line of $name"
done
echo "guide example check passed"
