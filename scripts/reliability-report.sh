#!/usr/bin/env bash
# Writes docs/reliability.md from the output of the last run of
# scripts/reliability.sh and of the host suite before it: the tests'
# "[reliability]" lines (build/default/Testing/Temporary/LastTest.log), and
# the ctest, valgrind, ThreadSanitizer and libFuzzer logs in
# build/reliability. Every number in the page comes from that output.
set -uo pipefail
cd "$(dirname "$0")/.."

logs=build/reliability
host_log=build/default/Testing/Temporary/LastTest.log
out=docs/reliability.md
mkdir -p docs

lines() { grep -ohP "^\[reliability\] $1 \K.*" "$host_log" 2>/dev/null | sort; }
# Value of key=value or key="value" in a report line.
kv() { grep -oP "(^| )$2=\K(\"[^\"]*\"|[^ ]+)" <<<"$1" | head -1 | tr -d '"'; }
sum() { awk '{ s += $1 } END { print s + 0 }'; }
ctest_summary() { grep -hE 'tests passed, [0-9]+ tests failed out of' "$1" 2>/dev/null | tail -1; }

host_total=$(grep -cE '^[0-9]+/[0-9]+ Testing:' "$host_log" 2>/dev/null)
host_failed=$(grep -c '^Test Failed' "$host_log" 2>/dev/null)
host_passed=$((host_total - host_failed))
asan_summary=$(ctest_summary "$logs/asan.log")
tsan_passed=$(grep -oP '^\[  PASSED  \] \K[0-9]+' "$logs/tsan.log" 2>/dev/null | head -1)
tsan_failed=$(grep -oP '^\[  FAILED  \] \K[0-9]+(?= tests?, listed)' "$logs/tsan.log" 2>/dev/null | head -1)
tsan_result="${tsan_passed:-0} tests passed, ${tsan_failed:-0} failed"
[[ -f $logs/tsan.log ]] || tsan_result="not run"
tsan_warnings=$(grep -c 'WARNING: ThreadSanitizer' "$logs/tsan.log" 2>/dev/null)
tsan_matched=$(grep -oP 'ThreadSanitizer: Matched \K[0-9]+' "$logs/tsan.log" 2>/dev/null | head -1)
failed_stages=$(grep -v '^$' "$logs/failed-stages" 2>/dev/null | paste -sd, -)

