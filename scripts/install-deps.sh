#!/usr/bin/env bash
# Installs the Debian packages that building and testing ipc_db need, skipping
# those already present. Tolerates a transient `apt-get update` failure (a
# mirror that is syncing): the other indexes are still usable.
set -euo pipefail

# The test command also cross-builds for 32-bit ARM and runs that suite under
# qemu-arm, so the cross compiler and the emulator are always needed; the
# armhf libraries come from scripts/make-armhf-sysroot.sh.
packages=(cmake g++ make pkg-config libsqlcipher-dev sqlcipher libgtest-dev
          g++-arm-linux-gnueabihf qemu-user
          libbenchmark-dev valgrind clang libclang-rt-14-dev python3)

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
