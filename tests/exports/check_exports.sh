#!/usr/bin/env bash
# Compares the dynamic symbols that a build of libipc_db.so defines with its
# public API and fails when one is missing or when anything else is exported.
#
# The public API is read from an object compiled from api_reference.cpp: its
# undefined symbols (nm -u), kept to the API's families (the exported classes,
# the exported free functions and g_enRecordDebugFlag), are the symbols that
# the library must define. The library may define, beside them, the vtables
# and typeinfo of the exported classes, their private members (which the
# reference cannot name; listed below) and weak instantiations of standard
# library templates (libstdc++ declares namespace std with default
# visibility, so the linker exports them; they are listed as a note), and
# the test seam: what namespace ipc_db::testing declares (the connection
# layer's environment, which tests swap at run time in the shipped library),
# the one internal name allowed. Anything else it exports is a leak: a
# helper in ipc_db::detail or an unnamed namespace, another free function,
# a class outside the API.
#
# Usage:
#   check_exports.sh --nm NM --reference OBJ (--lib LIB | --symbols FILE)
#   check_exports.sh --nm NM --lib LIB --print-symbols
#   check_exports.sh --nm NM --reference OBJ --print-expected
# FILE holds one symbol a line, "TYPE demangled-name" (the form that
# --print-symbols writes). Exit status: 0 when the exports match the API,
# 1 when they do not, 2 on a usage error.
set -euo pipefail

nm_tool=nm
reference=""
library=""
symbols_file=""
action=check

usage() {
  sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//' >&2
  exit 2
}

while [[ $# -gt 0 ]]; do
  case "$1" in
    --nm) nm_tool="$2"; shift 2 ;;
    --reference) reference="$2"; shift 2 ;;
    --lib) library="$2"; shift 2 ;;
    --symbols) symbols_file="$2"; shift 2 ;;
    --print-symbols) action=print-symbols; shift ;;
    --print-expected) action=print-expected; shift ;;
    *) usage ;;
  esac
done

api_classes=(CSMutex CDBConn CSqliteDBConn Meta Member MetaDataManager Db Table
             TableChange DbFilter DbFilters)
api_functions=(ExecShell RecordFileAccess RecordFileChmod GetTicks Delay Sleep
               USleep)
api_globals=(g_enRecordDebugFlag)
# Declared by the public headers but private, so the reference object cannot
# name them; they are exported with their class: allowed, not required.
api_private_members=("MetaDataManager::MetaDataManager()")

# Defined dynamic symbols of a shared library, "TYPE name", demangled.
library_symbols() {
  "$nm_tool" -D --defined-only -C "$1" |
    sed -E 's/^[0-9a-fA-F]* +//' | sort -u
}

# Names of the API that the reference object uses, one a line.
expected_symbols() {
  "$nm_tool" -u -C "$1" | sed -E 's/^ *U +//' | in_api_families | sort -u
}

# Keeps the lines (plain names) that belong to a family of the public API.
in_api_families() {
  awk -v classes="${api_classes[*]}" -v functions="${api_functions[*]}" \
      -v globals="${api_globals[*]}" '
    BEGIN {
      split(classes, c, " "); for (i in c) cls[c[i]] = 1
      split(functions, f, " "); for (i in f) fun[f[i]] = 1
      split(globals, g, " "); for (i in g) glob[g[i]] = 1
    }
    {
      name = $0
      if (name in glob) { print; next }
      p = index(name, "("); if (p > 0 && (substr(name, 1, p - 1) in fun)) { print; next }
      p = index(name, "::"); if (p > 0 && (substr(name, 1, p - 1) in cls)) { print; next }
      for (k in cls) {
        if (name == "typeinfo for " k || name == "typeinfo name for " k ||
            name == "vtable for " k || name == "VTT for " k) { print; next }
      }
    }'
}

require_file() {
  if [[ -z "$2" || ! -f "$2" ]]; then
    echo "check_exports: $1 '$2' not found" >&2
    exit 2
  fi
}

case "$action" in
  print-symbols)
    require_file library "$library"
    library_symbols "$library"
    exit 0 ;;
  print-expected)
    require_file "reference object" "$reference"
    expected_symbols "$reference"
    exit 0 ;;
esac

