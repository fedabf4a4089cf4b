#!/bin/sh
# Runs the soak program in private mount and IPC namespaces: a tmpfs over the
# run folder holds the pid list, and message queues never meet the machine's.
# The namespace's message-queue file system is mounted inside that tmpfs, so
# the soak can count the queues at its start and at its end.
#
#   bench/soak.sh <soak binary> [--seconds=N] [--seed=S] [--margin-ticks=T]
#
# The release check is ten minutes: bench/soak.sh build/default/bench/soak --seconds=600
set -eu
[ $# -ge 1 ] || { echo "usage: $0 <soak binary> [options]" >&2; exit 2; }
run_dir=$(readlink -f /var/run)
exec unshare --mount --ipc --propagation private sh -c '
  run_dir=$1; shift
  mount -t tmpfs tmpfs "$run_dir" && mkdir -p "$run_dir/velmora" "$run_dir/mqueue" || exit 1
  mount -t mqueue mqueue "$run_dir/mqueue" || exit 1
  exec "$@" --mqueue-dir="$run_dir/mqueue"' soak "$run_dir" "$@"
