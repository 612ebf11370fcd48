#!/usr/bin/env bash
# Mount benchmark (run by hand, not in CI): sequential read of a large file through
# `zarnucmd Cloud mount` (cold, then again) against `zarnucmd Cloud get` of the same file,
# and `ls -lR` over a mounted folder of many small files.
#
#   bench/mount/run.sh [build folder] [large file MiB] [small files]
#
# Defaults: build/release, 1024 MiB, 10000 files. The service runs on loopback in a
# temporary folder (BENCH_WORK to choose it); everything is stopped by process id.
set -euo pipefail
repo="$(cd "$(dirname "$0")/../.." && pwd)"
build="$(cd "${1:-$repo/build/release}" && pwd)"
exec /usr/bin/python3 "$repo/bench/mount/mount_bench.py" --bin "$build/bin" --large-mib "${2:-1024}" \
  --small "${3:-10000}" ${BENCH_WORK:+--work "$BENCH_WORK"}
