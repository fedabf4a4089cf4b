#!/usr/bin/env bash
# Installs the Debian packages that building and testing quorvin needs, and
# nothing when they are all present. Runs without questions (CI, no terminal).
#
#   scripts/bootstrap.sh
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  util-linux mount                       # unshare, setarch, mount (the demo check)
  googletest libgtest-dev libgmock-dev   # GoogleTest sources in /usr/src/googletest
  libbenchmark-dev
  gcovr                                  # scripts/coverage.sh
  g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user   # the arm64 build and its tests
  systemtap-sdt-dev gdb gdb-multiarch bpftrace                 # tracepoints and the debugger tests
)

installed() {
  [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

missing=()
for package in "${packages[@]}"; do
  installed "$package" || missing+=("$package")
done
# The tests build GoogleTest from these sources; reinstall them if they are gone.
reinstall=()
if installed googletest && [[ ! -f /usr/src/googletest/CMakeLists.txt ]]; then
  reinstall=(googletest)
fi
if ((${#missing[@]} + ${#reinstall[@]} == 0)); then
  echo "bootstrap: all build and test packages are installed"
  exit 0
fi

as_root=()
if ((EUID != 0)); then
  command -v sudo >/dev/null || { echo "bootstrap: need root (or sudo) to install: ${missing[*]} ${reinstall[*]}" >&2; exit 1; }
  as_root=(sudo -n)
fi
apt() { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -y -q "$@" </dev/null; }

echo "bootstrap: installing ${missing[*]} ${reinstall[*]}"
apt update
((${#missing[@]} == 0)) || apt install --no-install-recommends -o Dpkg::Options::=--force-confold "${missing[@]}"
((${#reinstall[@]} == 0)) || apt install --reinstall "${reinstall[@]}"

for package in "${packages[@]}"; do
  installed "$package" || { echo "bootstrap: $package did not install" >&2; exit 1; }
done
[[ -f /usr/src/googletest/CMakeLists.txt ]] || { echo "bootstrap: /usr/src/googletest is incomplete" >&2; exit 1; }
echo "bootstrap: done"
