#!/usr/bin/env bash
# Compares the size of the test code with the size of the library, counted
# as non-blank lines that are not comments:
#
#   library    cm/ kernel/ thread/ sync/ pool/ queue/ timer/ include/
#   test code  tests/, the soak drivers (bench/soak*), the demo and example
#              checks (examples/check_*), and every other stress driver
#
#   scripts/test-size.sh            prints both counts and the ratio
#   scripts/test-size.sh --check    also fails when the ratio is above 0.40
#                                   (QUORVIN_TEST_RATIO_MAX overrides it)
#   scripts/test-size.sh --files    also lists each test file's count
#
# C and C++ files lose their // and /* */ comments; shell, CMake, Python,
# awk and bpftrace files lose the lines that start with #. C and C++ files are
# counted as clang-format lays them out with the project's .clang-format, so
# how a file happens to be wrapped does not change its count; where
# clang-format is missing, a line longer than 120 columns (the project's
# width) counts as the lines it takes wrapped at 120.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
max=${QUORVIN_TEST_RATIO_MAX:-0.40}

if [[ ${1:-} == --check ]] && ! command -v clang-format >/dev/null; then
  echo "test-size.sh: --check needs clang-format (scripts/bootstrap.sh installs it)" >&2
  exit 1
fi
formatted=$(mktemp -d) && trap 'rm -rf "$formatted"' EXIT
laid_out() {  # laid_out <file>: the path of the file as clang-format lays it out (or the file)
  if [[ $1 =~ \.(c|cc|cpp|h|hpp)$ ]] && command -v clang-format >/dev/null; then
    mkdir -p "$formatted/$(dirname "$1")"
    [[ -f $formatted/$1 ]] || clang-format --style=file --assume-filename="$1" <"$1" >"$formatted/$1"
    echo "$formatted/$1"
  else
    echo "$1"
  fi
}

count() {  # count <file...>: code lines of the files together
  local paths=() f
  for f in "$@"; do paths+=("$(laid_out "$f")"); done
  set -- "${paths[@]}"
  awk '
    FNR == 1 { c_like = FILENAME ~ /\.(c|cc|cpp|h|hpp)$/; in_block = 0 }
    {
      line = $0
      if (c_like) {
        out = ""
        while (line != "") {
          if (in_block) {
            end = index(line, "*/")
            if (end == 0) { line = ""; break }
            line = substr(line, end + 2); in_block = 0
            continue
          }
          # The first comment opener outside a string literal.
          n = length(line); quote = ""; cut = 0
          for (i = 1; i <= n; i++) {
            ch = substr(line, i, 1)
            if (quote != "") {
              if (ch == "\\") { i++; continue }
              if (ch == quote) quote = ""
              continue
            }
            if (ch == "\"" || ch == "\047") { quote = ch; continue }
            two = substr(line, i, 2)
            if (two == "//") { cut = i; kind = "line"; break }
            if (two == "/*") { cut = i; kind = "block"; break }
          }
          if (cut == 0) { out = out line; line = ""; break }
          out = out substr(line, 1, cut - 1)
          if (kind == "line") { line = ""; break }
          line = substr(line, cut + 2); in_block = 1
        }
        line = out
      } else if (line ~ /^[ \t]*#/) {
        line = ""
      }
      sub(/[ \t\r]+$/, "", line)
      if (line ~ /[^ \t]/) code += int((length(line) + 119) / 120)
    }
    END { print code + 0 }' "$@" /dev/null
}

files() {  # files <path...>: the source files under the paths
  find "$@" -type f \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' -o -name '*.h' \
    -o -name '*.hpp' -o -name '*.sh' -o -name '*.py' -o -name '*.cmake' \
    -o -name 'CMakeLists.txt' -o -name '*.awk' -o -name '*.bt' \) 2>/dev/null | sort
}

mapfile -t library < <(files cm kernel thread sync pool queue timer include)
mapfile -t tests < <(files tests; files bench -name 'soak*'; files examples -name 'check_*')
lib_lines=$(count "${library[@]}")
test_lines=$(count "${tests[@]}")
ratio=$(awk -v t="$test_lines" -v l="$lib_lines" 'BEGIN { printf "%.3f", l ? t / l : 0 }')

echo "library:   $lib_lines lines (${#library[@]} files)"
echo "test code: $test_lines lines (${#tests[@]} files)"
echo "ratio:     $ratio (at most $max)"
if [[ ${1:-} == --files ]]; then
  for f in "${tests[@]}"; do printf '%6d  %s\n' "$(count "$f")" "$f"; done | sort -rn
fi
if [[ ${1:-} == --check ]] && awk -v r="$ratio" -v m="$max" 'BEGIN { exit !(r > m) }'; then
  echo "test-size.sh: the test code is more than $max of the library" >&2
  exit 1
fi
