#!/usr/bin/env bash
# Builds libipc_db against "device" platform libraries instead of the host
# stand-ins, the way an embedded build does (IPC_DB_PLATFORM_LIBRARIES), and
# shows that it links and runs with them: the device libraries are played by
# libzb_log.so and libsecurec.so, built here from the stand-ins' sources under
# other names. Checks that libipc_db.so needs those two and not
# libipc_platform.so, that the install carries no stand-in, and runs the
# consumer built with pkg-config against the installed prefix.
#
# Usage: device_platform_test.sh --source DIR --cxx COMPILER
set -euo pipefail

source_dir=""; cxx=""
while [[ $# -gt 0 ]]; do
  case "$1" in
    --source) source_dir="$2"; shift 2 ;;
    --cxx) cxx="$2"; shift 2 ;;
    *) echo "device_platform_test: unknown argument $1" >&2; exit 2 ;;
  esac
done

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

step() { echo "+ $*"; "$@"; }
quiet_step() {
  echo "+ $*"
  "$@" >"$work/step.log" 2>&1 || { cat "$work/step.log"; return 1; }
}
fail() { echo "device_platform_test: FAILED: $*"; exit 1; }

echo "== the device's libraries (played by the stand-ins' sources)"
device="$work/device"
mkdir -p "$device"
step "$cxx" -std=c++17 -O0 -shared -fPIC -pthread -I"$source_dir/platform/include" \
  "$source_dir/platform/src/zb_log.cpp" -o "$device/libzb_log.so" -Wl,-soname,libzb_log.so
step "$cxx" -std=c++17 -O0 -shared -fPIC -I"$source_dir/platform/include" \
  "$source_dir/platform/src/bounded_mem.cpp" -o "$device/libsecurec.so" -Wl,-soname,libsecurec.so

echo "== libipc_db against them (-O0: this checks linking, not speed)"
quiet_step cmake -S "$source_dir" -B "$work/build" -DCMAKE_BUILD_TYPE=None \
  -DCMAKE_CXX_FLAGS=-O0 -DIPC_DB_BUILD_TESTS=OFF -DIPC_DB_BUILD_EXAMPLES=OFF \
  "-DIPC_DB_PLATFORM_LIBRARIES=$device/libzb_log.so;$device/libsecurec.so"
quiet_step cmake --build "$work/build" --target ipc_db -j 2
needed="$(readelf -d "$work/build/libipc_db.so" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')"
echo "libipc_db.so needs: $(echo $needed)"
grep -qx libzb_log.so <<<"$needed" || fail "libzb_log.so not needed"
grep -qx libsecurec.so <<<"$needed" || fail "libsecurec.so not needed"
if grep -q ipc_platform <<<"$needed"; then fail "the stand-in is still needed"; fi

echo "== install and consume with pkg-config"
prefix="$work/prefix"
quiet_step cmake --install "$work/build" --prefix "$prefix"
if find "$prefix" -name 'libipc_platform*' -o -name zb_log.h -o -name bounded_mem.h | grep -q .; then
  fail "the install carries a stand-in"
fi
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
step pkg-config --libs ipc_db
read -r -a pc_flags <<<"$(pkg-config --cflags --libs ipc_db)"
step "$cxx" -std=c++17 -o "$work/consumer" "$source_dir/examples/consumer/main.cpp" \
  "${pc_flags[@]}" "-Wl,-rpath-link,$device"
# On the device the platform's libraries lie in the loader's default path.
step env "LD_LIBRARY_PATH=$prefix/lib:$device" "$work/consumer"
echo "device_platform_test: libipc_db links and runs with the device's libraries"
