#!/usr/bin/env bash
# Install check: installs a built tree into a temporary prefix, then builds the
# consumer in this folder outside the source tree twice, once with pkg-config
# and once with find_package(quorvin), and runs both.
#
#   tests/install/check.sh [build-dir]      (default: build/default)
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${1:-$root/build/default}
[[ -f $build/CMakeCache.txt ]] || { echo "install check: $build is not a configured build" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/quorvin-install.XXXXXX")
cleanup() { rm -rf "$work"; }
trap cleanup EXIT
prefix=$work/prefix

fail() { echo "install check: $*" >&2; exit 1; }

echo "-- installing $build into $prefix"
cmake --install "$build" --prefix "$prefix"

# Layout: the library with its soname links, the headers, both package files.
libdir=$(dirname "$(find "$prefix" -name 'libquorvin.so.9.0.0' -print -quit)")
[[ $libdir != . && -f $libdir/libquorvin.so.9.0.0 && ! -L $libdir/libquorvin.so.9.0.0 ]] ||
  fail "libquorvin.so.9.0.0 is not installed as a file"
[[ $(readlink "$libdir/libquorvin.so.9") == libquorvin.so.9.0.0 ]] || fail "libquorvin.so.9 does not point to libquorvin.so.9.0.0"
[[ $(readlink "$libdir/libquorvin.so") == libquorvin.so.9 ]] || fail "libquorvin.so does not point to libquorvin.so.9"
soname=$(LC_ALL=C readelf -d "$libdir/libquorvin.so.9.0.0" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[[ $soname == libquorvin.so.9 ]] || fail "soname is '$soname'"
for header in "$root"/include/quorvin/*.h; do
  [[ -f $prefix/include/quorvin/$(basename "$header") ]] || fail "header $(basename "$header") is not installed"
done
for file in quorvinConfig.cmake quorvinConfigVersion.cmake quorvinTargets.cmake; do
  [[ -f $libdir/cmake/quorvin/$file ]] || fail "$file is not installed"
done
[[ -f $libdir/pkgconfig/quorvin.pc ]] || fail "quorvin.pc is not installed"
pkg-config --validate "$libdir/pkgconfig/quorvin.pc" || fail "quorvin.pc does not validate"
if find "$prefix" \( -name '*quorvin_internal*' -o -name '*quorvin_objects*' -o -name '*.a' \) | grep -q .; then
  fail "an internal library was installed"
fi

# The consumer is built from a copy, so nothing can refer back into the tree.
cp -r "$here" "$work/src"

# Runs the consumer and checks that it took the installed library.
run_consumer() {
  local app=$1 how=$2
  readelf -d "$app" | grep -q 'NEEDED.*\[libquorvin.so.9\]' || fail "$how: the consumer does not need libquorvin.so.9"
  local resolved
  resolved=$(env LD_LIBRARY_PATH="${3:-}" ldd "$app" | awk '$1 == "libquorvin.so.9" { print $3 }')
  [[ $resolved == "$libdir/libquorvin.so.9" ]] || fail "$how: libquorvin.so.9 resolves to '$resolved'"
  echo "-- $how consumer:"
  env LD_LIBRARY_PATH="${3:-}" "$app" || fail "$how: the consumer failed"
}

echo "-- pkg-config --cflags --libs quorvin: $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs quorvin)"
# shellcheck disable=SC2046  # the flags are meant to be split
cc -std=c11 -Wall -Wextra -Werror -o "$work/app-pkgconfig" "$work/src/consumer.c" \
  $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs quorvin)
run_consumer "$work/app-pkgconfig" pkg-config "$libdir"

echo "-- find_package(quorvin)"
cmake -S "$work/src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake-build" >/dev/null
run_consumer "$work/cmake-build/app" find_package

echo "-- install check passed"
