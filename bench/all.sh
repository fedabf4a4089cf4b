#!/bin/sh
# Builds every benchmark, runs each the way it is meant to run, and prints one
# table: each figure, its same-run baseline, the ratio and the target.
#
#   bench/all.sh            the full run (a few minutes; run it on a quiet machine)
#   bench/all.sh --quick    short rounds, to see that everything runs (not for figures)
#
# Latency figures run pinned to CPU 0 (request_bench and sync_bench pin
# themselves, the others run under taskset -c 0, fast_path_bench's hand-over
# too); throughput figures and mutex_bench's two-thread hand-over run unpinned. Every program runs in a private mount
# namespace with a tmpfs on /run and the /run/velmora folder the kernel writes
# its pid list to. Each program prints RESULT lines (bench/result.h) that this
# script collects; the full output of each is kept in <build>/all-logs/.
# The build goes to bench/build (QUORVIN_BENCH_BUILD_DIR), as for run.sh.
#
# Exit status: 0 when every program ran (a missed target is a FAIL row, not an
# error: these are measurements), 1 when one could not run or build.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/.." && pwd)
build_dir=${QUORVIN_BENCH_BUILD_DIR:-$here/build}
jobs=$(nproc 2>/dev/null || echo 2)
quick=0
case "${1-}" in
  --quick) quick=1 ;;
  "") ;;
  *) echo "usage: bench/all.sh [--quick]" >&2; exit 2 ;;
esac

targets="request_bench sync_bench queue_bench tick_bench mutex_bench fast_path_bench thread_memory_bench"
if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  cmake -S "$source_dir" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQUORVIN_BUILD_BENCH=ON -DQUORVIN_BUILD_TESTS=OFF -DQUORVIN_BUILD_EXAMPLES=OFF >/dev/null
fi
mkdir -p "$build_dir/all-logs"
logs=$build_dir/all-logs
# shellcheck disable=SC2086  # one argument per target
if ! cmake --build "$build_dir" -j "$jobs" --target $targets >"$logs/build.log" 2>&1; then
  cat "$logs/build.log" >&2
  echo "all.sh: build failed" >&2
  exit 1
fi
bin=$build_dir/bench

if unshare -m true 2>/dev/null; then
  namespace=1
else
  namespace=0
  echo "all.sh: no private mount namespace (unshare -m failed); running without one" >&2
fi

# Runs one program (with its arguments) into logs/<name>.log.
failed=""
run() {
  name=$1
  shift
  printf '%-40s' "running $name ..." >&2
  if [ "$namespace" = 1 ]; then
    set -- unshare -m sh -c 'mount -t tmpfs -o mode=0755 tmpfs /run && mkdir /run/velmora && exec "$@"' "$name" "$@"
  fi
  if "$@" >"$logs/$name.log" 2>&1; then
    echo " done" >&2
  else
    echo " FAILED (see $logs/$name.log)" >&2
    failed="$failed $name"
  fi
}

if [ "$quick" = 1 ]; then
  run request_bench "$bin/request_bench" --rounds=3 --block=300 --warmup=300 --seconds=0.3 --throughput-rounds=1
  run sync_bench "$bin/sync_bench" --cpu=0 --rounds=2
  run queue_latency taskset -c 0 "$bin/queue_bench" 5000 latency
  run queue_throughput "$bin/queue_bench" 5000 throughput
  run mutex_bench "$bin/mutex_bench" 0.5
  run fast_path_latency taskset -c 0 "$bin/fast_path_bench" latency --quick
  run fast_path_throughput "$bin/fast_path_bench" throughput --quick
  run fast_path_handover taskset -c 0 "$bin/fast_path_bench" handover --quick
else
  run request_bench "$bin/request_bench"
  run sync_bench "$bin/sync_bench" --cpu=0
  run queue_latency taskset -c 0 "$bin/queue_bench" 200000 latency
  run queue_throughput "$bin/queue_bench" 200000 throughput
  run mutex_bench "$bin/mutex_bench" 3
  run fast_path_latency taskset -c 0 "$bin/fast_path_bench" latency
  run fast_path_throughput "$bin/fast_path_bench" throughput
  run fast_path_handover taskset -c 0 "$bin/fast_path_bench" handover
fi
run tick_bench taskset -c 0 "$bin/tick_bench"
run thread_memory_bench "$bin/thread_memory_bench" 40

echo
echo "quorvin benchmarks, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPUs, $(uname -m)$([ "$quick" = 1 ] && echo ', QUICK RUN: figures not meaningful')"
for name in request_bench sync_bench queue_latency queue_throughput mutex_bench fast_path_latency \
    fast_path_throughput fast_path_handover tick_bench thread_memory_bench; do
  [ -f "$logs/$name.log" ] && grep '^RESULT	' "$logs/$name.log" || true
done | awk -F '\t' -f "$here/table.awk"
if [ -n "$failed" ]; then
  echo "NOT RUN:$failed (their logs are in $logs)"
  exit 1
fi
echo "full output of each program: $logs/"
