#!/bin/sh
# Builds tick_bench if needed and runs it pinned to one CPU: the tick period
# of the running system against a plain nanosleep(10 ms) loop measured in the
# same run under the same scheduling policy, and timer expiry jitter (from the
# due tick's byte to the expiration call).
#
#   bench/tick.sh [ticks]    pinned to CPU 0 (400 ticks unless given)
#   QUORVIN_BENCH_CPU= bench/tick.sh    unpinned
set -eu

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/.." && pwd)
build_dir=${QUORVIN_BENCH_BUILD_DIR:-$here/build}
cpu=${QUORVIN_BENCH_CPU-0}

if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  cmake -S "$source_dir" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQUORVIN_BUILD_BENCH=ON -DQUORVIN_BUILD_TESTS=OFF -DQUORVIN_BUILD_EXAMPLES=OFF >/dev/null
fi
cmake --build "$build_dir" --target tick_bench -j "$(nproc)" >/dev/null

set -- "$build_dir/bench/tick_bench" "$@"
if [ -n "$cpu" ]; then set -- taskset -c "$cpu" "$@"; fi
if unshare -m true 2>/dev/null; then
  exec unshare -m sh -c 'mount -t tmpfs -o mode=0755 tmpfs /run && mkdir /run/velmora && exec "$@"' \
    tick_bench "$@"
fi
exec "$@"
