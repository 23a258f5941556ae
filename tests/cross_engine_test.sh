#!/usr/bin/env bash
# A database file written through the library on one engine and read
# through it on the other, both ways, keyed and plain, each step in a
# process of its own: HERE and THERE are the engine_file_tool commands of
# two builds (one on Debian's SQLCipher 3.4.1, one on the pinned 4.6.1; in a
# cross build both run under the emulator). Every keyed file must also be in
# SQLCipher 3's format as either engine probes it.
#
# Usage: cross_engine_test.sh HERE THERE
set -euo pipefail
here=$1
there=$2
[[ -x "$there" ]] || { echo "cross_engine_test: no peer build's tool at $there" >&2; exit 1; }
dir="$(mktemp -d)"
trap 'rm -rf "$dir"' EXIT
key=$(printf 'k%.0s' {1..64})
rows=50

step() {
  echo "+ $(basename "$(dirname "$(dirname "$1")")") ${*:2}"
  "$@"
}

# round WRITER READER NAME KEY: WRITER writes NAME, READER reads it, both
# probe a keyed one, and WRITER reads it back.
round() {
  local writer=$1 reader=$2 name=$3 key=$4
  step "$writer" write "$dir" "$name" "$key" "$rows"
  step "$reader" read "$dir" "$name" "$key" "$rows"
  if [[ $key != - ]]; then
    step "$reader" probe "$dir" "$name" "$key"
    step "$writer" probe "$dir" "$name" "$key"
  fi
  step "$writer" read "$dir" "$name" "$key" "$rows"
}

round "$here" "$there" here-keyed.db "$key"
round "$there" "$here" there-keyed.db "$key"
round "$here" "$there" here-plain.db -
round "$there" "$here" there-plain.db -
echo "cross_engine_test: files move between the engines both ways"
