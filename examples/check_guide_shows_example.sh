#!/bin/sh
# Checks that the guide shows the example program exactly as it is in the
# source tree: the C block that follows the line "<!-- examples/guide_example.c -->".
# Usage: check_guide_shows_example.sh docs/guide.md examples/guide_example.c
set -eu
shown=$(awk '
  /^<!-- examples\/guide_example\.c -->$/ { marker = 1; next }
  marker && /^```c$/ { inside = 1; marker = 0; next }
  inside && /^```$/ { exit }
  inside { print }' "$1")
[ -n "$shown" ] || { echo "FAILED: $1 has no C block after the example marker"; exit 1; }
if printf '%s\n' "$shown" | diff -u - "$2"; then
  echo "the guide shows $2 as it is"
else
  echo "FAILED: the example in $1 differs from $2 (diff above)"
  exit 1
fi
