#!/usr/bin/env bash
# Time from starting `zarnucmd Peer list` to its first "Peer list updated: " line, with one agent on the network.
#   bench/discovery/run.sh [runs]      (default 20; needs root for the network namespaces)
# Two namespaces joined by a veth pair stand for two machines; the agent runs in one, the scans in the other.
# Prints every run and the median. Everything it starts is stopped by process id, and the namespaces are deleted.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
bin="${ZARNU_BIN_DIR:-$repo/build/release/bin}"
runs="${1:-20}"
[ "$(id -u)" -eq 0 ] || { echo "bench/discovery: needs root (network namespaces)" >&2; exit 2; }
tag="zb$$"
work="$(mktemp -d)"
agent_pid=""
cleanup() {
  [ -n "$agent_pid" ] && kill "$agent_pid" 2>/dev/null && wait "$agent_pid" 2>/dev/null || true
  ip netns del "${tag}a" 2>/dev/null || true
  ip netns del "${tag}b" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
ip netns add "${tag}a"; ip netns add "${tag}b"
ip link add "${tag}va" type veth peer name "${tag}vb"
ip link set "${tag}va" netns "${tag}a"; ip link set "${tag}vb" netns "${tag}b"
ip -n "${tag}a" addr add 10.78.0.1/24 brd + dev "${tag}va"; ip -n "${tag}b" addr add 10.78.0.2/24 brd + dev "${tag}vb"
for s in a b; do ip -n "${tag}$s" link set "${tag}v$s" up; ip -n "${tag}$s" link set lo up; done

export ZARNU_PEER_DISCOVERY=on
mkfifo "$work/agent.out"
ZARNU_DATA="$work/agent" HOME="$work" ip netns exec "${tag}a" "$bin/ZarnuAgent" > "$work/agent.out" &
agent_pid=$!
read -r line < "$work/agent.out"   # "listening on ...": the agent is up
echo "agent: $line"

/usr/bin/python3 - "$runs" "$bin/zarnucmd" "${tag}b" "$work" <<'PY'
import os, statistics, subprocess, sys, time
runs, exe, ns, work = int(sys.argv[1]), sys.argv[2], sys.argv[3], sys.argv[4]
env = dict(os.environ, ZARNU_DATA=os.path.join(work, "scan"), HOME=work)
times = []
for i in range(runs):
    start = time.monotonic()
    p = subprocess.Popen(["ip", "netns", "exec", ns, exe, "Peer", "list"], stdin=subprocess.PIPE,
                         stdout=subprocess.PIPE, text=True, env=env)
    for line in p.stdout:
        if line.startswith("Peer list updated: "):
            times.append((time.monotonic() - start) * 1000)
            break
    p.stdin.write("\n"); p.stdin.flush(); p.wait(timeout=10)
    print(f"run {i + 1}: first update after {times[-1]:.1f} ms")
print(f"median {statistics.median(times):.1f} ms, min {min(times):.1f} ms, max {max(times):.1f} ms over {runs} runs")
PY
