#!/usr/bin/env bash
# Makes the armhf sysroot that the cross build links against: Debian's armhf
# builds of SQLCipher, OpenSSL (libcrypto, and its headers for building the
# pinned SQLCipher 4 with scripts/build-engine.py), GoogleTest and Google Benchmark,
# unpacked (never installed: the armhf development package of SQLCipher
# conflicts with the host's) into a folder of the build tree. The C library and libstdc++ come
# from the cross toolchain (/usr/arm-linux-gnueabihf), so they are not here.
#
# Usage: scripts/make-armhf-sysroot.sh [DIR]   (default build/sysroot-armhf)
# Does nothing when DIR already holds the same package set. Needs root (or
# sudo) for `dpkg --add-architecture` and `apt-get update`.
set -euo pipefail
cd "$(dirname "$0")/.."

sysroot="${1:-build/sysroot-armhf}"
packages=(libsqlcipher0 libsqlcipher-dev libssl3 libssl-dev libgtest-dev
          libbenchmark1debian libbenchmark-dev)
stamp="$sysroot/.ipc_db-sysroot"
wanted="${packages[*]}"

if [[ -f "$stamp" && "$(cat "$stamp")" == "$wanted" ]]; then
  exit 0
fi

SUDO=""
[[ $(id -u) -ne 0 ]] && SUDO="sudo"

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  echo "make-armhf-sysroot: adding the armhf architecture to dpkg" >&2
  $SUDO dpkg --add-architecture armhf
fi

armhf_known() { apt-cache show "libsqlcipher0:armhf" >/dev/null 2>&1; }

# One index failing while a mirror syncs is tolerated: the others are usable.
# Updating is only needed when apt does not know the armhf packages yet.
if ! armhf_known; then
  $SUDO apt-get update ||
    echo "make-armhf-sysroot: apt-get update reported an error; going on" >&2
fi
if ! armhf_known; then
  echo "make-armhf-sysroot: apt knows no armhf packages; cannot make $sysroot" >&2
  exit 1
fi

debs="$(mktemp -d)"
trap 'rm -rf "$debs"' EXIT
chmod 0777 "$debs"  # apt's download sandbox user writes here
armhf_names=()
for package in "${packages[@]}"; do armhf_names+=("$package:armhf"); done
(cd "$debs" && apt-get download "${armhf_names[@]}")

rm -rf "$sysroot"
mkdir -p "$sysroot"
for deb in "$debs"/*.deb; do
  echo "make-armhf-sysroot: unpacking $(basename "$deb")"
  dpkg -x "$deb" "$sysroot"
done

# The development symlink libsqlcipher.so is absolute in some releases;
# make every symlink in the library folder relative to stay inside DIR.
libdir="$sysroot/usr/lib/arm-linux-gnueabihf"
for link in "$libdir"/*.so; do
  [[ -L "$link" ]] || continue
  target="$(readlink "$link")"
  [[ "$target" == /* ]] && ln -sf "$(basename "$target")" "$link"
done

echo "$wanted" >"$stamp"
echo "make-armhf-sysroot: sysroot ready in $sysroot"
