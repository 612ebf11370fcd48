#!/usr/bin/env bash
# Load benchmark (run by hand, not in CI): 200 logged-in clients list small folders
# against zarnu-cloud on loopback for a bounded time, while a slow-loris (connections
# that send their header a line every few seconds) and a connection flood (connections
# that never send anything) run beside them. Reports the logged-in clients' p50/p99
# latency and their error count, and what became of the attackers' connections.
#
#   bench/load/run.sh [build folder] [seconds] [clients] [loris connections] [flood connections] [cap]
#
# Defaults: build/release, 30 s, 200 clients, 200 slow-loris and 1000 flood
# connections. The service runs with its own data folder in a temporary folder
# (BENCH_WORK to choose it) and is stopped by process id at the end. Goal: no errors,
# p99 under 50 ms. A cap (--max-connections) below the attack's size shows the
# service closing idle attackers to make room.
set -euo pipefail
repo="$(cd "$(dirname "$0")/../.." && pwd)"
build="$(cd "${1:-$repo/build/release}" && pwd)"
exec /usr/bin/python3 "$repo/bench/load/load_bench.py" --bin "$build/bin" --seconds "${2:-30}" \
  --clients "${3:-200}" --loris "${4:-200}" --flood "${5:-1000}" ${6:+--max-connections "$6"} \
  ${BENCH_WORK:+--work "$BENCH_WORK"}
