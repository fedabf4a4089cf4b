#!/usr/bin/env bash
# Builds and runs the demo firmware: scripts/demo.sh [seconds]
#
# The system writes its pid list to /var/run/velmora/velmora_pid.lst. The demo
# runs in a private mount namespace with its own tmpfs there, so it needs no
# folder on the machine and leaves nothing behind; the pid list is printed at
# the end. Without the privilege for a namespace it runs directly, and the
# pid-list lines are reported as missing unless /var/run/velmora exists.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-5}"
if [ "${QUORVIN_SKIP_BOOTSTRAP:-0}" != 1 ] && [ -x scripts/bootstrap.sh ]; then
  scripts/bootstrap.sh
fi
cmake -S . -B build/default -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build/default --target demo_firmware -j "$(nproc)" > /dev/null
demo="$PWD/build/default/examples/demo_firmware"

run_dir="$(readlink -f /var/run)"
if unshare --mount --propagation private true 2>/dev/null; then
  exec unshare --mount --propagation private bash -c '
    mount -t tmpfs tmpfs "$1" && mkdir -p "$1/velmora" || exit 1
    "$2" "$3"; status=$?
    echo "--- pid list ($1/velmora/velmora_pid.lst)"
    cat "$1/velmora/velmora_pid.lst"
    exit $status' demo "$run_dir" "$demo" "$seconds"
fi
exec "$demo" "$seconds"
