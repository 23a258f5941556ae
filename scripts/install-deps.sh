#!/usr/bin/env bash
# Installs the Debian packages that building and testing ipc_db need, skipping
# those already present. Tolerates a transient `apt-get update` failure (a
# mirror that is syncing): the other indexes are still usable.
set -euo pipefail

packages=(cmake g++ make pkg-config libsqlcipher-dev sqlcipher libgtest-dev libbenchmark-dev)
if [[ "${1:-}" == "--all" ]]; then
  packages+=(g++-arm-linux-gnueabihf qemu-user valgrind clang libclang-rt-14-dev python3)
fi

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
