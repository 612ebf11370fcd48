#!/usr/bin/env bash
# Sync benchmark (run by hand, not in CI): how long the agent takes to bring
# 1,000 small files and one large file into the cloud and into a second
# agent's folder, the agent's idle CPU and memory, and the rate of
# `zarnucmd Overlay status` over a folder of 10,000 files.
#
#   bench/sync/run.sh [build folder] [large file MiB] [small files] [status files]
#
# Defaults: build/release, 1024 MiB, 1000 files, 10000 files. Everything runs
# on loopback in a temporary folder (BENCH_WORK to choose it) and is stopped
# by process id at the end.
set -euo pipefail
repo="$(cd "$(dirname "$0")/../.." && pwd)"
build="$(cd "${1:-$repo/build/release}" && pwd)"
exec /usr/bin/python3 "$repo/bench/sync/sync_bench.py" --bin "$build/bin" --large-mib "${2:-1024}" \
  --small "${3:-1000}" --status-files "${4:-10000}" ${BENCH_WORK:+--work "$BENCH_WORK"}
