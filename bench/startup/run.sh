#!/usr/bin/env bash
# Start-up cost of zarnucmd: the wall time of `zarnucmd -version` against
# /bin/true, measured over many interleaved runs. Prints both means, medians
# and the ratio of the means, and the CPU time (user + system) of each, which
# stays meaningful when other work shares the machine.
#
#   bench/startup/run.sh [runs]        (default 500)
#
# The program is taken from $ZARNU_BIN_DIR (default build/release/bin). Each run
# gets a fresh, empty data folder through $ZARNU_DATA, as a first start would.
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
bin_dir="${ZARNU_BIN_DIR:-$repo/build/release/bin}"
runs="${1:-500}"
exe="$bin_dir/zarnucmd"
if [ ! -x "$exe" ]; then
  echo "startup bench: $exe not found; build zarnucmd first (or set ZARNU_BIN_DIR)" >&2
  exit 1
fi

exec /usr/bin/python3 - "$exe" "$runs" <<'PY'
import os, shutil, statistics, sys, tempfile, time

exe, runs = sys.argv[1], int(sys.argv[2])
data = tempfile.mkdtemp(prefix="zarnu-startup-")
env = dict(os.environ, ZARNU_DATA=os.path.join(data, "zarnu-data"), HOME=data)
devnull = os.open(os.devnull, os.O_WRONLY)
commands = {"zarnucmd -version": [exe, "-version"], "/bin/true": ["/bin/true"]}

def once(argv):
    start = time.perf_counter_ns()
    pid = os.posix_spawn(argv[0], argv, env, file_actions=[(os.POSIX_SPAWN_DUP2, devnull, 1)])
    _, status, usage = os.wait4(pid, 0)
    elapsed = time.perf_counter_ns() - start
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"startup bench: {' '.join(argv)} failed with status {status}")
    return elapsed / 1e6, (usage.ru_utime + usage.ru_stime) * 1e3  # milliseconds

for argv in commands.values():  # warm the page cache and the dynamic loader
    for _ in range(20):
        once(argv)
times = {name: [] for name in commands}
cpu = {name: [] for name in commands}
for _ in range(runs):  # interleaved, so that load changes hit both alike
    for name, argv in commands.items():
        wall, used = once(argv)
        times[name].append(wall)
        cpu[name].append(used)
shutil.rmtree(data)

print(f"{runs} runs each")
for name, t in times.items():
    print(f"  {name:20s} mean {statistics.mean(t):7.3f} ms  median {statistics.median(t):7.3f} ms  "
          f"stdev {statistics.stdev(t):6.3f} ms  min {min(t):7.3f} ms  cpu {statistics.mean(cpu[name]):6.3f} ms")
cmd, true = (statistics.mean(times[n]) for n in commands)
cmd_cpu, true_cpu = (statistics.mean(cpu[n]) for n in commands)
print(f"  ratio (means)        {cmd / true:.2f}x  (zarnucmd start-up costs {cmd - true:.3f} ms over /bin/true)")
print(f"  ratio (cpu)          {cmd_cpu / true_cpu:.2f}x")
PY
