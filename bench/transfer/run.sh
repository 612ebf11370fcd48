#!/usr/bin/env bash
# Transfer benchmark (run by hand, not in CI): "put" of a new file, "put" of the
# same file again (nothing to send), "get" of it, against a zarnu-cloud on
# loopback, as throughput, as a ratio to this machine's single-core MD5+SHA-1
# rate, and with each command's peak memory.
#
#   bench/transfer/run.sh [build folder] [size in MiB]
#
# The build folder (default build/release) must hold bin/zarnucmd,
# bin/zarnu-cloud and lib/libQel.so. Needs GNU time (/usr/bin/time, Debian's
# "time"). Set BENCH_WORK to keep the test file between runs, ZARNUCMD to
# measure another zarnucmd build placed in the same bin folder (CLOUD likewise
# for the service), CLOUD_DATA to put the service's data folder elsewhere
# (e.g. /dev/shm/zarnu-bench to take this machine's disk out of the figures).
set -euo pipefail

repo="$(cd "$(dirname "$0")/../.." && pwd)"
build="$(cd "${1:-$repo/build/release}" && pwd)"
size_mib="${2:-1024}"

if [ ! -x /usr/bin/time ]; then
  echo "run.sh: /usr/bin/time missing (apt-get install time)" >&2
  exit 2
fi

. "$repo/bench/hashrate.sh"

args=(--bin "$build/bin" --helper "$helper" --size-mib "$size_mib")
if [ -n "${BENCH_WORK:-}" ]; then args+=(--work "$BENCH_WORK"); fi
if [ -n "${ZARNUCMD:-}" ]; then args+=(--zarnucmd "$ZARNUCMD"); fi
if [ -n "${CLOUD:-}" ]; then args+=(--cloud "$CLOUD"); fi
if [ -n "${CLOUD_DATA:-}" ]; then args+=(--cloud-data "$CLOUD_DATA"); fi
exec /usr/bin/python3 "$repo/bench/transfer/bench.py" "${args[@]}"
