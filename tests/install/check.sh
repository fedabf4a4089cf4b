#!/usr/bin/env bash
# Package check: builds the Debian packages of a configured build tree with
# cpack, unpacks them into a fresh root, checks the layout, then builds the
# consumer in this folder, the demo firmware and the guide's example outside
# the source tree, once with pkg-config and once with find_package(quorvin),
# and runs them.
#
#   tests/install/check.sh [build-dir]      (default: build/default)
#
# A cross build (the arm64 preset) is checked the same way with its own
# compiler, and its programs run under the build's emulator (qemu-user).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-$root/build/default}" && pwd)
[[ -f $build/CMakeCache.txt ]] || { echo "package check: $build is not a configured build" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/quorvin-package.XXXXXX")
cleanup() { rm -rf "$work"; }
trap cleanup EXIT
fail() { echo "package check: $*" >&2; exit 1; }
env_file=$build/package/build.env
[[ -f $env_file ]] || fail "$env_file is missing: configure the build again"
# shellcheck source=/dev/null  # written by cmake/Package.cmake
source "$env_file"
cc=$package_cc
arch=$package_arch
toolchain=$package_toolchain
emulator=("${package_emulator[@]}")

echo "-- building the packages of $build"
rm -rf "$build/packages"
(cd "$build" && cpack >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log" >&2; fail "cpack failed"; }
runtime=$(find "$build/packages" -maxdepth 1 -name "libquorvin9_*_$arch.deb" -print -quit)
development=$(find "$build/packages" -maxdepth 1 -name "libquorvin-dev_*_$arch.deb" -print -quit)
[[ -n $runtime && -n $development ]] || fail "expected libquorvin9 and libquorvin-dev for $arch, found: $(ls "$build/packages")"
for deb in "$runtime" "$development"; do
  echo "   $(basename "$deb"): $(dpkg-deb -f "$deb" Package Version Architecture Depends | tr '\n' ' ')"
done
[[ $(dpkg-deb -f "$development" Depends) == "libquorvin9 (= $(dpkg-deb -f "$runtime" Version))" ]] ||
  fail "libquorvin-dev does not depend on its own libquorvin9"
if dpkg-deb -c "$runtime" | grep -q '/include/\|\.pc$\|libquorvin\.so$'; then
  fail "the runtime package carries development files"
fi

fresh=$work/root
dpkg-deb -x "$runtime" "$fresh"
dpkg-deb -x "$development" "$fresh"
prefix=$fresh/usr

# Layout: the library with its soname links in Debian's multiarch folder, the
# headers, both package files.
case $arch in amd64) multiarch=x86_64-linux-gnu ;; arm64) multiarch=aarch64-linux-gnu ;; *) multiarch=$arch ;; esac
libdir=$(dirname "$(find "$prefix" -name 'libquorvin.so.9.0.0' -print -quit)")
[[ $libdir == "$prefix/lib/$multiarch" ]] || fail "the library is in ${libdir#"$fresh"}, not in /usr/lib/$multiarch"
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
if find "$fresh" \( -name '*quorvin_internal*' -o -name '*quorvin_objects*' -o -name '*.a' \) | grep -q .; then
  fail "an internal library was packaged"
fi

# The programs are built from copies, so nothing can refer back into the tree.
cp -r "$here" "$work/src"
cp "$root/examples/demo_firmware.c" "$root/examples/guide_example.c" "$work/src/"

# Checks that a program needs the packaged library and takes it when run.
check_links() {
  local app=$1 how=$2
  readelf -d "$app" | grep -q 'NEEDED.*\[libquorvin.so.9\]' || fail "$how: $(basename "$app") does not need libquorvin.so.9"
  if ((${#emulator[@]} == 0)); then
    local resolved
    resolved=$(env LD_LIBRARY_PATH="$libdir" ldd "$app" | awk '$1 == "libquorvin.so.9" { print $3 }')
    [[ $resolved == "$libdir/libquorvin.so.9" ]] || fail "$how: libquorvin.so.9 resolves to '$resolved'"
  fi
}
run_programs() {
  local dir=$1 how=$2
  check_links "$dir/app" "$how"
  check_links "$dir/demo_firmware" "$how"
  check_links "$dir/guide_example" "$how"
  echo "-- $how consumer:"
  env LD_LIBRARY_PATH="$libdir" "${emulator[@]}" "$dir/app" || fail "$how: the consumer failed"
  echo "-- $how demo firmware:"
  LD_LIBRARY_PATH="$libdir" "$root/examples/check_demo.sh" "${emulator[@]}" "$dir/demo_firmware" >"$work/demo.log" 2>&1 ||
    { cat "$work/demo.log" >&2; fail "$how: the demo firmware check failed"; }
  tail -n 1 "$work/demo.log"
  echo "-- $how guide example:"
  LD_LIBRARY_PATH="$libdir" "$root/examples/check_guide_example.sh" "${emulator[@]}" "$dir/guide_example" >"$work/guide.log" 2>&1 ||
    { cat "$work/guide.log" >&2; fail "$how: the guide example check failed"; }
  tail -n 1 "$work/guide.log"
}

# Installed, the packages' folders are the system's, which pkg-config leaves out.
flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig PKG_CONFIG_SYSTEM_LIBRARY_PATH=/usr/lib/$multiarch pkg-config --cflags --libs quorvin)
[[ ${flags% } == -lquorvin ]] || fail "pkg-config --cflags --libs quorvin prints '$flags' for /usr, not just -lquorvin"
flags=$(PKG_CONFIG_SYSROOT_DIR= PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --define-variable=prefix="$prefix" --cflags --libs quorvin)
echo "-- pkg-config --cflags --libs quorvin, unpacked under $prefix: $flags"
mkdir -p "$work/pkg-config"
# shellcheck disable=SC2086  # the flags are meant to be split
"$cc" -std=c11 -Wall -Wextra -Werror -o "$work/pkg-config/app" "$work/src/consumer.c" $flags
# shellcheck disable=SC2086
"$cc" -std=gnu11 -Wall -Wextra -o "$work/pkg-config/demo_firmware" "$work/src/demo_firmware.c" $flags
# shellcheck disable=SC2086
"$cc" -std=c11 -Wall -Wextra -Werror -o "$work/pkg-config/guide_example" "$work/src/guide_example.c" $flags
run_programs "$work/pkg-config" pkg-config

echo "-- find_package(quorvin)"
cmake -S "$work/src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release \
  ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain" -Dquorvin_DIR="$libdir/cmake/quorvin"} >/dev/null
cmake --build "$work/cmake-build" >/dev/null
run_programs "$work/cmake-build" find_package

echo "-- package check passed ($arch)"
