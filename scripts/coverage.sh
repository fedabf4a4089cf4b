#!/usr/bin/env bash
# Builds the coverage configuration, runs the whole suite on it and reports
# line and branch coverage of the library (tests, benchmarks and examples are
# not counted). Fails when either figure is under its floor.
#
#   scripts/coverage.sh                   report, floors 92 % lines / 80 % branches
#   QUORVIN_COVERAGE_LINES=90 QUORVIN_COVERAGE_BRANCHES=80 scripts/coverage.sh
#
# The report goes to standard output and, as HTML, to build/coverage/report/.
# Branches that only exception unwinding or unreachable code could take are
# not counted (gcovr --exclude-throw-branches --exclude-unreachable-branches);
# lines that no test process can run carry a GCOVR_EXCL marker with a reason.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
lines=${QUORVIN_COVERAGE_LINES:-92}
branches=${QUORVIN_COVERAGE_BRANCHES:-80}

[[ ${QUORVIN_SKIP_BOOTSTRAP:-0} == 1 ]] || "$root/scripts/bootstrap.sh"
command -v gcovr >/dev/null || { echo "coverage.sh: gcovr is missing (apt-get install gcovr)" >&2; exit 1; }

cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
ctest --preset coverage

filters=()
for folder in cm kernel thread sync pool queue timer; do filters+=(--filter "$folder/"); done
mkdir -p build/coverage/report
gcovr --root . build/coverage "${filters[@]}" \
  --exclude-throw-branches --exclude-unreachable-branches \
  --html-details build/coverage/report/index.html \
  --txt - --print-summary \
  --fail-under-line "$lines" --fail-under-branch "$branches"
