#!/usr/bin/env bash
# Checks the benchmark tooling: the table that bench/all.sh builds from the
# programs' RESULT lines, and that thread_memory_bench measures both sides.
# Usage: check_bench_tools.sh [emulator ...] thread_memory_bench
set -u
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
fail() { echo "FAILED: $1"; exit 1; }

# The table: figures with and without a baseline, a missed target, and lines
# that are not (complete) RESULT lines, which are left out.
table=$(printf '%b' 'build noise\n' \
  'RESULT\tfast call\t1500\tns\tfloor\t1000\t1.500\t<= 2.00\tPASS\n' \
  'RESULT\tslow tick\t12.5\tms\tplain sleep\t10\t1.250\t<= 1.01\tFAIL\n' \
  'RESULT\tjitter p99\t83.4\tus\t-\t-\t-\t<= 1000 us\tPASS\n' \
  'RESULT\ttruncated\t1\n' | awk -F '\t' -f "$here/table.awk")
echo "$table"
grep -Eq '^fast call +1500 ns +floor +1000 ns +1\.500 +<= 2\.00 +PASS$' <<<"$table" || fail "row with a baseline"
grep -Eq '^slow tick +12\.50 ms +plain sleep +10\.00 ms +1\.250 +<= 1\.01 +FAIL$' <<<"$table" || fail "row of a missed target"
grep -Eq '^jitter p99 +83\.40 us +- +- +- +<= 1000 us +PASS$' <<<"$table" || fail "row without a baseline"
grep -q 'noise\|truncated' <<<"$table" && fail "a line that is no complete RESULT line made a row"
grep -q '^3 figures, targets missed: 1$' <<<"$table" || fail "summary line"

# Memory per thread: one RESULT line whose figure and baseline are both
# measured (positive). Not under an emulator, whose own memory /proc shows.
if (($# > 1)); then
  echo "SKIPPED: memory per thread is not measured under an emulator"
  exit 0
fi
output=$("$1" 8 2>&1) || { echo "$output"; fail "thread_memory_bench failed"; }
echo "$output"
line=$(grep '^RESULT	memory per thread' <<<"$output") || fail "no RESULT line"
awk -F '\t' 'NF == 9 && $3 > 0 && $6 > 0 && $7 > 0 { ok = 1 } END { exit !ok }' <<<"$line" ||
  fail "figure or baseline not measured: $line"
echo "bench tools check passed"
