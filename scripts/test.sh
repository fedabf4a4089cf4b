#!/usr/bin/env bash
# Builds quorvin and runs its whole test suite, once per preset:
#
#   scripts/test.sh                 the host build (preset "default")
#   scripts/test.sh arm64           64-bit Arm, every test under qemu-user
#   scripts/test.sh asan tsan ...   any presets of CMakePresets.json
#
# Installs missing build packages first (scripts/bootstrap.sh) unless
# QUORVIN_SKIP_BOOTSTRAP=1. Each preset builds in build/<preset>. Exits
# non-zero if any preset fails to configure, build or pass its tests.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=${QUORVIN_JOBS:-2}
presets=("$@")
((${#presets[@]} > 0)) || presets=(default)

# First, so that cmake is there to list the presets on a fresh machine.
[[ ${QUORVIN_SKIP_BOOTSTRAP:-0} == 1 ]] || "$root/scripts/bootstrap.sh"

known=$(cmake --list-presets=configure 2>/dev/null | sed -n 's/^ *"\([^"]*\)".*/\1/p' || true)
for preset in "${presets[@]}"; do
  if [[ -n $known ]] && ! grep -qx "$preset" <<<"$known"; then
    echo "test.sh: unknown preset '$preset' (known: $(echo $known))" >&2
    exit 2
  fi
done

# The sanitizer runtimes of GCC 12 expect the kernel's default amount of
# address randomization; with more (vm.mmap_rnd_bits above 28) they stop with
# "unexpected memory mapping". Such builds then run without randomization,
# which is inherited by every process the build and ctest start.
sanitizer_wrapper() {
  local bits
  bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 28)
  if ((bits > 28)); then
    echo "test.sh: vm.mmap_rnd_bits is $bits; running without address randomization (setarch -R)" >&2
    wrapper=(setarch "$(uname -m)" -R)
  fi
}

failed=()
for preset in "${presets[@]}"; do
  echo "==== $preset: configure, build, test"
  start=$SECONDS
  wrapper=()
  case $preset in
    asan | tsan) sanitizer_wrapper ;;
  esac
  if cmake --preset "$preset" &&
     "${wrapper[@]}" cmake --build --preset "$preset" -j "$jobs" &&
     "${wrapper[@]}" ctest --preset "$preset" --output-on-failure -j "$jobs"; then
    echo "==== $preset: passed ($((SECONDS - start)) s)"
  else
    echo "==== $preset: FAILED ($((SECONDS - start)) s)"
    failed+=("$preset")
  fi
done

if ((${#failed[@]} > 0)); then
  echo "test.sh: failed: ${failed[*]}"
  exit 1
fi
echo "test.sh: passed: ${presets[*]}"
