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
# tests and the companion header's tests of build/default, the salvage's
# among them (its damage campaign at quick scale, in part; valgrind follows
# the campaign's salvage children, which fork without exec, and a leak in
# one fails its case).
valgrind_one() {
  local exe=$1 name
  shift
  name=$(basename "$exe")
  valgrind -v --leak-check=full --show-leak-kinds=definite,indirect,possible \
    --errors-for-leak-kinds=definite,indirect,possible --num-callers=40 \
    --suppressions=tests/sanitizers/valgrind.supp --error-exitcode=99 \
    "$exe" "$@" >"$logs/valgrind-$name.log" 2>&1
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
  # Each keyed file costs key derivations, about a minute per keyed case
  # under valgrind (salvage_test whole: about 12 minutes): two of
  # salvage_test's cases, the campaign's plain cases and one keyed case.
  in_background valgrind_one "$build"/tests/salvage_test \
    --gtest_filter='*IntactFileComesBackWhole:*ChangedBytesInALeaf'
  in_background valgrind_one "$build"/tests/salvage_campaign_test \
    --gtest_filter='*/plain_*:*/keyed_power_cut_journal_off'
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

# clang's thread-safety analysis over the library's sources: build/thread-safety
# (clang-14, -Wthread-safety -Werror on the library alone); a lock rule
# broken in the code fails the build.
thread_safety_stage() {
  { cmake --preset thread-safety && cmake --build --preset thread-safety -j "$jobs"; } \
    >"$logs/thread-safety.log" 2>&1
  local rc=$?
  grep -E 'warning:|error:' "$logs/thread-safety.log"
  echo "thread-safety build: exit status $rc (log: $logs/thread-safety.log)"
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

# The pinned SQLCipher 4.6.1 for the host (built once while its inputs stay
# the same), and the host build on it.
engine_host_stage() {
  python3 scripts/build-engine.py host --jobs "$jobs" >"$logs/engine-host.log" 2>&1 ||
    { tail -20 "$logs/engine-host.log"; return 1; }
  tail -1 "$logs/engine-host.log"
}
sqlcipher4_build() {
  rm -rf build/sqlcipher4/results build/sqlcipher4/reports
  { cmake --preset sqlcipher4 && cmake --build --preset sqlcipher4 -j "$jobs"; } \
    >"$logs/sqlcipher4-build.log" 2>&1 || { tail -20 "$logs/sqlcipher4-build.log"; return 1; }
}

# engine_results BUILD...: the engine each build tree runs on (its sqlcipher
# shell's cipher_version and SQLite version), as BUILD/results/engine/.
engine_results() {
  local dir shell
  for dir in "$@"; do
    shell=$(sed -n 's/^IPC_DB_SQLCIPHER_SHELL:[A-Z]*=//p' "build/$dir/CMakeCache.txt")
    mkdir -p "build/$dir/results/engine"
    printf 'PRAGMA cipher_version;\nselect sqlite_version();\n' | "$shell" :memory: |
      python3 -c 'import json, sys; c, s = sys.stdin.read().split("\n")[:2]
print(json.dumps({"cipher_version": c, "sqlite_version": s}))' \
      >"build/$dir/results/engine/engine.json"
  done
}

# The armhf sysroot (made once), the pinned engine for armhf (made once),
# the cross build on it with its stripped size, and the engine file tool of
# a cross build on the sysroot's SQLCipher 3.4.1 for the cross-engine test.
armhf_build() {
  bash scripts/make-armhf-sysroot.sh build/sysroot-armhf &&
    python3 scripts/build-engine.py armhf --jobs "$jobs" >"$logs/engine-armhf.log" 2>&1 &&
    cmake --preset armhf >/dev/null &&
    cmake --build --preset armhf -j "$jobs" >"$logs/armhf-build.log" 2>&1 &&
    cmake --preset armhf-sqlcipher3 >/dev/null &&
    cmake --build --preset armhf-sqlcipher3 -j "$jobs" --target engine_file_tool \
      >>"$logs/armhf-build.log" 2>&1 ||
    { tail -20 "$logs/engine-armhf.log" "$logs/armhf-build.log"; return 1; }
  cat build/armhf/libipc_db.size.txt
}

# The device-fault campaigns (label faults) at full size: over 10,000 power
# cuts, every allocation, I/O error and storage budget point. Their figures
# go to $results/faults/ (rendered into reports/faults.md).
# faults_stage PRESET: on the engine of that build (results in its tree).
faults_stage() {
  local preset=$1 name=faults
  [[ $preset == default ]] || name=faults-$preset
  IPC_DB_FAULT_SCALE=full suite "$name" "$preset" -L faults -j "$jobs"
}

# The salvage damage campaign (label salvage) at full size: over 300
# damaged files per kind (keyed, plain), each salvaged, recovered with the
# shell's .recover and repaired with RepairDB. Figures go to
# $results/salvage/ (rendered into reports/salvage.json and salvage.md).
# salvage_stage PRESET: on the engine of that build (results in its tree).
salvage_stage() {
  local preset=$1 name=salvage
  [[ $preset == default ]] || name=salvage-$preset
  IPC_DB_SALVAGE_SCALE=full suite "$name" "$preset" -L salvage -j "$jobs"
}

# costs_stage BUILD: bench/costs --quick on that build tree (its engine):
# every device-cost measurement at a small size, so the script and its
# driver keep working on both engines.
costs_stage() {
  local dir=$1
  bench/costs --quick --build-dir "$dir" --armhf-build-dir build/none \
    >"$logs/costs-$(basename "$dir").log" 2>&1
  local rc=$?
  mkdir -p "$results/costs-quick"
  printf '{"rc": %d, "report": "%s"}\n' "$rc" "$dir/reports/costs.md" \
    >"$results/costs-quick/$(basename "$dir").json"
  tail -3 "$logs/costs-$(basename "$dir").log"
  return "$rc"
}
