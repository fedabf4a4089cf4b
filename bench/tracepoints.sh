#!/bin/sh
# What the static tracepoints cost while no tracer is attached: every
# benchmark that all.sh runs, run alternately against the library built with
# the tracepoints (bench/build-tracepoints/with) and against one built without
# them (bench/build-tracepoints/without, -DQUORVIN_TRACEPOINTS=OFF). The
# benchmark programs are the same both times; LD_LIBRARY_PATH picks the
# library.
#
# Both libraries are built with every function aligned to 64 bytes. Otherwise
# the probes' few bytes move every function after them to another place in
# its cache line, and that alone moves a figure by a few percent either way,
# on paths that pass no probe as much as on those that do (a function's place
# in its cache line decides how the CPU fetches and decodes it). Aligned, a
# function without probes lies the same way in both libraries. Each
# program runs against both libraries back to back, each side first in every
# other round. A figure's ratio is that of the two sides' best runs (the
# lowest time or memory, the highest rate): load from elsewhere on a shared
# machine only ever makes a run slower, so the best of several runs is the
# one least disturbed, on both sides alike. The target is a ratio within 2 %
# of 1. The median of the rounds' with/without ratios and their smallest and
# largest are printed with it: they show how far one run moves.
#
#   bench/tracepoints.sh [rounds]      (default 9; each round runs both sides)
#   bench/tracepoints.sh --instructions
#   bench/tracepoints.sh --control [rounds]
#
# --control times the library with the tracepoints against a copy of itself,
# in the same way: what the table shows then is what the measurement itself
# can tell apart on this machine, with no difference in the code.
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
with=$here/build-tracepoints/with
without=$here/build-tracepoints/without
control=false
if [ "${1:-}" = --control ]; then control=true; shift; fi
rounds=${1:-9}
targets="request_bench sync_bench queue_bench tick_bench mutex_bench fast_path_bench thread_memory_bench"

configure() {  # configure <dir> <tracepoints ON|OFF>
  cmake -S "$source_dir" -B "$1" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVIN_TRACEPOINTS="$2" \
    -DCMAKE_C_FLAGS=-falign-functions=64 -DCMAKE_CXX_FLAGS=-falign-functions=64 \
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
if $control; then
  without=$logs/copy
  mkdir "$without" && cp "$with"/libquorvin.so.9* "$without"/
fi
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
spinner=
trap '[ -z "$spinner" ] || kill "$spinner" 2>/dev/null' EXIT
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
  # The tick thread sleeps between ticks and CPU 0 goes idle; on a virtual
  # machine an idle CPU is handed back to the host, and the time it takes to
  # come back for the next tick moves the jitter by more than the code does.
  # A spinner of the lowest priority (SCHED_IDLE), which gives way to any other
  # thread at once, keeps CPU 0 busy for both sides alike.
  chrt -i 0 taskset -c 0 sh -c 'while :; do :; done' &
  spinner=$!
  pair taskset -c 0 "$bin/tick_bench" 1000  # 10 s: the p99 is the tenth longest wait, not the fourth
  kill "$spinner" && spinner=
  pair "$bin/thread_memory_bench" 40
  i=$((i + 1))
done

$control && echo "CONTROL: the library with the tracepoints against a copy of itself ('with probes' and 'without' are the same code)"
echo "tracepoints built in ($probes probe sites, no tracer attached) against none, best of $rounds rounds, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPUs, $(uname -m)"
awk -F '\t' '
  function median(list,   n, a, i, j, t) {
    n = split(list, a, " ")
    for (i = 2; i <= n; i++) for (j = i; j > 1 && a[j - 1] + 0 > a[j] + 0; j--) { t = a[j]; a[j] = a[j - 1]; a[j - 1] = t }
    return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
  }
  function better(f, a, b) { return rate[f] ? a > b : a < b }  # a rate is better higher, a time or size lower
  !($3 in unit) { order[++count] = $3; rate[$3] = $5 ~ /\/s$/ }
  {
    f = $3; unit[f] = $5; value[$1, f, $NF] = $4; rounds[$NF] = 1
    if (!(($1, f) in best) || better(f, $4 + 0, best[$1, f])) best[$1, f] = $4 + 0
  }
  END {
    printf "%-46s %11s %11s %7s  %-22s %s\n", "figure", "with probes", "without", "ratio", "pairs: median (min-max)", "within 2 %"
    for (k = 1; k <= count; k++) {
      f = order[k]; ratios = ""; lo = 1e9; hi = 0
      for (r in rounds) if (value["without", f, r] + 0 != 0 && (("with", f, r) in value)) {
        q = value["with", f, r] / value["without", f, r]; ratios = ratios " " q
        if (q < lo) lo = q; if (q > hi) hi = q
      }
      m = best["with", f] / best["without", f]
      printf "%-46s %11.4g %11.4g %7.4f  %6.3f (%5.3f-%5.3f)   %-3s  %s\n", f, best["with", f], best["without", f], m,
        ratios != "" ? median(ratios) : 1, lo, hi, (m >= 0.98 && m <= 1.02) ? "yes" : "NO", unit[f]
    }
  }' "$logs/results.tsv"
