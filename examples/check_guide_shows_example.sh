#!/bin/sh
# Checks that the guide shows the example program exactly as it is in the source tree: the C block that
# follows the line "<!-- examples/guide_example.c -->".
# Usage: check_guide_shows_example.sh docs/guide.md examples/guide_example.c
awk '/^<!-- examples\/guide_example\.c -->$/ { m = 1; next } m && /^```c$/ { in_c = 1; m = 0; next }
  in_c && /^```$/ { exit } in_c { print; n++ } END { exit !n }' "$1" | diff -u - "$2" ||
  { echo "FAILED: the example in $1 differs from $2 (diff above), or $1 shows none"; exit 1; }
echo "the guide shows $2 as it is"
