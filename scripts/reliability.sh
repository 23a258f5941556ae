#!/usr/bin/env bash
# Reliability stages of scripts/test.sh, run after the host suite (which
# must have run in build/default): valgrind memcheck over the record-
# operation tests, the libFuzzer targets for 60 s each, the concurrency test
# under ThreadSanitizer, and last the whole suite under AddressSanitizer +
# UndefinedBehaviorSanitizer, whose ctest summary ends the output. Writes
# docs/reliability.md from what the stages and the host suite printed (the
# tests' "[reliability]" lines, ctest, valgrind, ThreadSanitizer and
# libFuzzer output), silently, before that summary. Every stage runs even
# when an earlier one failed; the exit status is non-zero if any failed.
#
# Usage: scripts/reliability.sh [jobs]
set -uo pipefail
cd "$(dirname "$0")/.."

jobs=${1:-$(nproc 2>/dev/null || echo 2)}
fuzz_seconds=${IPC_DB_FUZZ_SECONDS:-60}
logs=build/reliability
mkdir -p "$logs"
status=0
failed_stages=()

stage() { printf '\n== reliability: %s\n' "$*"; }
fail() {
  status=1
  failed_stages+=("$1")
  echo "== reliability: stage FAILED: $1"
}

install_tools() {
  local missing=()
  command -v valgrind >/dev/null || missing+=(valgrind)
  command -v clang++-14 >/dev/null || missing+=(clang-14)
  dpkg -s libclang-rt-14-dev >/dev/null 2>&1 || missing+=(libclang-rt-14-dev)
  [[ ${#missing[@]} -eq 0 ]] && return 0
  local sudo=""
  [[ $(id -u) -ne 0 ]] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update || echo "reliability: apt-get update reported an error; going on" >&2
  $sudo apt-get install -y --no-install-recommends "${missing[@]}"
}

# ---- valgrind memcheck over the record-operation tests ----------------------
valgrind_stage() {
  stage "valgrind memcheck: record-operation tests (build/default)"
  local exe name
  : >"$logs/valgrind.summary"
  for exe in build/default/tests/filter_test build/default/tests/table_*_test \
             build/default/tests/required_leaks_test; do
    [[ -x $exe ]] || continue
    name=$(basename "$exe")
    valgrind -v --leak-check=full --show-leak-kinds=definite,indirect,possible \
      --errors-for-leak-kinds=definite,indirect,possible --num-callers=40 \
      --suppressions=tests/sanitizers/valgrind.supp --error-exitcode=99 \
      "$exe" >"$logs/valgrind-$name.log" 2>&1
    local rc=$?
    local errors tests
    errors=$(grep -oP 'ERROR SUMMARY: \K[0-9]+' "$logs/valgrind-$name.log" | tail -1)
    tests=$(grep -oP '\[  PASSED  \] \K[0-9]+' "$logs/valgrind-$name.log" | tail -1)
    echo "$name rc=$rc errors=${errors:-?} passed=${tests:-0}" | tee -a "$logs/valgrind.summary"
    grep -oP 'used_suppression:\s+\K[0-9]+ \S+' "$logs/valgrind-$name.log" |
      sed "s/^/  suppressed: /" | tee -a "$logs/valgrind.summary"
    [[ $rc -eq 0 ]] || fail "valgrind $name"
  done
}

# ---- libFuzzer -----------------------------------------------------------------
fuzz_stage() {
  stage "libFuzzer: ${fuzz_seconds} s per target (build/fuzz, clang-14, ASan+UBSan)"
  if ! cmake --preset fuzz >"$logs/fuzz-configure.log" 2>&1 ||
     ! cmake --build --preset fuzz -j "$jobs" >"$logs/fuzz-build.log" 2>&1; then
    tail -20 "$logs/fuzz-build.log" 2>/dev/null
    fail "fuzz build"
    return
  fi
  : >"$logs/fuzz.summary"
  local target
  for target in filter_render_fuzzer naming_fuzzer get_item_fuzzer call_sequence_fuzzer; do
    local fresh=build/fuzz/new-corpus/$target artifacts=build/fuzz/artifacts/$target
    rm -rf "$fresh" "$artifacts"
    mkdir -p "$fresh" "$artifacts"
    build/fuzz/fuzz/$target -max_total_time="$fuzz_seconds" -print_final_stats=1 \
      -timeout=10 -rss_limit_mb=2048 -artifact_prefix="$artifacts/" \
      "$fresh" "fuzz/corpus/$target" >"$logs/fuzz-$target.log" 2>&1
    local rc=$?
    local runs speed added findings corpus
    runs=$(grep -oP 'stat::number_of_executed_units: \K[0-9]+' "$logs/fuzz-$target.log")
    speed=$(grep -oP 'stat::average_exec_per_sec:\s+\K[0-9]+' "$logs/fuzz-$target.log")
    added=$(grep -oP 'stat::new_units_added:\s+\K[0-9]+' "$logs/fuzz-$target.log")
    findings=$(find "$artifacts" -type f | wc -l)
    corpus=$(find "fuzz/corpus/$target" -type f | wc -l)
    echo "$target rc=$rc seconds=$fuzz_seconds executions=${runs:-0} per_second=${speed:-0}" \
         "new_units=${added:-0} corpus=$corpus findings=$findings" | tee -a "$logs/fuzz.summary"
    [[ $rc -eq 0 && $findings -eq 0 ]] || { tail -30 "$logs/fuzz-$target.log"; fail "fuzz $target"; }
  done
}

# ---- ThreadSanitizer -------------------------------------------------------------
tsan_stage() {
  stage "ThreadSanitizer: concurrency_test (build/tsan)"
  if ! cmake --preset tsan >"$logs/tsan-configure.log" 2>&1 ||
     ! cmake --build --preset tsan -j "$jobs" --target concurrency_test >"$logs/tsan-build.log" 2>&1; then
    tail -20 "$logs/tsan-build.log" 2>/dev/null
    fail "tsan build"
    return
  fi
  TSAN_OPTIONS="suppressions=$PWD/tests/sanitizers/tsan.supp print_suppressions=1 halt_on_error=1" \
    build/tsan/tests/concurrency_test >"$logs/tsan.log" 2>&1
  local rc=$?
  grep -E '^\[( +OK|  FAILED|  PASSED|==========)|WARNING: ThreadSanitizer|Matched|^[0-9]+ race' \
    "$logs/tsan.log"
  [[ $rc -eq 0 ]] || fail "tsan concurrency_test"
}

# ---- AddressSanitizer + UndefinedBehaviorSanitizer, whole suite -----------------
asan_build() {
  stage "AddressSanitizer + UndefinedBehaviorSanitizer: whole suite (build/asan)"
  cmake --preset asan >"$logs/asan-configure.log" 2>&1 &&
    cmake --build --preset asan -j "$jobs" >"$logs/asan-build.log" 2>&1 ||
    { tail -20 "$logs/asan-build.log"; fail "asan build"; return 1; }
}

asan_run() {
  LSAN_OPTIONS="suppressions=$PWD/tests/sanitizers/lsan.supp" \
  ASAN_OPTIONS="detect_leaks=1" \
  UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1" \
    ctest --preset asan -j "$jobs" 2>&1 | tee "$logs/asan.log"
  [[ ${PIPESTATUS[0]} -eq 0 ]] || fail "asan suite"
}

started=$SECONDS
install_tools || fail "tool installation"
valgrind_stage
fuzz_stage
tsan_stage
if asan_build; then
  asan_run
fi
printf '%s\n' "${failed_stages[@]:-}" >"$logs/failed-stages"
echo "$((SECONDS - started))" >"$logs/seconds"
# The report is written silently, so that the suite's summary above stays
# the last thing printed.
bash scripts/reliability-report.sh >"$logs/report.log" 2>&1 || status=1
exit $status
