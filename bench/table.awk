# Turns the RESULT lines of the benchmarks (bench/result.h) into one table:
#   awk -F '\t' -f bench/table.awk
# Lines that are not RESULT lines are ignored. Ends with a count of the
# figures and of the missed targets.
function show(v, unit) {
  if (v == "-") return "-"
  return sprintf(v + 0 >= 100 ? "%.0f %s" : "%.2f %s", v, unit)
}
BEGIN {
  rule = sprintf("%134s", ""); gsub(/ /, "-", rule)
  print rule
  printf "%-46s %14s  %-32s %14s %7s  %-11s %s\n", "figure", "value", "baseline (same run)", "value", "ratio", "target", "result"
  print rule
}
$1 == "RESULT" && NF == 9 {
  printf "%-46s %14s  %-32s %14s %7s  %-11s %s\n", $2, show($3, $4), $5, show($6, $4), $7, $8, $9
  rows++
  if ($9 == "FAIL") fails++
}
END {
  print rule
  printf "%d figures, targets missed: %d\n", rows, fails
}
