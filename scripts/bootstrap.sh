#!/usr/bin/env bash
# Installs the Debian packages that quorvin needs, and nothing when they are
# all present. Runs without questions (CI, no terminal), except that sudo may
# ask for the user's password.
#
#   scripts/bootstrap.sh          everything the tests need (scripts/test.sh, .ci/run)
#   scripts/bootstrap.sh --demo   only what the demo needs (scripts/demo.sh)
set -euo pipefail

# The demo: a C and C++ compiler, CMake, make; unshare and mount run it in a
# private mount namespace (both are part of every Debian installation).
demo_packages=(
  gcc g++ cmake make
  util-linux mount
)
# The tests: the demo's packages and the tools of the test suite, CI and the
# package check. One line per tool.
test_packages=(
  "${demo_packages[@]}"
  pkg-config
  file                                   # cpack's Debian generator
  googletest libgtest-dev libgmock-dev   # GoogleTest sources in /usr/src/googletest
  gcovr                                  # scripts/coverage.sh
  g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user   # the arm64 build and its tests
  systemtap-sdt-dev gdb gdb-multiarch bpftrace                 # tracepoints and the debugger tests
  clang-format                                                 # scripts/test-size.sh counts code as it lays it out
)

case ${1:-} in
  "") packages=("${test_packages[@]}") what="build and test" ;;
  --demo) packages=("${demo_packages[@]}") what="demo" ;;
  *) echo "usage: $0 [--demo]" >&2; exit 2 ;;
esac

installed() {
  [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

missing=()
for package in "${packages[@]}"; do
  installed "$package" || missing+=("$package")
done
# The tests build GoogleTest from these sources; reinstall them if they are gone.
reinstall=()
if [[ $what != demo ]] && installed googletest && [[ ! -f /usr/src/googletest/CMakeLists.txt ]]; then
  reinstall=(googletest)
fi
if ((${#missing[@]} + ${#reinstall[@]} == 0)); then
  echo "bootstrap: all $what packages are installed"
  exit 0
fi

as_root=()
if ((EUID != 0)); then
  command -v sudo >/dev/null || { echo "bootstrap: need root or sudo to install: ${missing[*]} ${reinstall[*]}" >&2; exit 1; }
  as_root=(sudo)   # asks for the password where sudo needs one
fi
apt() { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -y -q "$@" </dev/null; }

echo "bootstrap: installing the missing $what packages: ${missing[*]} ${reinstall[*]}"
apt update
((${#missing[@]} == 0)) || apt install --no-install-recommends -o Dpkg::Options::=--force-confold "${missing[@]}"
((${#reinstall[@]} == 0)) || apt install --reinstall "${reinstall[@]}"

for package in "${packages[@]}"; do
  installed "$package" || { echo "bootstrap: $package did not install" >&2; exit 1; }
done
[[ $what == demo || -f /usr/src/googletest/CMakeLists.txt ]] || { echo "bootstrap: /usr/src/googletest is incomplete" >&2; exit 1; }
echo "bootstrap: done"
