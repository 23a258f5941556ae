#!/usr/bin/env bash
# Builds ipc_db with its tests and runs them, in one of two tiers:
#
#   bash scripts/test.sh          quick tier: installs what the host build and
#                                 its tests need, builds build/default, runs
#                                 the whole host suite; ends with ctest's
#                                 summary (a few minutes)
#   bash scripts/test.sh --full   full tier (what CI runs): the host suite
#                                 under load (ctest -j6, each test up to 3
#                                 times), the device-fault campaigns at full
#                                 scale, the salvage damage campaign at full
#                                 scale, valgrind, the fuzzers, ThreadSanitizer,
#                                 bench/costs --quick, the suite under
#                                 ASan+UBSan, and the armhf
#                                 cross build with its suite under qemu-arm
#                                 (-j4, each test up to 2 times); ends with a
#                                 per-stage time table and the suites' ctest
#                                 summaries
#
# Every stage runs even when an earlier one failed; the exit status is
# non-zero when any failed. Figures go to build/default/results/<group>/
# (JSON) and are rendered into build/default/reports/ (render-reports.py);
# nothing tracked is written. Tool logs are in build/default/logs/.
set -uo pipefail
cd "$(dirname "$0")/.."

full=0
case "${1:-}" in
  "") ;;
  --full) full=1 ;;
  *) echo "usage: $0 [--full]" >&2; exit 2 ;;
esac

jobs=$(nproc 2>/dev/null || echo 2)
build=build/default
results=$build/results
logs=$build/logs
status=0
stage_lines=()

# stage NAME COMMAND...: runs one stage, times it, records the outcome.
stage() {
  local name=$1 started=$SECONDS rc=0
  shift
  printf '\n== %s\n' "$name"
  "$@" || rc=$?
  local seconds=$((SECONDS - started)) result=ok
  [[ $rc -eq 0 ]] || { result=failed; status=1; echo "== stage FAILED: $name"; }
  stage_lines+=("$(printf '%-40s %6d s  %s' "$name" "$seconds" "$result")")
  mkdir -p "$results/stages"
  printf '{"order": %d, "stage": "%s", "seconds": %d, "result": "%s"}\n' \
    "${#stage_lines[@]}" "$name" "$seconds" "$result" \
    >"$results/stages/$(printf '%02d' "${#stage_lines[@]}")-${name//[^A-Za-z0-9]/_}.json"
}

# suite NAME PRESET CTEST-ARGS...: runs a ctest suite, keeps its log and
# summary (results/suites/NAME.json).
suite() {
  local name=$1 preset=$2
  shift 2
  ctest --preset "$preset" "$@" 2>&1 | tee "$logs/ctest-$name.log"
  local rc=${PIPESTATUS[0]}
  python3 scripts/tool-results.py ctest "$logs/ctest-$name.log" \
    "$results/suites/$name.json" preset="$preset" arguments="$*"
  return "$rc"
}

# payload_results DIR...: the device's payload the package test of each
# build/DIR installed (path and stripped size of each file), as
# results/payload/DIR.json.
payload_results() {
  local dir label
  for dir in "$@"; do
    label=$([[ $dir == default ]] && echo "host ($(uname -m))" || echo "$dir")
    python3 scripts/tool-results.py payload "build/$dir/package/device-files.txt" \
      "$results/payload/$dir.json" build="$label"
  done
}

host_build() {
  cmake --preset default >/dev/null && cmake --build --preset default -j "$jobs"
}

bash scripts/install-deps.sh "$([[ $full -eq 1 ]] && echo full || echo test)" || exit 1
rm -rf "$results" "$build/reports"
mkdir -p "$logs"
started=$SECONDS
stage "host build (build/default)" host_build
if [[ $full -eq 0 ]]; then
  stage "host suite" suite host default -j 4
  payload_results default
  python3 scripts/render-reports.py "$build" >"$logs/render-reports.log" 2>&1 || status=1
  exit $status
fi

source scripts/full-stages.sh
stage "pinned SQLCipher 4.6.1, host (build/engines)" engine_host_stage
stage "host suite, -j6 up to 3 times" suite host default -j 6 --repeat until-fail:3
stage "host build on 4.6.1 (build/sqlcipher4)" sqlcipher4_build
stage "host suite on 4.6.1, -j6 up to 2 times" \
  suite host-sqlcipher4 sqlcipher4 -j 6 --repeat until-fail:2
stage "device faults at full scale, 3.4.1" faults_stage default
stage "device faults at full scale, 4.6.1" faults_stage sqlcipher4
stage "valgrind memcheck" valgrind_stage
stage "salvage damage campaign at full scale, 3.4.1" salvage_stage default
stage "salvage damage campaign at full scale, 4.6.1" salvage_stage sqlcipher4
stage "fuzzers (build/fuzz)" fuzz_stage
stage "ThreadSanitizer (build/tsan)" tsan_stage
stage "clang thread-safety analysis (build/thread-safety)" thread_safety_stage
stage "device costs, quick, 3.4.1" costs_stage "$build"
stage "device costs, quick, 4.6.1" costs_stage build/sqlcipher4
stage "ASan+UBSan build (build/asan)" asan_build
stage "ASan+UBSan suite" asan_suite
stage "armhf sysroot, 4.6.1 and builds (build/armhf)" armhf_build
stage "armhf suite on 4.6.1, -j4 up to 2 times" suite armhf armhf -j 4 --repeat until-fail:2
payload_results default armhf
engine_results default sqlcipher4 armhf
for dir in "$build" build/sqlcipher4; do
  python3 scripts/render-reports.py "$dir" >>"$logs/render-reports.log" 2>&1 || status=1
done

printf '\n== stage times (total %d s)\n' "$((SECONDS - started))"
printf '%s\n' "${stage_lines[@]}"
printf '\n== suites (reports in %s/reports)\n' "$build"
for name in host host-sqlcipher4 faults faults-sqlcipher4 salvage salvage-sqlcipher4 asan \
            armhf; do
  printf '%-6s ' "$name"
  grep -hE '^[0-9]+% tests passed' "$logs/ctest-$name.log" 2>/dev/null | tail -1 ||
    echo "no ctest summary"
done
exit $status