{
  echo "# Reliability and security results"
  echo
  echo "Written by \`scripts/reliability.sh\` (a stage of \`scripts/test.sh\`) from the output of the"
  echo "tests and tools it ran, on $(date -u '+%Y-%m-%d %H:%M UTC'), commit"
  echo "\`$(git rev-parse --short HEAD 2>/dev/null)\`, $(nproc) cores, $(uname -sr). Each number"
  echo "below is taken from a \`[reliability]\` line that a test printed, or from ctest, valgrind,"
  echo "ThreadSanitizer or libFuzzer output. What the library does not protect against is in"
  echo "[section 10 of the guide](guide.md#10-what-the-library-does-not-protect-against)."
  echo
  echo "## Summary"
  echo
  echo "| Stage | Result |"
  echo "|---|---|"
  echo "| Host suite (\`build/default\`, includes the \`long\` test) | ${host_passed} tests passed, ${host_failed} failed |"
  echo "| AddressSanitizer + UndefinedBehaviorSanitizer, whole suite (\`build/asan\`) | ${asan_summary:-not run} |"
  echo "| ThreadSanitizer, \`concurrency_test\` (\`build/tsan\`) | ${tsan_result}; unsuppressed reports: ${tsan_warnings:-0}; reports matched by the worker-flag suppression: ${tsan_matched:-0} |"
  if [[ -f $logs/valgrind.summary ]]; then
    vg_exes=$(grep -c ' rc=' "$logs/valgrind.summary")
    vg_errors=$(grep -oP ' errors=\K[0-9]+' "$logs/valgrind.summary" | sum)
    vg_tests=$(grep -oP ' passed=\K[0-9]+' "$logs/valgrind.summary" | sum)
    echo "| valgrind memcheck, record-operation tests | ${vg_exes} executables, ${vg_tests} tests passed, ${vg_errors} errors |"
  fi
  if [[ -f $logs/fuzz.summary ]]; then
    fz_runs=$(grep -oP ' executions=\K[0-9]+' "$logs/fuzz.summary" | sum)
    fz_findings=$(grep -oP ' findings=\K[0-9]+' "$logs/fuzz.summary" | sum)
    echo "| libFuzzer, 3 targets | ${fz_runs} executions, ${fz_findings} findings |"
  fi
  echo "| Failed stages | ${failed_stages:-none} |"
  echo "| Time of the reliability stages | $(cat "$logs/seconds" 2>/dev/null || echo ?) s |"
  echo

  echo "## Crash consistency"
  echo
  echo "A forked child writes through the library (\`add_item\` batches of 100 records, each one"
  echo "transaction; \`update_item\` of one batch; \`rmv_item\` of the two oldest batches in one"
  echo "transaction) and reports the start and end of each call through a pipe. The parent kills it"
  echo "with SIGKILL after a random delay, reopens the file through \`Db\` and checks"
  echo "\`PRAGMA integrity_check\`, that every batch is whole, that every finished call is in the file"
  echo "and that the call cut short happened completely or not at all. A kill ends the process, not the"
  echo "machine: the operating system still writes what the process had written, so this shows"
  echo "transaction atomicity, not durability across power loss (the library sets"
  echo "\`synchronous = NORMAL\`)."
  echo
  echo "| Test | Seed | Kills | Survived | Rows lost | Calls finished | Cut inside add / update / remove / between calls | Rows at the end | Seconds |"
  echo "|---|---|---|---|---|---|---|---|---|"
  while IFS= read -r l; do
    echo "| $(kv "$l" test) | $(kv "$l" seed) | $(kv "$l" kills) | $(kv "$l" survived) |" \
         "$(kv "$l" rows_lost) | $(kv "$l" calls_finished) |" \
         "$(kv "$l" cut_in_add_item) / $(kv "$l" cut_in_update_item) / $(kv "$l" cut_in_rmv_item) / $(kv "$l" cut_between_calls) |" \
         "$(kv "$l" rows_at_end) | $(kv "$l" seconds) |"
  done < <(lines crash)
  echo
  echo "Replay a run with \`IPC_DB_CRASH_SEED=<seed>\`."
  echo

  echo "## Damaged files"
  echo
  echo "1000 rows are written, the closed file is damaged, then opened through \`Db\`. \"Statement\""
  echo "is \`get_item_cnt\` (through \`ExecuteSQL\`, so \`ErrorProcess\` sees its code); \"queued\" is"
  echo "\`m_dqRepairItems\` afterwards; \"read\" is \`get_item\` with no limit. \`RepairDB\` then runs the"
  echo "real tool (the build's wrapper around Debian's \`sqlcipher\` shell) on the closed file, and the"
  echo "rows are counted again after reopening."
  echo
  echo "| File | Damage | OpenDB | Statement (SQLite code) | Queued | get_item result, rows read | RepairDB | File bytes after | Rows after repair | integrity_check after |"
  echo "|---|---|---|---|---|---|---|---|---|---|"
  while IFS= read -r l; do
    echo "| $(kv "$l" file) | $(kv "$l" case) | $(kv "$l" open) | $(kv "$l" get_item_cnt) ($(kv "$l" sqlite_code)) |" \
         "$(kv "$l" queued) | $(kv "$l" get_item), $(kv "$l" rows_read) | $(kv "$l" RepairDB) |" \
         "$(kv "$l" file_bytes_after) | $(kv "$l" rows_after_repair) | $(kv "$l" integrity_after) |"
  done < <(lines corruption)
  echo
  echo "- \`SQLITE_CORRUPT\` (11) queues one repair request per failed statement (two at most);"
  echo "  \`SQLITE_NOTADB\` (26) queues nothing, so a garbage header is never repaired on request."
  echo "- A row read that meets a damaged page stops there and still returns 0: the caller gets the"
  echo "  rows before the damage and cannot tell that more were there."
  echo "- The repair tool is given no key. On a keyed file it dumps nothing and the empty result"
  echo "  replaces the database: every row is lost, including the rows that were still readable."
  echo "  The same happens to a plain file whose header is garbage. The empty file opens as an empty"
  echo "  database, which is why \`integrity_check\` says ok. Only call \`RepairDB\` on a plain file,"
  echo "  and keep a copy first."
  echo

  echo "## Wrong keys"
  echo
  echo "| Case | OpenDB | Table exists | get_item_cnt | get_item | add_item | createTable | Repair requests | Error entries |"
  echo "|---|---|---|---|---|---|---|---|---|"
  while IFS= read -r l; do
    [[ -n $(kv "$l" get_item) ]] || continue
    echo "| $(kv "$l" case) | $(kv "$l" open) | $(kv "$l" table_exists) | $(kv "$l" get_item_cnt) |" \
         "$(kv "$l" get_item) | $(kv "$l" add_item) | $(kv "$l" createTable) | $(kv "$l" repair_requests) |" \
         "$(kv "$l" error_entries) |"
  done < <(lines wrongkey)
  echo
  echo "Every statement fails with SQLite code 26 (\"file is encrypted or is not a database\"), which"
  echo "the error entries name; the file keeps every byte (compared before and after), no journal or"
  echo "repair file appears, and the right key opens all rows afterwards."
  while IFS= read -r l; do
    [[ -n $(kv "$l" reEncryptDB) ]] || continue
    echo "After a wrong key, \`reEncryptDB\` returns $(kv "$l" reEncryptDB) and logs success, yet the"
    echo "file is unchanged (file changed: $(kv "$l" file_changed)) and the new key does not open it"
    echo "(\`get_item_cnt\` $(kv "$l" get_item_cnt_with_new_key)): SQLCipher accepts a re-key it cannot"
    echo "apply. Check the key with a read before re-keying."
  done < <(lines wrongkey)
  echo

  echo "## Threads sharing one Db"
  echo
  while IFS= read -r l; do
    if [[ -n $(kv "$l" threads) ]]; then
      echo "- $(kv "$l" threads) threads for $(kv "$l" seconds) s: $(kv "$l" rows_written) rows written and"
      echo "  $(kv "$l" rows_lost) lost (each thread's count matched its own tally during the run and after"
      echo "  a reopen); $(kv "$l" single_inserts) single inserts, $(kv "$l" batch_inserts) batch inserts,"
      echo "  $(kv "$l" reads) reads ($(kv "$l" rows_read) rows, each checked whole), $(kv "$l" counts) counts."
      echo "  $(kv "$l" batches_refused_at_begin) batch inserts were refused at their \"begin;\" because"
      echo "  another thread's batch held the connection's one transaction; they wrote nothing."
    else
      echo "- The execution worker, run on a thread of its own beside two queueing threads, committed"
      echo "  $(kv "$l" committed) of $(kv "$l" queued) queued statements."
    fi
  done < <(lines concurrency)
  echo

  echo "## Security"
  echo
  guard_processes=$(lines logguard | wc -l)
  guard_entries=$(lines logguard | grep -oP 'entries_checked=\K[0-9]+' | sum)
  echo "- Key bytes in log entries: every test process links a guard that checks every entry written"
  echo "  through \`ZB_WriteLog\` (debug entries included) for any 8 consecutive bytes of any key handed"
  echo "  to SQLCipher, raw or as hexadecimal, and fails the test on a match: ${guard_entries:-0}"
  echo "  entries checked in ${guard_processes} test processes of the host suite, none failed."
  while IFS= read -r l; do
    if [[ -n $(kv "$l" keyed_lifecycle_entries) ]]; then
      echo "- A whole keyed life with every debug entry on: $(kv "$l" keyed_lifecycle_entries) entries,"
      echo "  $(kv "$l" entries_with_key_bytes) with key bytes."
    elif [[ -n $(kv "$l" directory_made_by_library) ]]; then
      echo "- Directory made by the library: mode $(kv "$l" directory_made_by_library) under umask"
      echo "  $(kv "$l" umask); database file $(kv "$l" database_file). An existing directory keeps its"
      echo "  own mode."
    elif [[ -n $(kv "$l" repaired_file_mode_before_reopen) ]]; then
      echo "- After \`RepairDB\` the file has the tool's mode, $(kv "$l" repaired_file_mode_before_reopen)"
      echo "  under umask $(kv "$l" umask), until the next open sets $(kv "$l" after_reopen)."
    fi
  done < <(lines security)
  echo

  echo "## Sanitizers"
  echo
  echo "- AddressSanitizer + UndefinedBehaviorSanitizer (\`build/asan\`), whole suite: ${asan_summary:-not run}."
  echo "  LeakSanitizer suppressions (\`tests/sanitizers/lsan.supp\`): the two leaks the library keeps on"
  echo "  purpose, named by the functions of \`tests/required_leaks_test.cpp\` that make them."
  echo "- ThreadSanitizer (\`build/tsan\`), \`concurrency_test\`: ${tsan_result}; unsuppressed"
  echo "  reports: ${tsan_warnings:-0}. Reports matched by the one suppression"
  echo "  (\`tests/sanitizers/tsan.supp\`): ${tsan_matched:-0}; it names \`StopExecThread\` for the"
  echo "  execution worker's flags \`m_bExecThreadStop\` and \`m_bExecThreadRunning\`, which the library"
  echo "  keeps as plain fields polled during the stop handshake. Any report about the table operations"
  echo "  of the four threads would be unsuppressed."
  echo

  echo "## valgrind memcheck"
  echo
  echo "Over the record-operation tests and \`required_leaks_test\`, with"
  echo "\`--leak-check=full\`, definite, indirect and possible leaks counted as errors, and"
  echo "\`tests/sanitizers/valgrind.supp\`."
  echo
  echo "| Executable | Tests passed | Errors | Suppressed (count, name) |"
  echo "|---|---|---|---|"
  if [[ -f $logs/valgrind.summary ]]; then
    awk '
      function flush() {
        if (name != "") printf "| %s | %s | %s | %s |\n", name, passed, errors, (sup == "" ? "none" : sup)
      }
      / rc=/ {
        flush(); name = $1; sup = ""
        for (i = 2; i <= NF; i++) { split($i, kv, "="); v[kv[1]] = kv[2] }
        passed = v["passed"]; errors = v["errors"]
      }
      /suppressed:/ { sup = sup (sup == "" ? "" : "; ") $2 " " $3 }
      END { flush() }
    ' "$logs/valgrind.summary"
  fi
  echo

  echo "## Fuzzing"
  echo
  echo "libFuzzer targets built with clang-14 and AddressSanitizer + UndefinedBehaviorSanitizer"
  echo "(\`fuzz/\`, preset \`fuzz\`), each run for the time shown from its checked-in corpus"
  echo "(\`fuzz/corpus/<target>\`). The filter and naming targets compare every text with a reference"
  echo "written from the documented rules; the read target runs whole \`get_item\` calls on a real"
  echo "table. The one-past-the-field reads of text values stay inside the fuzzers' own buffers, which"
  echo "are sized for exactly that byte."
  echo
  echo "| Target | Seconds | Executions | Per second | New units | Corpus files | Findings |"
  echo "|---|---|---|---|---|---|---|"
  if [[ -f $logs/fuzz.summary ]]; then
    while IFS= read -r l; do
      name=${l%% *}
      echo "| $name | $(kv "$l" seconds) | $(kv "$l" executions) | $(kv "$l" per_second) |" \
           "$(kv "$l" new_units) | $(kv "$l" corpus) | $(kv "$l" findings) |"
    done <"$logs/fuzz.summary"
  fi
} >"$out"
echo "wrote $out"
