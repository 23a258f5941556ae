#!/usr/bin/env bash
# Installs the Debian packages that one purpose needs, skipping those
# already present:
#   demo  the host build of the library and its example (compiler, CMake,
#         SQLCipher and its shell, which the repair tool wraps)
#   test  demo + what the quick test tier builds and runs (GoogleTest,
#         Google Benchmark, pkg-config for the package test, python3 for the
#         reports)
#   cross demo + what a device team's armhf build needs and nothing of the
#         test tiers: the armhf cross compiler, qemu-arm to run the result,
#         pkg-config, and what building the pinned SQLCipher 4.6.1 needs
#         (python3, dpkg-dev, tcl, OpenSSL's headers); the armhf libraries
#         come from scripts/make-armhf-sysroot.sh
#   full  test + the full tier's tools (valgrind, clang-14 and its libFuzzer
#         runtime, the armhf cross compiler and qemu-arm; the armhf libraries
#         come from scripts/make-armhf-sysroot.sh) and what building the
#         pinned SQLCipher 4.6.1 needs (scripts/build-engine.py: dpkg-dev for
#         dpkg-source and dpkg-buildflags, tcl for its source generators,
#         OpenSSL's headers)
# Tolerates a transient `apt-get update` failure (a mirror that is
# syncing): the other indexes are still usable.
#
# Usage: scripts/install-deps.sh [demo|test|cross|full]   (default: full)
set -euo pipefail

demo=(cmake g++ make libsqlcipher-dev sqlcipher)
test=("${demo[@]}" libgtest-dev libbenchmark-dev pkg-config python3)
cross=("${demo[@]}" g++-arm-linux-gnueabihf qemu-user pkg-config python3 dpkg-dev tcl libssl-dev)
full=("${test[@]}" valgrind clang-14 libclang-rt-14-dev g++-arm-linux-gnueabihf qemu-user
      dpkg-dev tcl libssl-dev)

case "${1:-full}" in
  demo) packages=("${demo[@]}") ;;
  test) packages=("${test[@]}") ;;
  cross) packages=("${cross[@]}") ;;
  full) packages=("${full[@]}") ;;
  *) echo "usage: $0 demo|test|cross|full" >&2; exit 2 ;;
esac

missing=()
for package in "${packages[@]}"; do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

SUDO=""
[[ $(id -u) -ne 0 ]] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update || echo "install-deps: apt-get update reported an error; going on" >&2
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
