#!/usr/bin/env bash
# Installs the build tree into a fresh prefix and builds the out-of-tree
# consumer (examples/consumer) against it twice: with CMake through
# find_package(ipc_db CONFIG REQUIRED), and with the compiler alone through
# pkg-config. Runs both programs (under the emulator in a cross build) and
# prints every command it runs.
#
# Usage: consumer_test.sh --build-dir DIR --source DIR --cxx COMPILER
#          [--toolchain FILE] [--cmake-arg ARG]... [--link-flags FLAGS]
#          [--emulator WORD]...
set -euo pipefail

build_dir=""; source_dir=""; cxx=""; toolchain=""; link_flags=""
cmake_args=(); emulator=()
while [[ $# -gt 0 ]]; do
  case "$1" in
    --build-dir) build_dir="$2"; shift 2 ;;
    --source) source_dir="$2"; shift 2 ;;
    --cxx) cxx="$2"; shift 2 ;;
    --toolchain) toolchain="$2"; shift 2 ;;
    --cmake-arg) cmake_args+=("$2"); shift 2 ;;
    --link-flags) link_flags="$2"; shift 2 ;;
    --emulator) emulator+=("$2"); shift 2 ;;
    *) echo "consumer_test: unknown argument $1" >&2; exit 2 ;;
  esac
done

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

step() {
  echo "+ $*"
  "$@"
}

# Like step, but shows the command's output only when it fails.
quiet_step() {
  echo "+ $*"
  "$@" >"$work/step.log" 2>&1 || { cat "$work/step.log"; return 1; }
}

echo "== install into a fresh prefix"
echo "+ cmake --install $build_dir --prefix $prefix"
cmake --install "$build_dir" --prefix "$prefix" >"$work/install.log"
sed 's/^/   /' "$work/install.log" | grep -E 'Installing: .*(\.so|\.pc|Config\.cmake|ipc_db\.h)$' || true

echo "== consumer built with CMake (find_package(ipc_db CONFIG REQUIRED))"
configure=(cmake -S "$source_dir" -B "$work/cmake-build" -DCMAKE_BUILD_TYPE=Release)
if [[ -n "$toolchain" ]]; then
  # A cross toolchain confines package searches to the target's roots, so
  # the package folder is named directly.
  configure+=("-DCMAKE_TOOLCHAIN_FILE=$toolchain"
              "-Dipc_db_DIR=$(dirname "$(find "$prefix" -name ipc_dbConfig.cmake)")")
else
  configure+=("-DCMAKE_PREFIX_PATH=$prefix")
fi
configure+=("${cmake_args[@]}")
quiet_step "${configure[@]}"
quiet_step cmake --build "$work/cmake-build"
step "${emulator[@]}" "$work/cmake-build/ipc_db_consumer"

echo "== consumer built with pkg-config"
pc_dir="$(dirname "$(find "$prefix" -name ipc_db.pc)")"
export PKG_CONFIG_PATH="$pc_dir"
step pkg-config --modversion ipc_db
read -r -a pc_flags <<<"$(pkg-config --cflags --libs ipc_db)"
libdir="$(pkg-config --variable=libdir ipc_db)"
read -r -a extra_flags <<<"$link_flags"
step "$cxx" -std=c++17 -o "$work/pkg-consumer" "$source_dir/main.cpp" \
  "${pc_flags[@]}" "-Wl,-rpath,$libdir" "${extra_flags[@]}"
step "${emulator[@]}" "$work/pkg-consumer"

echo "consumer_test: both consumer builds ran against the installed package"
