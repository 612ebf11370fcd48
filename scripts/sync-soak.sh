#!/usr/bin/env bash
# Soak of the agent's crash safety (run by hand, not in CI): the SIGKILL suite
# of tests/sync_e2e with many more rounds than CI runs.
#
#   scripts/sync-soak.sh [rounds] [build folder]
#
# Defaults: 1000 rounds, build/release. Everything runs on loopback in
# temporary folders and is stopped by process id.
set -euo pipefail
repo="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${2:-$repo/build/release}" && pwd)"
ZARNU_CRASH_ROUNDS="${1:-1000}" ZARNU_BIN_DIR="$build/bin" exec /usr/bin/python3 -m pytest -q \
  "$repo/tests/sync_e2e/test_faults.py" -k sigkill
