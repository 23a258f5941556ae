#!/usr/bin/env bash
# Installs the build tree into a fresh prefix and builds the out-of-tree
# consumer (examples/consumer) against it twice: with CMake through
# find_package(ipc_db CONFIG REQUIRED), and with the compiler alone through
# pkg-config. Runs both programs (under the emulator in a cross build) and
# prints every command it runs. With --cross the CMake build uses the
# toolchain file installed with the package, and --rpath-link names the
# sysroot's library folder for the pkg-config link. The program on the
# companion header also links SQLCipher: with `pkg-config ... sqlcipher` on
# the host, with --sqlcipher-flags in a cross build. Then installs the
# Runtime component alone, stripped, into another prefix: it must hold the
# versioned shared libraries and nothing else; the files and their sizes go
# to the --payload-report file.
#
# Usage: consumer_test.sh --build-dir DIR --source DIR --cxx COMPILER
#          --payload-report FILE [--cross] [--rpath-link DIR]
#          [--cmake-arg ARG]... [--link-flags FLAGS] [--emulator WORD]...
#          [--sqlcipher-flags FLAGS] [--engine-libdir DIR]
# --engine-libdir names the folder of an engine built into a prefix of its
# own (a host build on the pinned SQLCipher 4): the consumers find it as an
# application's build would, through CMAKE_PREFIX_PATH and PKG_CONFIG_PATH,
# and run with it on LD_LIBRARY_PATH (on a device it is in the system's
# library folder).
set -euo pipefail

build_dir=""; source_dir=""; cxx=""; cross=0; rpath_link=""; link_flags=""
payload_report=""; sqlcipher_flags=""; engine_libdir=""
cmake_args=(); emulator=()
while [[ $# -gt 0 ]]; do
  case "$1" in
    --build-dir) build_dir="$2"; shift 2 ;;
    --source) source_dir="$2"; shift 2 ;;
    --cxx) cxx="$2"; shift 2 ;;
    --cross) cross=1; shift ;;
    --rpath-link) rpath_link="$2"; shift 2 ;;
    --payload-report) payload_report="$2"; shift 2 ;;
    --cmake-arg) cmake_args+=("$2"); shift 2 ;;
    --link-flags) link_flags="$2"; shift 2 ;;
    --sqlcipher-flags) sqlcipher_flags="$2"; shift 2 ;;
    --emulator) emulator+=("$2"); shift 2 ;;
    --engine-libdir) engine_libdir="$2"; shift 2 ;;
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
sed 's/^/   /' "$work/install.log" | grep -E 'Installing: .*(\.so|\.pc|\.cmake|ipc_db\.h)$' || true
if [[ -e "$prefix/bin" ]]; then
  echo "consumer_test: a default install put programs into bin/:" >&2
  ls -l "$prefix/bin" >&2
  exit 1
fi

echo "== consumer built with CMake (find_package(ipc_db CONFIG REQUIRED))"
configure=(cmake -S "$source_dir" -B "$work/cmake-build" -DCMAKE_BUILD_TYPE=Release)
if [[ $cross -eq 1 ]]; then
  # The installed toolchain file; it confines package searches to the
  # target's roots, so the package folder is named directly.
  package_dir="$(dirname "$(find "$prefix" -name ipc_dbConfig.cmake)")"
  configure+=("-DCMAKE_TOOLCHAIN_FILE=$package_dir/toolchain-armhf.cmake"
              "-Dipc_db_DIR=$package_dir")
elif [[ -n "$engine_libdir" ]]; then
  configure+=("-DCMAKE_PREFIX_PATH=$prefix;$(dirname "$engine_libdir")")
  export LD_LIBRARY_PATH="$engine_libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
else
  configure+=("-DCMAKE_PREFIX_PATH=$prefix")
fi
configure+=("${cmake_args[@]}")
quiet_step "${configure[@]}"
quiet_step cmake --build "$work/cmake-build"
step "${emulator[@]}" "$work/cmake-build/ipc_db_consumer"
step "${emulator[@]}" "$work/cmake-build/ipc_db_helpers_consumer"

echo "== consumer built with pkg-config"
pc_dir="$(dirname "$(find "$prefix" -name ipc_db.pc)")"
export PKG_CONFIG_PATH="$pc_dir${engine_libdir:+:$engine_libdir/pkgconfig}"
step pkg-config --modversion ipc_db
read -r -a pc_flags <<<"$(pkg-config --cflags --libs ipc_db)"
libdir="$(pkg-config --variable=libdir ipc_db)"
read -r -a extra_flags <<<"$link_flags"
[[ -n "$rpath_link" ]] && extra_flags+=("-Wl,-rpath-link,$rpath_link")
[[ -n "$engine_libdir" ]] && extra_flags+=("-Wl,-rpath-link,$engine_libdir")
step "$cxx" -std=c++17 -o "$work/pkg-consumer" "$source_dir/main.cpp" \
  "${pc_flags[@]}" "-Wl,-rpath,$libdir" "${extra_flags[@]}"
step "${emulator[@]}" "$work/pkg-consumer"
# The companion header's classifier calls SQLCipher: link it too.
if [[ $cross -eq 0 ]]; then
  read -r -a helpers_flags <<<"$(pkg-config --cflags --libs ipc_db sqlcipher)"
else
  read -r -a helpers_flags <<<"$(pkg-config --cflags --libs ipc_db) $sqlcipher_flags"
fi
step "$cxx" -std=c++17 -o "$work/pkg-helpers-consumer" "$source_dir/helpers_main.cpp" \
  "${helpers_flags[@]}" "-Wl,-rpath,$libdir" "${extra_flags[@]}"
step "${emulator[@]}" "$work/pkg-helpers-consumer"

echo "== the device's payload: component Runtime, stripped"
device="$work/device"
quiet_step cmake --install "$build_dir" --prefix "$device" --component Runtime --strip
unexpected="$(cd "$device" && find . \( -type f -o -type l \) | grep -vE '^\./lib[^/]*/lib(ipc_db|ipc_platform)\.so\.[0-9.]+$' || true)"
if [[ -n "$unexpected" ]]; then
  echo "consumer_test: the Runtime component holds more than the libraries:" >&2
  echo "$unexpected" >&2
  exit 1
fi
mkdir -p "$(dirname "$payload_report")"
(cd "$device" && find . -type f -printf '%P %s\n' | sort) | tee "$payload_report"
[[ $(wc -l <"$payload_report") -eq 2 ]] ||
  { echo "consumer_test: expected two library files in the payload" >&2; exit 1; }

echo "consumer_test: both consumer builds ran against the installed package"
