#!/usr/bin/env bash
# Runs the demo firmware (two seconds) or the guide's example in a private mount namespace, with a run
# folder of its own for the pid list, and checks its exit status 0, its output and its pid-list lines.
# Usage: check_demo.sh [emulator ...] demo_firmware|guide_example
set -u
program=${!#} && program=${program##*/}
unshare --mount --propagation private true 2>/dev/null || { echo "SKIPPED: no private mount namespace available"; exit 0; }
output="$(unshare --mount --propagation private bash -c 'run=$(readlink -f /var/run)
  mount -t tmpfs tmpfs "$run" && mkdir -p "$run/velmora" || exit 1
  timeout 30 "$@"; status=$?; cat "$run/velmora/velmora_pid.lst"; exit $status' check "$@" $([[ $program == demo* ]] && echo 2) 2>&1)"
status=$?
echo "$output"
if [[ $program == demo* ]]; then
  threads="sampler reporter supervisor poller worker waiter packer unpacker"
  lines=('== demo summary \(time is up\) ==' 'one-shot check' 'waiter: endless wait ended with status 26'
    'queue records +[1-9][0-9]* sent, [1-9][0-9]* received' 'packer: buffer pool dry, allocation timed out'
    'pool messages +[1-9][0-9]* produced, [1-9][0-9]* consumed' 'semaphore gets +[1-9][0-9]* \([1-9][0-9]* time-outs\)$'
    'flag wake-ups +[1-9][0-9]* \([1-9][0-9]* coordinator rounds\)$' 'mailbox: endless receive ended with status 26'
    'log lines +[1-9][0-9]* sent, [1-9][0-9]* heard, 1 flush' 'ticks counted +[1-9][0-9]{2,}')
else
  threads="producer consumer" lines=('^consumer: 10 readings, sum 55; the next receive ended with status 10 \(LX_QUEUE_EMPTY\)$')
fi
[ "$status" -eq 0 ] || { echo "FAILED: exit status $status"; exit 1; }
for name in CMRH TimerISR SoftTimer $threads; do lines+=("^Name: $name, pid:[0-9]+$"); done
for line in '^IPMI initial costs [0-9]+ seconds, [0-9]+ nanoseconds$' "${lines[@]}"; do
  grep -Eq "$line" <<<"$output" || { echo "FAILED: no line matches '$line'"; exit 1; }; done
echo "$program check passed"
