// One machine-readable line per benchmark figure, collected by bench/all.sh
// into one table. Fields are tab-separated so that names may hold spaces:
//
//   RESULT <figure> <value> <unit> <baseline> <baseline value> <ratio> <target> <verdict>
//
// A figure without a baseline passes NaN as the baseline value: value and
// ratio then read "-". The verdict is PASS, FAIL or info (no target).
#ifndef QUORVIN_BENCH_RESULT_H
#define QUORVIN_BENCH_RESULT_H

#include <cmath>
#include <cstdio>

inline void PrintResult(const char* figure, double value, const char* unit, const char* baseline,
                        double baselineValue, const char* target, const char* verdict) {
  if (std::isnan(baselineValue)) {
    std::printf("RESULT\t%s\t%.6g\t%s\t%s\t-\t-\t%s\t%s\n", figure, value, unit, baseline, target, verdict);
  } else {
    std::printf("RESULT\t%s\t%.6g\t%s\t%s\t%.6g\t%.3f\t%s\t%s\n", figure, value, unit, baseline, baselineValue,
                value / baselineValue, target, verdict);
  }
}

// For a target "ratio <= limit" (or ">= limit" when atLeast): the verdict.
inline const char* Verdict(double ratio, double limit, bool atLeast = false) {
  if (limit <= 0) return "info";
  return (atLeast ? ratio >= limit : ratio <= limit) ? "PASS" : "FAIL";
}

#endif  // QUORVIN_BENCH_RESULT_H
