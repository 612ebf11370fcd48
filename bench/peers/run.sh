#!/usr/bin/env bash
# Side-by-side transfer benchmark (run by hand, not in CI): zarnucmd against the tools a
# user would pick instead, in one run on this machine, over loopback.
#
#   bench/peers/run.sh [build folder] [size in MiB] [runs]
#
# Defaults: build/release, 1024 MiB, 3 runs (medians are reported). Installs rclone,
# restic and GNU time from Debian when they are missing; they are used here only.
# BENCH_WORK chooses the work folder (default: a new temporary folder on /var/tmp, so
# every tool writes to the same disk).
set -euo pipefail

repo="$(cd "$(dirname "$0")/../.." && pwd)"
build="$(cd "${1:-$repo/build/release}" && pwd)"

missing=()
command -v rclone >/dev/null || missing+=(rclone)
command -v restic >/dev/null || missing+=(restic)
[ -x /usr/bin/time ] || missing+=(time)
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}"
fi

. "$repo/bench/hashrate.sh"

exec /usr/bin/python3 "$repo/bench/peers/peers_bench.py" --bin "$build/bin" --helper "$helper" \
  --size-mib "${2:-1024}" --runs "${3:-3}" ${BENCH_WORK:+--work "$BENCH_WORK"}
