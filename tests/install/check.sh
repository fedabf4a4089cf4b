#!/usr/bin/env bash
# Package check: builds the Debian packages of a configured build tree with cpack, unpacks them into a
# fresh root, checks the layout, then builds the consumer in this folder, the demo firmware and the
# guide's example outside the source tree, once with pkg-config and once with find_package(quorvin), and
# runs them (a cross build under the build's emulator).
#   tests/install/check.sh [build-dir]      (default: build/default)
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd) && root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-$root/build/default}" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/quorvin-package.XXXXXX") && trap 'rm -rf "$work"' EXIT
fail() { echo "package check: $*" >&2; exit 1; }
# shellcheck source=/dev/null  # written by cmake/Package.cmake: package_cc, _arch, _toolchain, _emulator
source "$build/package/build.env" || fail "configure $build again"
arch=$package_arch && emulator=("${package_emulator[@]}")
rm -rf "$build/packages" && (cd "$build" && cpack >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log" >&2; fail "cpack failed"; }
runtime=$(ls "$build"/packages/libquorvin9_*_"$arch".deb) && dev=$(ls "$build"/packages/libquorvin-dev_*_"$arch".deb) || fail "packages missing"
[[ $(dpkg-deb -f "$dev" Depends) == "libquorvin9 (= $(dpkg-deb -f "$runtime" Version))" ]] || fail "libquorvin-dev does not depend on its libquorvin9"
! dpkg-deb -c "$runtime" | grep -q '/include/\|\.pc$\|libquorvin\.so$' || fail "the runtime package carries development files"
dpkg-deb -x "$runtime" "$work/root" && dpkg-deb -x "$dev" "$work/root" && prefix=$work/root/usr
# Layout: the library with its soname links in Debian's multiarch folder, the headers, both package files.
case $arch in amd64) multiarch=x86_64-linux-gnu ;; arm64) multiarch=aarch64-linux-gnu ;; *) multiarch=$arch ;; esac
lib=$prefix/lib/$multiarch
[[ -f $lib/libquorvin.so.9.0.0 && ! -L $lib/libquorvin.so.9.0.0 ]] || fail "libquorvin.so.9.0.0 is not a file in /usr/lib/$multiarch"
[[ $(readlink "$lib/libquorvin.so.9")/$(readlink "$lib/libquorvin.so") == libquorvin.so.9.0.0/libquorvin.so.9 ]] || fail "soname links"
LC_ALL=C readelf -d "$lib/libquorvin.so.9.0.0" | grep -q 'SONAME.*\[libquorvin.so.9\]' || fail "soname"
for f in "$root"/include/quorvin/*.h; do [[ -f $prefix/include/quorvin/${f##*/} ]] || fail "header ${f##*/} missing"; done
for f in cmake/quorvin/quorvinConfig.cmake cmake/quorvin/quorvinConfigVersion.cmake cmake/quorvin/quorvinTargets.cmake pkgconfig/quorvin.pc; do
  [[ -f $lib/$f ]] || fail "$f is not installed"; done
pkg-config --validate "$lib/pkgconfig/quorvin.pc" || fail "quorvin.pc does not validate"
! find "$work/root" \( -name '*quorvin_internal*' -o -name '*quorvin_objects*' -o -name '*.a' \) | grep -q . || fail "an internal library was packaged"
# Installed, the packages' folders are the system's, which pkg-config leaves out.
flags=$(PKG_CONFIG_PATH=$lib/pkgconfig PKG_CONFIG_SYSTEM_LIBRARY_PATH=/usr/lib/$multiarch pkg-config --cflags --libs quorvin)
[[ ${flags% } == -lquorvin ]] || fail "pkg-config prints '$flags' for /usr, not just -lquorvin"
flags=$(PKG_CONFIG_SYSROOT_DIR='' PKG_CONFIG_PATH=$lib/pkgconfig pkg-config --define-variable=prefix="$prefix" --cflags --libs quorvin)
cp -r "$here" "$work/src" && cp "$root"/examples/{demo_firmware,guide_example}.c "$work/src/"  # nothing refers back into the tree
mkdir "$work/pkg-config"
for app in consumer:app demo_firmware guide_example; do  # shellcheck disable=SC2086  # the flags are meant to be split
  "$package_cc" -std=gnu11 -Wall -Wextra -o "$work/pkg-config/${app#*:}" "$work/src/${app%:*}.c" $flags || fail "pkg-config build of ${app%:*}"; done
cmake -S "$work/src" -B "$work/find_package" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release \
  ${package_toolchain:+-DCMAKE_TOOLCHAIN_FILE="$package_toolchain" -Dquorvin_DIR="$lib/cmake/quorvin"} >/dev/null
cmake --build "$work/find_package" >/dev/null || fail "find_package build"
for how in pkg-config find_package; do  # each program needs the packaged library and takes it when run
  for app in app demo_firmware guide_example; do
    readelf -d "$work/$how/$app" | grep -q 'NEEDED.*\[libquorvin.so.9\]' || fail "$how: $app does not need libquorvin.so.9"
    ((${#emulator[@]})) || [[ $(LD_LIBRARY_PATH=$lib ldd "$work/$how/$app" | awk '$1 == "libquorvin.so.9" { print $3 }') == "$lib/libquorvin.so.9" ]] ||
      fail "$how: $app does not take the packaged library"; done
  LD_LIBRARY_PATH=$lib "${emulator[@]}" "$work/$how/app" || fail "$how: the consumer failed"
  for program in demo_firmware guide_example; do
    LD_LIBRARY_PATH=$lib "$root/examples/check_demo.sh" "${emulator[@]}" "$work/$how/$program" >"$work/log" 2>&1 ||
      { cat "$work/log" >&2; fail "$how: the $program check failed"; }; done
  echo "-- $how: consumer, demo firmware and guide example built and ran"
done
echo "-- package check passed ($arch)"
