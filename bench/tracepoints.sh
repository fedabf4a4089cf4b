#!/bin/sh
# What the static tracepoints cost while no tracer is attached: every
# benchmark that all.sh runs, run alternately against the library built with
# the tracepoints (bench/build, as all.sh builds it) and against one built
# without them (bench/build-notrace, -DQUORVIN_TRACEPOINTS=OFF). The benchmark
# programs are the same both times; LD_LIBRARY_PATH picks the library. Each
# program runs against both libraries back to back. The ratio of a figure is
# the median, over the rounds, of its with/without ratio within a round; the
# target is a ratio within 2 % of 1. The medians of each side and the
# smallest and largest paired ratio are printed with it.
#
#   bench/tracepoints.sh [rounds]      (default 3; each round runs both sides)
#   bench/tracepoints.sh --instructions
#
# --instructions counts, instead of timing, the instructions that the programs
# with a fixed amount of work execute under valgrind's callgrind against each
# library: in the library and in the whole program. A count does not depend on
# the machine's load, so it shows what the probes add where timing on a shared
# machine cannot resolve 2 %. (Under valgrind the threads take turns, so a
# wait can end a little differently from one run to the next; the library's
# count moves by a few hundred instructions between runs of the same library.)
set -eu

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/.." && pwd)
with=${QUORVIN_BENCH_BUILD_DIR:-$here/build}
without=$here/build-notrace
rounds=${1:-3}
targets="request_bench sync_bench queue_bench tick_bench mutex_bench fast_path_bench thread_memory_bench"

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
one() {  # one <side> <library dir> <command...>: a program once, its RESULT lines kept
  side=$1 library=$2
  shift 2
  isolate env LD_LIBRARY_PATH="$library" "$@" >"$logs/last.log" 2>&1 || echo "tracepoints.sh: $* failed" >&2
  awk -v side="$side" -v round="$i" '/^RESULT\t/ { print side "\t" $0 "\t" round }' "$logs/last.log" >>"$logs/results.tsv"
}
pair() {  # pair <command...>: the program against both libraries, back to back
  # Each side goes first in every other round, so that what running first or
  # second does to a figure (a warm cache, a cooler CPU) falls on both; the
  # two runs of a pair are seconds apart, so a change in the machine's load
  # between them is rarer than between whole sides.
  if [ $((i % 2)) -eq 1 ]; then
    one with "$with" "$@" && one without "$without" "$@"
  else
    one without "$without" "$@" && one with "$with" "$@"
  fi
}
if [ "$rounds" = --instructions ]; then
  command -v callgrind_annotate >/dev/null || { echo "tracepoints.sh: --instructions needs valgrind" >&2; exit 1; }
  echo "instructions executed, tracepoints built in ($probes probe sites, no tracer attached) against none, $(date -u '+%Y-%m-%d %H:%M UTC'), $(uname -m)"
  printf '%-44s %14s %14s %8s %14s %8s\n' program "library, with" without ratio "whole program" ratio
  for program in "queue_bench 2000 latency" "request_bench --phase=latency --rounds=3 --warmup=0" \
                 "fast_path_bench latency --quick" "sync_bench"; do
    for side in with:"$with" without:"$without"; do
      library=${side#*:} side=${side%%:*}
      rm -f "$logs"/*.cg  # one file per process: request_bench measures in forked children
      isolate env LD_LIBRARY_PATH="$library" valgrind --tool=callgrind --callgrind-out-file="$logs/%p.cg" \
        $bin/$program >"$logs/last.log" 2>&1 || echo "tracepoints.sh: $program failed under valgrind" >&2
      for cg in "$logs"/*.cg; do callgrind_annotate --threshold=100 "$cg"; done | awk -v side=$side '
        /PROGRAM TOTALS/ { gsub(",", "", $1); total += $1 }
        /libquorvin/ { gsub(",", "", $1); library += $1 }
        END { print side, library, total }' >>"$logs/counts"
    done
    tail -2 "$logs/counts" | awk -v p="$program" '{ l[$1] = $2; t[$1] = $3 }
      END { printf "%-44s %14d %14d %8.4f %14d %8.4f\n", p, l["with"], l["without"], l["with"] / l["without"], t["with"], t["with"] / t["without"] }'
  done
  exit 0
fi
i=1
while [ "$i" -le "$rounds" ]; do
  echo "round $i of $rounds" >&2
  pair "$bin/request_bench"
  pair "$bin/sync_bench" --cpu=0
  pair taskset -c 0 "$bin/queue_bench" 200000 latency
  pair "$bin/queue_bench" 200000 throughput
  pair "$bin/mutex_bench" 3
  pair taskset -c 0 "$bin/fast_path_bench" latency
  pair "$bin/fast_path_bench" throughput
  pair taskset -c 0 "$bin/fast_path_bench" handover
  pair taskset -c 0 "$bin/tick_bench"
  pair "$bin/thread_memory_bench" 40
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
  { unit[$3] = $5; values[$1, $3] = values[$1, $3] " " $4; value[$1, $3, $NF] = $4; rounds[$NF] = 1 }
  END {
    printf "%-46s %12s %12s %8s %17s  %s\n", "figure", "with probes", "without", "ratio", "pairs (min-max)", "within 2 %"
    for (k = 1; k <= count; k++) {
      f = order[k]; w = median(values["with", f]); o = median(values["without", f]); ratios = ""
      lo = 1e9; hi = 0
      for (r in rounds) if (value["without", f, r] + 0 != 0 && ((("with", f, r) in value))) {
        q = value["with", f, r] / value["without", f, r]; ratios = ratios " " q
        if (q < lo) lo = q; if (q > hi) hi = q
      }
      m = ratios != "" ? median(ratios) : 1
      printf "%-46s %12.4g %12.4g %8.4f %8.3f-%-8.3f  %s  %s\n", f, w, o, m, lo, hi, (m >= 0.98 && m <= 1.02) ? "yes" : "NO", unit[f]
    }
  }' "$logs/results.tsv"
