#!/bin/sh
# Builds request_bench if needed and runs both phases, printing one table.
#
#   bench/run.sh [request_bench options]     e.g. bench/run.sh --seconds=1
#
# The build goes to bench/build (override with QUORVIN_BENCH_BUILD_DIR), a
# tree of its own with tests and examples off, so it never touches build/.
# The benchmark runs in a private mount namespace with a tmpfs on /run and
# the /run/velmora folder the core writes its pid list to; where unshare is
# not allowed it runs without one (the core then prints one perror line).
set -eu

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/.." && pwd)
build_dir=${QUORVIN_BENCH_BUILD_DIR:-$here/build}
jobs=$(nproc 2>/dev/null || echo 2)

# Configure once (tests and examples off); the build step itself re-runs
# cmake when a CMakeLists.txt changed and is a no-op when nothing did.
if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  cmake -S "$source_dir" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQUORVIN_BUILD_BENCH=ON -DQUORVIN_BUILD_TESTS=OFF -DQUORVIN_BUILD_EXAMPLES=OFF >/dev/null
fi
if ! cmake --build "$build_dir" --target request_bench -j "$jobs" >"$build_dir/bench-build.log" 2>&1; then
  cat "$build_dir/bench-build.log" >&2
  echo "run.sh: build failed" >&2
  exit 1
fi

bench="$build_dir/bench/request_bench"
set -- "$bench" "$@"
if unshare -m true 2>/dev/null; then
  exec unshare -m sh -c 'mount -t tmpfs -o mode=0755 tmpfs /run && mkdir /run/velmora && exec "$@"' \
    request_bench "$@"
fi
echo "run.sh: no private mount namespace (unshare -m failed); running without one" >&2
exec "$@"
