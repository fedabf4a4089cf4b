#!/usr/bin/env bash
# Debugger and tracepoint checks on the fixture firmware (fixture.c).
#   check.sh <live|core|probes|bpftrace> <fixture> <library dir> <source dir> [emulator ...]
# GDB names the debugger (gdb, or gdb-multiarch for a cross build).
set -uo pipefail
if [[ -z ${QV_ISOLATED:-} ]] && unshare --mount --ipc --propagation private true 2>/dev/null; then
  export QV_ISOLATED=1  # own mount (a tmpfs for the pid list) and IPC namespaces
  exec unshare --mount --ipc --propagation private bash -c 'mount -t tmpfs tmpfs "$(readlink -f /var/run)" && exec "$0" "$@"' "$0" "$@"
fi
mode=$1 fixture=$2 libdir=$3 src=$4
shift 4
emulator=("$@")
gdb=${GDB:-gdb}
skip() { echo "SKIPPED: $*"; exit 0; }
fail() { echo "FAILED: $*"; exit 1; }
work=$(mktemp -d) && trap 'rm -rf "$work"' EXIT && cd "$work" || exit 1
cp -L "$libdir/libquorvin.so.9" . && "${STRIP:-strip}" libquorvin.so.9  # the symbol table goes, as in the package
export LD_LIBRARY_PATH=$work
[[ $mode == probes ]] || { [[ -z ${QV_SKIP:-} ]] || skip "$QV_SKIP"; command -v "$gdb" >/dev/null || skip "$gdb is not installed"; }
gdb_run() { timeout 150 "$gdb" -nx -batch -ex 'set debuginfod enabled off' -ex "source $src/tools/gdb/quorvin.py" "$@" 2>&1; }
commands=(-ex 'quorvin threads' -ex 'quorvin objects' -ex 'quorvin requests')

expect_waiters() {  # what the fixture set up, one pattern per line, matched in the order shown
  echo "$1"
  awk 'NR == FNR { pattern[++n] = $0; next } i < n && $0 ~ pattern[i + 1] { i++ }
    END { if (i < n) { print "FAILED: no line \"" pattern[i + 1] "\" after the last match"; exit 1 } }' - <(echo "$1") <<'EOF_PATTERNS' || exit 1
^0x[0-9a-f]+ +"owner" +[1-9][0-9]* ready +5 
^0x[0-9a-f]+ +"first" +[1-9][0-9]* mutex wait +10 .*mutex "guard" get, forever$
^0x[0-9a-f]+ +"timed" +[1-9][0-9]* mutex wait .*mutex "guard" get, [0-9]+ ticks left$
"hungry" .* block-pool wait .*block pool "empty" allocate, forever$
"sender" .* queue wait .*queue 0x[0-9a-f]+ send, forever$
^dispatcher "CMRH" +tid [1-9]
^mutex "guard" .*: owned, owner "owner"$
^    waiter 1: "first" \(forever\)$
^    waiter 2: "timed" \([0-9]+ ticks left\)$
^block pool "empty" .*: 0 of 2 blocks of 16 bytes available, largest request 1 block$
^    waiter 1: "hungry" \(forever\)$
^queue 0x[0-9a-f]+: 1 of 1 messages, full$
^    waiter 1: "sender" \(forever\), send$
^sleep list:$
^    0x[0-9a-f]+: "timed", mutex "guard" get, [0-9]+ ticks left$
EOF_PATTERNS
}

case $mode in
  live)  # the parked probe stops the fixture first, at the first waiter's forever wait; then the commands
    ((${#emulator[@]} == 0)) || skip "gdb does not run a program under the emulator"
    out=$(gdb_run -ex 'set breakpoint pending on' -ex 'tbreak -probe-stap quorvin:parked' -ex run -ex 'print $_probe_argc' \
      -ex 'print $_probe_arg3' -ex 'break fixture_ready' -ex continue "${commands[@]}" -ex kill --args "$fixture")
    expect_waiters "$out"
    grep -qE '^\$1 = 4$' <<<"$out" && grep -qE '^\$2 = 4294967295$' <<<"$out" || fail "the parked probe did not stop with its four arguments" ;;
  core)
    if ((${#emulator[@]} == 0)) && [[ $(cat /proc/sys/kernel/core_pattern) == '|'* ]]; then
      echo "core_pattern pipes to a program: the core is written by gdb's gcore at the abort instead"
      gdb_run -ex run -ex 'gcore core' --args "$fixture" abort >/dev/null
    else
      ulimit -c unlimited
      "${emulator[@]}" "$fixture" abort >/dev/null 2>&1
    fi
    shopt -s nullglob; cores=(qemu_*.core core*)  # qemu writes the guest's core first, then its own
    core=${cores[0]:-} && [[ -f $core ]] || fail "no core file in $work ($(ls))"
    sysroot=(); ((${#emulator[@]} < 3)) || sysroot=(-ex "set sysroot ${emulator[2]}" -ex "set solib-search-path $work")
    expect_waiters "$(gdb_run "${sysroot[@]}" -ex "file $fixture" -ex "core-file $core" "${commands[@]}")" ;;
  probes)
    notes=$(readelf -n libquorvin.so.9)
    for probe in request__queued request__dispatched request__completed parked released mutex__handover \
                 thread__created thread__started thread__suspended thread__resumed thread__terminated \
                 thread__deleted timer__expired tick; do
      grep -q "Name: $probe\$" <<<"$notes" || fail "probe $probe is not in the library"
    done
    echo "all probes present" ;;
  bpftrace)
    ((${#emulator[@]} == 0)) || skip "bpftrace traces host programs only"
    command -v bpftrace >/dev/null || skip "bpftrace is not installed"
    timeout 60 bpftrace "$src/tools/bpftrace/holders.bt" "$work/libquorvin.so.9" >trace.txt 2>&1 &
    for _ in $(seq 100); do grep -q '^Attaching' trace.txt && break; sleep 0.1; done
    grep -q '^Attaching' trace.txt || skip "bpftrace cannot attach here: $(grep -v RLIMIT trace.txt | head -2)"
    "$fixture" abort >/dev/null 2>&1; kill -INT %1; wait
    cat trace.txt; grep -q '^@takes\[guard, owner\]: 1$' trace.txt || fail "holders.bt saw no take of guard" ;;
esac
