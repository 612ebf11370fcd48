#!/usr/bin/env bash
# Starts ZarnuAgent in a scratch data folder, measures path-status requests
# over its overlay socket (zarnu_overlay_bench) and stops the agent.
#
#   bench/overlay/run.sh [benchmark options]
#
# Programs come from $ZARNU_BIN_DIR (default build/release/bin).
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
bin_dir="${ZARNU_BIN_DIR:-$repo/build/release/bin}"
for exe in ZarnuAgent zarnu_overlay_bench; do
  [ -x "$bin_dir/$exe" ] || { echo "overlay bench: $bin_dir/$exe not found; build it first" >&2; exit 1; }
done

scratch=$(mktemp -d /tmp/zarnu-overlay-bench.XXXXXX)
mkfifo "$scratch/agent.out"
ZARNU_DATA="$scratch/data" HOME="$scratch" "$bin_dir/ZarnuAgent" >"$scratch/agent.out" 2>"$scratch/agent.err" &
agent=$!
trap 'kill "$agent" 2>/dev/null; wait "$agent" 2>/dev/null || true; rm -rf "$scratch"' EXIT
exec 3<"$scratch/agent.out"
line=""
read -r -t 30 line <&3 || true
socket="${line#listening on }"
if [ -z "$line" ] || [ "$socket" = "$line" ]; then
  cat "$scratch/agent.err" >&2
  echo "overlay bench: the agent did not start" >&2
  exit 1
fi
ZARNU_OVERLAY_SOCKET="$socket" "$bin_dir/zarnu_overlay_bench" "$@"
