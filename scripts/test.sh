#!/usr/bin/env bash
# Builds ipc_db with its tests and runs the whole suite: on the host, then
# the reliability stages (sanitizers, valgrind, fuzzing), and last
# cross-built for 32-bit ARM (armhf, the device's processor) with every
# test run under qemu-arm. Installs missing packages and makes the armhf
# sysroot first. Prints the stripped size of the armhf libipc_db.so. Exits
# non-zero when either suite fails; ends with ctest's summary of the ARM run.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
status=0
started=$SECONDS

echo "== host: build and test (build/default)"
cmake --preset default >/dev/null
cmake --build --preset default -j "$jobs"
ctest --preset default -j "$jobs" || status=1
host_seconds=$((SECONDS - started))

# Reliability stages: valgrind over the record-operation tests, the fuzzers
# (60 s each), the concurrency test under ThreadSanitizer, and the whole
# suite under AddressSanitizer + UndefinedBehaviorSanitizer. Writes
# docs/reliability.md.
echo "== reliability stages (scripts/reliability.sh)"
bash scripts/reliability.sh "$jobs" || status=1

echo "== armhf: cross build, tests under qemu-arm (build/armhf)"
arm_started=$SECONDS
bash scripts/make-armhf-sysroot.sh build/sysroot-armhf
cmake --preset armhf >/dev/null
cmake --build --preset armhf -j "$jobs"
cat build/armhf/libipc_db.size.txt
echo "test.sh: host build and suite took ${host_seconds} s," \
     "armhf sysroot and build $((SECONDS - arm_started)) s; the armhf suite follows"
ctest --preset armhf -j "$jobs" || status=1
exit $status
