#!/usr/bin/env bash
# Shows that check_exports.sh fails on the mistakes it is there to catch and
# passes on a correct export list:
#   - a correct list (the API, vtables/typeinfo of API classes, weak
#     standard-library instances, linker symbols, the test seam in
#     ipc_db::testing) passes;
#   - the same list plus a helper in ipc_db::detail, a helper in an unnamed
#     namespace, another free function, another class, a weak standard
#     library instance over an internal type, or a name that only resembles
#     the test seam's namespace, fails and names the intruder;
#   - the same list less one API function fails and names it as missing;
#   - a real library built with an internal helper and a free function
#     exported by mistake (leaky_fixture.cpp) fails and names exactly those
#     two, not the helper that it keeps hidden.
#
# Usage: check_exports_selftest.sh --nm NM --reference OBJ --fixture LIB
set -euo pipefail

checker="$(dirname "$0")/check_exports.sh"
nm_tool=nm
reference=""
fixture=""
while [[ $# -gt 0 ]]; do
  case "$1" in
    --nm) nm_tool="$2"; shift 2 ;;
    --reference) reference="$2"; shift 2 ;;
    --fixture) fixture="$2"; shift 2 ;;
    *) echo "usage: $0 --nm NM --reference OBJ --fixture LIB" >&2; exit 2 ;;
  esac
done

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
failures=0
cases=0

fail() {
  echo "  FAIL: $*"
  failures=$((failures + 1))
}

# run_checker NAME ARGS...: runs the checker, keeps its output and status.
run_checker() {
  local name="$1"; shift
  cases=$((cases + 1))
  echo "case $cases: $name"
  set +e
  bash "$checker" --nm "$nm_tool" --reference "$reference" "$@" >"$work/out" 2>&1
  status=$?
  set -e
}

expect_status() {
  [[ $status -eq $1 ]] || { fail "checker exited $status, expected $1"; cat "$work/out"; }
}

# expect_listed SECTION TEXT: TEXT appears as an entry of the SECTION list.
expect_listed() {
  awk -v section="$1" -v text="$2" '
    index($0, section) == 1 { inside = 1; next }
    inside && /^  / { if (index($0, text)) found = 1; next }
    { inside = 0 }
    END { exit found ? 0 : 1 }' "$work/out" ||
    { fail "'$2' not listed under $1"; cat "$work/out"; }
}

expect_not_in_output() {
  if grep -qF "$1" "$work/out"; then fail "'$1' reported"; cat "$work/out"; fi
}

bash "$checker" --nm "$nm_tool" --reference "$reference" --print-expected \
  >"$work/expected"
[[ -s "$work/expected" ]] || { echo "no expected symbols"; exit 1; }

# A correct export list, in the form --print-symbols writes.
sed 's/^/T /' "$work/expected" >"$work/good"
cat >>"$work/good" <<'EOF'
V vtable for CDBConn
V typeinfo name for CSqliteDBConn
T ipc_db::testing::SetEnv(ipc_db::testing::Env*)
V vtable for ipc_db::testing::Env
W std::vector<Member*, std::allocator<Member*> >::~vector()
W void std::deque<DB_REPAIR_ITEM, std::allocator<DB_REPAIR_ITEM> >::_M_push_back_aux<DB_REPAIR_ITEM const&>(DB_REPAIR_ITEM const&)
T _init
EOF

run_checker "a correct export list passes" --symbols "$work/good"
expect_status 0
grep -q '^check_exports: OK$' "$work/out" || fail "no OK line"

leak_case() {  # description, symbol line, name to find under LEAKED
  cp "$work/good" "$work/doctored"
  echo "$2" >>"$work/doctored"
  run_checker "$1" --symbols "$work/doctored"
  expect_status 1
  expect_listed "LEAKED" "$3"
}
leak_case "an exported ipc_db::detail helper fails" \
  "T ipc_db::detail::BuildCreateSql(Meta*, int)" \
  "ipc_db::detail::BuildCreateSql(Meta*, int)"
leak_case "an exported unnamed-namespace helper fails" \
  "T (anonymous namespace)::QuoteText(char const*)" \
  "(anonymous namespace)::QuoteText(char const*)"
leak_case "another exported free function fails" \
  "T FormatValue(Member*, void*)" "FormatValue(Member*, void*)"
leak_case "an exported class outside the API fails" \
  "T ColumnWriter::Write(int)" "ColumnWriter::Write(int)"
leak_case "a weak std instance over an internal type fails" \
  "W std::vector<ipc_db::detail::Column, std::allocator<ipc_db::detail::Column> >::~vector()" \
  "std::vector<ipc_db::detail::Column"
leak_case "a global variable outside the API fails" \
  "B g_queueDepth" "g_queueDepth"
leak_case "a namespace beside ipc_db::testing fails" \
  "T ipc_db::testing_support::FakeClock()" "ipc_db::testing_support::FakeClock()"
leak_case "a class of namespace ipc_db outside ipc_db::testing fails" \
  "V vtable for ipc_db::Env" "vtable for ipc_db::Env"
leak_case "an ipc_db::detail helper taking a test-seam type fails" \
  "T ipc_db::detail::CurrentEnv(ipc_db::testing::Env*)" "ipc_db::detail::CurrentEnv"

missing="$(grep -m1 '^Table::get_item_cnt' "$work/expected")"
grep -vxF "T $missing" "$work/good" >"$work/doctored"
run_checker "an API function that is not exported fails" --symbols "$work/doctored"
expect_status 1
expect_listed "MISSING" "$missing"

run_checker "a library built with leaking helpers fails" --lib "$fixture"
expect_status 1
expect_listed "LEAKED" "ipc_db::detail::QuoteForSql"
expect_listed "LEAKED" "FormatRowForLog(int)"
expect_not_in_output "CountColumns"
if awk '/^MISSING/ { inside = 1; next } inside && /^  / { print } /^[^ ]/ { inside = 0 }' \
     "$work/out" | grep -qx '  GetTicks()'; then
  fail "GetTicks(), exported by the fixture, reported as missing"
fi

if [[ $failures -ne 0 ]]; then
  echo "check_exports self-test: $failures of the checks above failed"
  exit 1
fi
echo "check_exports self-test: all $cases cases behave"
