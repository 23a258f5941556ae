# Stages of the full test tier, sourced by scripts/test.sh (which defines
# stage, suite, $jobs, $build, $results and $logs). Each function runs one
# tool, keeps its log in $logs and writes its outcome as JSON into
# $results/<group>/ through scripts/tool-results.py; it returns non-zero
# when the stage failed.

fuzz_seconds=${IPC_DB_FUZZ_SECONDS:-60}

# Runs COMMAND... in the background, at most $jobs at a time; `wait_all`
# collects them. Returns non-zero when any command failed.
background_pids=()
background_failed=0
in_background() {
  "$@" &
  background_pids+=($!)
  if ((${#background_pids[@]} >= jobs)); then
    wait "${background_pids[0]}" || background_failed=1
    background_pids=("${background_pids[@]:1}")
  fi
}
wait_all() {
  local pid
  for pid in "${background_pids[@]}"; do wait "$pid" || background_failed=1; done
  local failed=$background_failed
  background_pids=()
  background_failed=0
  return "$failed"
}

# valgrind memcheck over the record-operation tests, the caller-mistake
# tests and the companion header's tests of build/default.
valgrind_one() {
  local exe=$1 name
  name=$(basename "$exe")
  valgrind -v --leak-check=full --show-leak-kinds=definite,indirect,possible \
    --errors-for-leak-kinds=definite,indirect,possible --num-callers=40 \
    --suppressions=tests/sanitizers/valgrind.supp --error-exitcode=99 \
    "$exe" >"$logs/valgrind-$name.log" 2>&1
  local rc=$?
  python3 scripts/tool-results.py valgrind "$logs/valgrind-$name.log" \
    "$results/valgrind/$name.json" rc="$rc"
  echo "$name: exit status $rc (log: $logs/valgrind-$name.log)"
  return "$rc"
}
valgrind_stage() {
  local exe
  for exe in "$build"/tests/filter_test "$build"/tests/table_*_test \
             "$build"/tests/{conn,db,filter}_mistakes_test \
             "$build"/tests/helpers_test "$build"/tests/required_leaks_test; do
    in_background valgrind_one "$exe"
  done
  wait_all
}

# libFuzzer: the four targets at once, each for $fuzz_seconds with a seed
# of its own (printed, and kept in its JSON; IPC_DB_FUZZ_SEED sets one for
# all), from the checked-in corpus; new units go to build/fuzz/new-corpus
# (not tracked). A finding fails the stage and prints the command that
# replays it; every input starts from a fresh fixture, so the file alone
# replays it.
fuzz_one() {
  local target=$1 seed=${IPC_DB_FUZZ_SEED:-$((RANDOM * 32768 + RANDOM))}
  local fresh=build/fuzz/new-corpus/$target artifacts=build/fuzz/artifacts/$target
  rm -rf "$fresh" "$artifacts"
  mkdir -p "$fresh" "$artifacts"
  echo "$target: seed $seed"
  build/fuzz/fuzz/$target -seed="$seed" -max_total_time="$fuzz_seconds" \
    -print_final_stats=1 -timeout=10 -rss_limit_mb=2048 -artifact_prefix="$artifacts/" \
    "$fresh" "fuzz/corpus/$target" >"$logs/fuzz-$target.log" 2>&1
  local rc=$? findings corpus artifact
  findings=$(find "$artifacts" -type f | wc -l)
  corpus=$(find "fuzz/corpus/$target" -type f | wc -l)
  python3 scripts/tool-results.py fuzz "$logs/fuzz-$target.log" \
    "$results/fuzz/$target.json" rc="$rc" seconds="$fuzz_seconds" seed="$seed" \
    corpus="$corpus" findings="$findings"
  echo "$target: seed $seed, exit status $rc, $findings findings (log: $logs/fuzz-$target.log)"
  for artifact in "$artifacts"/*; do
    [[ -f $artifact ]] && echo "$target: replay with: build/fuzz/fuzz/$target $artifact"
  done
  [[ $rc -eq 0 && $findings -eq 0 ]]
}
fuzz_stage() {
  if ! { cmake --preset fuzz && cmake --build --preset fuzz -j "$jobs"; } \
       >"$logs/fuzz-build.log" 2>&1; then
    tail -20 "$logs/fuzz-build.log"
    return 1
  fi
  local target
  for target in filter_render_fuzzer naming_fuzzer get_item_fuzzer call_sequence_fuzzer; do
    fuzz_one "$target" &
    background_pids+=($!)
  done
  wait_all
}

# ThreadSanitizer over concurrency_test.
tsan_stage() {
  if ! { cmake --preset tsan && cmake --build --preset tsan -j "$jobs" \
           --target concurrency_test; } >"$logs/tsan-build.log" 2>&1; then
    tail -20 "$logs/tsan-build.log"
    return 1
  fi
  TSAN_OPTIONS="suppressions=$PWD/tests/sanitizers/tsan.supp print_suppressions=1 halt_on_error=1" \
    build/tsan/tests/concurrency_test >"$logs/tsan.log" 2>&1
  local rc=$?
  python3 scripts/tool-results.py tsan "$logs/tsan.log" "$results/sanitizers/tsan.json" \
    rc="$rc" test=concurrency_test
  grep -E '^\[( +OK|  FAILED|  PASSED|==========)|WARNING: ThreadSanitizer|Matched' \
    "$logs/tsan.log"
  return "$rc"
}

# The whole suite under AddressSanitizer + UndefinedBehaviorSanitizer.
asan_build() {
  { cmake --preset asan && cmake --build --preset asan -j "$jobs"; } \
    >"$logs/asan-build.log" 2>&1 || { tail -20 "$logs/asan-build.log"; return 1; }
}
asan_suite() {
  LSAN_OPTIONS="suppressions=$PWD/tests/sanitizers/lsan.supp" \
  ASAN_OPTIONS="detect_leaks=1" \
  UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1" \
    suite asan asan -j 4
}

# The armhf sysroot (made once), the cross build and its stripped size.
armhf_build() {
  bash scripts/make-armhf-sysroot.sh build/sysroot-armhf &&
    cmake --preset armhf >/dev/null &&
    cmake --build --preset armhf -j "$jobs" >"$logs/armhf-build.log" 2>&1 ||
    { tail -20 "$logs/armhf-build.log"; return 1; }
  cat build/armhf/libipc_db.size.txt
}

# The device-fault campaigns (label faults) at full size: over 10,000 power
# cuts, every allocation, I/O error and storage budget point. Their figures
# go to $results/faults/ (rendered into reports/faults.md).
faults_stage() {
  IPC_DB_FAULT_SCALE=full suite faults default -L faults -j "$jobs"
}

# bench/costs --quick on build/default: every device-cost measurement at a
# small size, so the script and its driver keep working.
costs_stage() {
  bench/costs --quick --build-dir "$build" --armhf-build-dir build/none >"$logs/costs.log" 2>&1
  local rc=$?
  mkdir -p "$results/costs-quick"
  printf '{"rc": %d, "report": "%s"}\n' "$rc" "$build/reports/costs.md" \
    >"$results/costs-quick/run.json"
  tail -3 "$logs/costs.log"
  return "$rc"
}
