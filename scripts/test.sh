#!/usr/bin/env bash
# Builds ipc_db with its tests and runs the whole suite, ending with ctest's
# summary. Installs missing packages first.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
cmake --preset default >/dev/null
cmake --build --preset default -j "$jobs"
ctest --preset default -j "$jobs"

# Reliability stages: valgrind over the record-operation tests, the fuzzers
# (60 s each), the concurrency test under ThreadSanitizer, and last the
# whole suite under AddressSanitizer + UndefinedBehaviorSanitizer, whose
# ctest summary ends the output. Writes docs/reliability.md.
echo "== reliability stages (scripts/reliability.sh)"
bash scripts/reliability.sh "$jobs"
