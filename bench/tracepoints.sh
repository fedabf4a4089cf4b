#!/bin/sh
# What the static tracepoints cost while no tracer is attached: every
# benchmark that all.sh runs, run alternately against the library built with
# the tracepoints (bench/build, as all.sh builds it) and against one built
# without them (bench/build-notrace, -DQUORVIN_TRACEPOINTS=OFF). The benchmark
# programs are the same both times; LD_LIBRARY_PATH picks the library. Each
# figure is the median of its rounds on each side; the target is a ratio
# within 2 % of 1.
#
#   bench/tracepoints.sh [rounds]      (default 3; each round runs both sides)
set -eu

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/.." && pwd)
with=${QUORVIN_BENCH_BUILD_DIR:-$here/build}
without=$here/build-notrace
rounds=${1:-3}
targets="request_bench sync_bench queue_bench tick_bench mutex_bench thread_memory_bench"

configure() {  # configure <dir> <tracepoints ON|OFF>
  cmake -S "$source_dir" -B "$1" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVIN_TRACEPOINTS="$2" \
    -DQUORVIN_BUILD_BENCH=ON -DQUORVIN_BUILD_TESTS=OFF -DQUORVIN_BUILD_EXAMPLES=OFF >/dev/null
}
configure "$with" ON
configure "$without" OFF
cmake --build "$with" -j 2 --target $targets >/dev/null
cmake --build "$without" -j 2 --target quorvin >/dev/null
probes=$(readelf -n "$with/libquorvin.so.9" | grep -c 'Name:' || true)
[ "$(readelf -n "$without/libquorvin.so.9" | grep -c 'Name:' || true)" = 0 ] && [ "$probes" -gt 0 ] || {
  echo "tracepoints.sh: expected probes in $with only" >&2
  exit 1
}

logs=$with/tracepoint-logs
rm -rf "$logs" && mkdir -p "$logs"
bin=$with/bench
if unshare -m true 2>/dev/null; then
  isolate() { unshare -m sh -c 'mount -t tmpfs -o mode=0755 tmpfs /run && mkdir /run/velmora && exec "$@"' x "$@"; }
else
  isolate() { "$@"; }
fi
run_side() {  # run_side <label> <library dir>: every program once, pinned as all.sh pins it
  side=$1 library=$2
  one() {
    isolate env LD_LIBRARY_PATH="$library" "$@" >"$logs/last.log" 2>&1 || echo "tracepoints.sh: $* failed" >&2
    awk -v side="$side" '/^RESULT\t/ { print side "\t" $0 }' "$logs/last.log" >>"$logs/results.tsv"
  }
  one "$bin/request_bench"
  one "$bin/sync_bench" --cpu=0
  one taskset -c 0 "$bin/queue_bench" 200000 latency
  one "$bin/queue_bench" 200000 throughput
  one "$bin/mutex_bench" 3
  one taskset -c 0 "$bin/tick_bench"
  one "$bin/thread_memory_bench" 40
}
i=1
while [ "$i" -le "$rounds" ]; do
  echo "round $i of $rounds" >&2
  run_side with "$with"
  run_side without "$without"
  i=$((i + 1))
done

echo "tracepoints built in ($probes probe sites, no tracer attached) against none, $rounds rounds, medians, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPUs, $(uname -m)"
awk -F '\t' '
  function median(list,   n, a, i, j, t) {
    n = split(list, a, " ")
    for (i = 2; i <= n; i++) for (j = i; j > 1 && a[j - 1] + 0 > a[j] + 0; j--) { t = a[j]; a[j] = a[j - 1]; a[j - 1] = t }
    return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
  }
  !($3 in unit) { order[++count] = $3 }
  { unit[$3] = $5; values[$1, $3] = values[$1, $3] " " $4 }
  END {
    printf "%-46s %14s %14s %8s  %s\n", "figure", "with probes", "without", "ratio", "within 2 %"
    for (k = 1; k <= count; k++) {
      f = order[k]; w = median(values["with", f]); o = median(values["without", f])
      r = o != 0 ? w / o : 1
      printf "%-46s %14.4g %14.4g %8.4f  %s  %s\n", f, w, o, r, (r >= 0.98 && r <= 1.02) ? "yes" : "NO", unit[f]
    }
  }' "$logs/results.tsv"
