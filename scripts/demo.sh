#!/usr/bin/env bash
# Builds and runs the demo firmware: scripts/demo.sh [seconds]
#
# Installs only what the demo needs when it is missing (scripts/bootstrap.sh
# --demo: a C/C++ compiler, CMake, make), builds examples/demo_firmware in
# build/demo (without the tests and benchmarks) and runs it.
#
# The system writes its pid list to /var/run/velmora/velmora_pid.lst. The demo
# runs in a private mount namespace with its own tmpfs there, so it needs no
# folder on the machine and leaves nothing behind; the pid list is printed at
# the end. A user other than root gets the namespace from a user namespace.
# Where no namespace can be made, one line says why, and the demo runs
# directly if /var/run/velmora is writable, or the line says how to run it.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-5}"
if [ "${QUORVIN_SKIP_BOOTSTRAP:-0}" != 1 ]; then
  scripts/bootstrap.sh --demo
fi
build=build/demo
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVIN_BUILD_TESTS=OFF -DQUORVIN_BUILD_BENCH=OFF > /dev/null
cmake --build "$build" --target demo_firmware -j "${QUORVIN_JOBS:-2}" > /dev/null
demo="$PWD/$build/examples/demo_firmware"

isolate=(unshare --mount --propagation private)
((EUID == 0)) || isolate=(unshare --user --map-root-user --mount --propagation private)
if why=$("${isolate[@]}" true 2>&1); then
  run_dir="$(readlink -f /var/run)"
  exec "${isolate[@]}" bash -c '
    mount -t tmpfs tmpfs "$1" && mkdir -p "$1/velmora" || exit 1
    "$2" "$3"; status=$?
    echo "--- pid list ($1/velmora/velmora_pid.lst)"
    cat "$1/velmora/velmora_pid.lst"
    exit $status' demo "$run_dir" "$demo" "$seconds"
fi

why=${why%%$'\n'*}
why=${why:-${isolate[*]} failed}
mountpoint -q / || why="$why; / is not a mount point (in a chroot, bind-mount its root on itself first)"
if [ -d /var/run/velmora ] && [ -w /var/run/velmora ]; then
  echo "demo: no private mount namespace ($why); running directly, the pid list goes to /var/run/velmora/velmora_pid.lst"
  exec "$demo" "$seconds"
fi
echo "demo: no private mount namespace ($why); to run the demo directly: mkdir -p /var/run/velmora && $build/examples/demo_firmware $seconds" >&2
exit 1
