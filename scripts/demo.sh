#!/usr/bin/env bash
# Builds ipc_db and runs its example application on a data directory
# (default ./ipc_db_data, or the first argument). Installs the missing
# packages of the host build only (no test, cross or emulator packages).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh demo

jobs=$(nproc 2>/dev/null || echo 2)
cmake --preset release -DIPC_DB_BUILD_EXAMPLES=ON -DIPC_DB_BUILD_BENCH=OFF >/dev/null
cmake --build --preset release -j "$jobs" --target event_recorder
./build/release/examples/event_recorder "${1:-./ipc_db_data}"
