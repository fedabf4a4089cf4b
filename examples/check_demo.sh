#!/usr/bin/env bash
# Runs the demo firmware for two seconds in a private mount namespace and
# checks that it booted, ticked, fired its timers and wrote its pid list.
# Usage: check_demo.sh [emulator ...] demo_firmware
set -u
run_dir="$(readlink -f /var/run)"
if ! unshare --mount --propagation private true 2>/dev/null; then
  echo "SKIPPED: no private mount namespace available"
  exit 0
fi
output="$(unshare --mount --propagation private bash -c '
  run_dir="$1"; shift
  mount -t tmpfs tmpfs "$run_dir" && mkdir -p "$run_dir/velmora" || exit 1
  timeout 30 "$@" 2; status=$?
  echo "--- pid list"; cat "$run_dir/velmora/velmora_pid.lst"
  exit $status' check "$run_dir" "$@" 2>&1)"
status=$?
echo "$output"
fail() { echo "FAILED: $1"; exit 1; }
[ "$status" -eq 0 ] || fail "exit status $status"
grep -q '^IPMI initial costs [0-9]* seconds, [0-9]* nanoseconds$' <<<"$output" || fail "start-up line"
grep -q '^== demo summary (time is up) ==$' <<<"$output" || fail "summary"
grep -q 'one-shot check' <<<"$output" || fail "one-shot timer"
for name in CMRH TimerISR SoftTimer sampler reporter supervisor poller worker waiter; do
  grep -q "^Name: $name, pid:[0-9]*$" <<<"$output" || fail "pid-list line of $name"
done
grep -q 'waiter: endless wait ended with status 26' <<<"$output" || fail "aborted wait"
grep -q '^queue records *[1-9][0-9]* sent, [1-9][0-9]* received' <<<"$output" || fail "message queue"
grep -q "^Name: packer, pid:[0-9]*$" <<<"$output" && grep -q "^Name: unpacker, pid:[0-9]*$" <<<"$output" ||
  fail "pid-list lines of the pool threads"
grep -q 'packer: buffer pool dry, allocation timed out' <<<"$output" || fail "pool time-out"
grep -q '^pool messages *[1-9][0-9]* produced, [1-9][0-9]* consumed' <<<"$output" || fail "pool messages"
grep -Eq '^semaphore gets +[1-9][0-9]* \([1-9][0-9]* time-outs\)$' <<<"$output" || fail "semaphore gets and time-outs"
grep -Eq '^flag wake-ups +[1-9][0-9]* \([1-9][0-9]* coordinator rounds\)$' <<<"$output" || fail "event flags"
grep -q 'mailbox: endless receive ended with status 26' <<<"$output" || fail "mailbox abort"
grep -q '^log lines *[1-9][0-9]* sent, [1-9][0-9]* heard, 1 flush' <<<"$output" || fail "framed log queue"
ticks="$(sed -n 's/^ticks counted *\([0-9]*\).*/\1/p' <<<"$output")"
[ "${ticks:-0}" -ge 100 ] || fail "only ${ticks:-0} ticks in two seconds"
echo "demo check passed"