require_file "reference object" "$reference"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
expected_symbols "$reference" >"$work/expected"
if [[ -n "$library" ]]; then
  require_file library "$library"
  library_symbols "$library" >"$work/defined"
  subject="$(basename "$library")"
else
  require_file "symbol list" "$symbols_file"
  sort -u "$symbols_file" >"$work/defined"
  subject="$symbols_file"
fi
if [[ ! -s "$work/expected" ]]; then
  echo "check_exports: no API symbol referenced by $reference" >&2
  exit 2
fi

# Sorts every defined symbol into: api (expected), class-data (vtable or
# typeinfo of an API class, private members of one), test-seam (a name in
# namespace ipc_db::testing, its vtable or typeinfo), std-instance (weak
# standard-library template instance), linker (symbols that the linker or a
# sanitizer's instrumentation adds) or leak; then reports expected symbols
# that were not defined.
printf '%s\n' "${api_private_members[@]}" >"$work/private"
awk -v classes="${api_classes[*]}" -v expected_file="$work/expected" \
    -v private_file="$work/private" -v out="$work" '
  # The qualified name of a demangled symbol: the text before its parameter
  # list, without a leading return type (which template instances carry).
  function qualified_name(s,    i, ch, depth, start) {
    sub(/^(vtable for|typeinfo for|typeinfo name for|VTT for|guard variable for|construction vtable for) /, "", s)
    depth = 0; start = 1
    for (i = 1; i <= length(s); i++) {
      ch = substr(s, i, 1)
      if (ch == "<") depth++
      else if (ch == ">") depth--
      else if (ch == " " && depth == 0) start = i + 1
      else if (ch == "(" && depth == 0) break
    }
    return substr(s, start, i - start)
  }
  BEGIN {
    split(classes, c, " "); for (i in c) cls[c[i]] = 1
    while ((getline line < expected_file) > 0) expected[line] = 1
    while ((getline line < private_file) > 0) private_member[line] = 1
    split("_init _fini _edata _end __bss_start __bss_start__ __bss_end__ _bss_end__ __end__", l, " ")
    for (i in l) linker[l[i]] = 1
  }
  {
    type = $1
    name = substr($0, length($1) + 2)
    if (name in expected) { found[name] = 1; print name > (out "/api"); next }
    if (name in linker || name ~ /^(__odr_asan[._]|__asan_|__tsan_|__ubsan_|__sanitizer_)/) {
      print name > (out "/linker"); next
    }
    if (name in private_member) { print name > (out "/class-data"); next }
    data = name
    if (sub(/^(vtable for|typeinfo for|typeinfo name for|VTT for) /, "", data) && (data in cls)) {
      print name > (out "/class-data"); next
    }
    internal = (name ~ /ipc_db::detail|\(anonymous namespace\)/)
    qn = qualified_name(name)
    if (!internal && index(qn, "ipc_db::testing::") == 1) {
      print name > (out "/test-seam"); next
    }
    if (!internal && type ~ /^[WVu]$/ && qn ~ /^(std|__gnu_cxx)::/) {
      print name > (out "/std-instance"); next
    }
    print type " " name > (out "/leak")
  }
  END {
    for (name in expected) if (!(name in found)) print name > (out "/missing")
  }' "$work/defined"

count() { [[ -f "$1" ]] && wc -l <"$1" || echo 0; }
section() {  # title, file
  [[ -s "$2" ]] || return 0
  echo "$1"
  sort "$2" | sed 's/^/  /'
}

echo "check_exports: $subject defines $(count "$work/defined") dynamic symbols;" \
     "the public API names $(count "$work/expected")"
echo "  exported API symbols found: $(count "$work/api")," \
     "vtables/typeinfo/private members of API classes: $(count "$work/class-data")," \
     "weak standard-library instances: $(count "$work/std-instance")," \
     "test seam (ipc_db::testing): $(count "$work/test-seam")"
section "MISSING (declared by the public headers, not exported):" "$work/missing"
section "LEAKED (exported, not part of the public API):" "$work/leak"
section "note: weak standard-library template instances (allowed):" "$work/std-instance"

if [[ -s "$work/missing" || -s "$work/leak" ]]; then
  echo "check_exports: FAILED ($(count "$work/missing") missing," \
       "$(count "$work/leak") leaked)"
  exit 1
fi
echo "check_exports: OK"
