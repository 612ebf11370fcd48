#!/usr/bin/python3
"""zarnucmd put and get side by side with rclone (WebDAV on loopback) and restic (a local
repository), on the same random file, in one run.

Each run starts from nothing: a new zarnu-cloud data folder and account, a new rclone
server folder, a new restic repository. Figures are medians over the runs; peak memory
is the highest of the runs (GNU time's %M). CPU time is the whole machine's, so that a
transfer's figure counts its server as well as its client. The single-core MD5+SHA-1
rate is measured before and after, and the disk's own time for a get's reads and writes
in every run, for scale.
"""
import argparse
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from benchlib import (MIB, add_user, get_json, hash_rate, operator_token, random_file, same_bytes,  # noqa: E402
                      start_cloud, stop)
from benchlib import timed as timed_alone  # noqa: E402


def busy_seconds():
    """CPU seconds this machine has spent busy (every core, user and kernel) since boot."""
    with open("/proc/stat") as f:
        fields = [int(x) for x in f.readline().split()[1:]]
    idle = fields[3] + fields[4]  # idle, iowait
    return (sum(fields[:8]) - idle) / os.sysconf("SC_CLK_TCK")


def timed(cmd, env=None):
    """timed() once the disk has nothing left to write: no figure pays for the write-back
    of what an earlier command left in the page cache (the page cache itself is kept).
    Returns (seconds, peak KiB, machine CPU seconds): the last counts both ends of a
    transfer, the command and the server it talks to."""
    os.sync()
    before = busy_seconds()
    seconds, peak = timed_alone(cmd, env)
    return seconds, peak, busy_seconds() - before


def disk_side_by_side(src, folder):
    """Seconds the disk takes to read `src` and write as many new bytes at the same time,
    both past the page cache: what a get costs the disk when the service's parts are not
    in memory (it reads them while the client writes the file)."""
    out = folder / "disk-write.bin"
    count = str(src.stat().st_size // MIB)
    os.sync()
    before = busy_seconds()
    start = time.monotonic()
    procs = [subprocess.Popen(["dd", f"if={src}", "of=/dev/null", "bs=1M", "iflag=direct"],
                              stderr=subprocess.DEVNULL),
             subprocess.Popen(["dd", "if=/dev/zero", f"of={out}", "bs=1M", f"count={count}", "oflag=direct"],
                              stderr=subprocess.DEVNULL)]
    if any([p.wait() != 0 for p in procs]):
        sys.exit("dd could not read and write past the page cache here")
    seconds = time.monotonic() - start
    cpu = busy_seconds() - before
    out.unlink()
    return seconds, 0, cpu


def start_rclone_webdav(folder, env):
    """`rclone serve webdav` on 127.0.0.1 and a free port; returns (process, address)."""
    proc = subprocess.Popen(["rclone", "serve", "webdav", str(folder), "--addr", "127.0.0.1:0"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, env=env)
    for line in proc.stderr:
        found = re.search(r"started on (http://[0-9.:]+/)", line)
        if found:
            # Keep reading its log so that it never blocks on a full pipe.
            subprocess.Popen(["cat"], stdin=proc.stderr, stdout=subprocess.DEVNULL)
            return proc, found.group(1)
    stop(proc)
    sys.exit("rclone serve webdav did not start")


def one_run(args, work, src, env):
    """Returns {figure: (seconds, peak KiB, machine CPU seconds)} and the part bytes put
    again sent."""
    out = {}
    run = pathlib.Path(tempfile.mkdtemp(prefix="run-", dir=work))
    try:
        # rclone: up to its WebDAV server, then down from it.
        served = run / "webdav"
        served.mkdir()
        server, address = start_rclone_webdav(served, env)
        try:
            remote = f":webdav,url='{address}':"
            out["rclone up"] = timed(["rclone", "copy", str(src), remote], env)
            down = run / "rclone-down"
            out["rclone down"] = timed(["rclone", "copy", remote + src.name, str(down)], env)
        finally:
            stop(server)
        if not same_bytes(src, down / src.name):
            sys.exit("rclone's download differs from the source")

        # restic: a first backup and a forced one that reads everything again.
        renv = dict(env, RESTIC_REPOSITORY=str(run / "restic"), RESTIC_PASSWORD="bench")
        subprocess.run(["restic", "init"], env=renv, check=True, capture_output=True)
        out["restic backup"] = timed(["restic", "backup", str(src)], renv)
        out["restic backup --force"] = timed(["restic", "backup", "--force", str(src)], renv)

        # zarnucmd against zarnu-cloud over plain HTTP.
        cloud_exe = str(pathlib.Path(args.bin) / "zarnu-cloud")
        data = run / "cloud-data"
        add_user(cloud_exe, data, "bench", "bench-password")
        cloud, address = start_cloud(cloud_exe, data)
        try:
            token = get_json(address + "api/v1/login", {"username": "bench", "password": "bench-password"})["token"]
            zenv = dict(env, ZARNU_DATA=str(run / "zarnu-data"))
            cmd = [str(pathlib.Path(args.bin) / "zarnucmd"), "Cloud"]
            creds = ["-username=bench", "-authToken=" + token, "-cloudAddress=" + address]
            back = run / "zarnu-back"
            out["zarnucmd put"] = timed(cmd + ["put", str(src), "/bench"] + creds, zenv)
            before = get_json(address + "api/v1/stats", token=operator_token(data))
            out["zarnucmd put again"] = timed(cmd + ["put", str(src), "/bench"] + creds, zenv)
            after = get_json(address + "api/v1/stats", token=operator_token(data))
            out["zarnucmd get"] = timed(cmd + ["get", "/bench/" + src.name, str(back)] + creds, zenv)
            out["disk read + write"] = disk_side_by_side(src, run)
        finally:
            stop(cloud)
        if not same_bytes(src, back):
            sys.exit("zarnucmd's download differs from the source")
        again_sent = after["bytes_received"] - before["bytes_received"]
        return out, again_sent
    finally:
        shutil.rmtree(run, ignore_errors=True)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True, help="folder holding zarnucmd and zarnu-cloud")
    ap.add_argument("--helper", required=True, help="the hashing-rate program")
    ap.add_argument("--size-mib", type=int, default=1024)
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--work", default=None, help="work folder (default: a new one under /var/tmp)")
    args = ap.parse_args()

    work = pathlib.Path(args.work or tempfile.mkdtemp(prefix="zarnu-peers-bench-", dir="/var/tmp"))
    work.mkdir(parents=True, exist_ok=True)
    home = work / "home"
    home.mkdir(exist_ok=True)
    # Tools keep their settings and caches in this run's own home.
    env = dict(os.environ, HOME=str(home), XDG_CACHE_HOME=str(home / ".cache"),
               XDG_CONFIG_HOME=str(home / ".config"), RCLONE_CONFIG=str(home / "rclone.conf"))
    src = work / "random.bin"
    random_file(src, args.size_mib)

    rate_before = hash_rate(args.helper)
    runs, again_sent = [], []
    for i in range(args.runs):
        figures, sent = one_run(args, work, src, env)
        runs.append(figures)
        again_sent.append(sent)
        print(f"run {i + 1}: " + ", ".join(f"{k} {f[0]:.2f} s" for k, f in figures.items()), flush=True)
    rate_after = hash_rate(args.helper)
    if not args.work:
        shutil.rmtree(work, ignore_errors=True)

    size = args.size_mib * MIB
    rate = max(rate_before, rate_after)
    print(f"\nfile: {args.size_mib} MiB of random bytes; runs: {args.runs}; single-core MD5+SHA-1 "
          f"{rate / MIB:.0f} MiB/s; load average {os.getloadavg()[0]:.2f}")
    median = {k: statistics.median(r[k][0] for r in runs) for k in runs[0]}
    peak = {k: max(r[k][1] for r in runs) for k in runs[0]}
    cpu = {k: statistics.median(r[k][2] for r in runs) for k in runs[0]}
    print(f"{'figure':<24} {'median s':>9} {'MiB/s':>8} {'peak MiB':>9} {'CPU s':>6}")
    for k in runs[0]:
        print(f"{k:<24} {median[k]:9.2f} {size / median[k] / MIB:8.1f} {peak[k] / 1024:9.1f} {cpu[k]:6.2f}")
    print("(CPU s: the whole machine's busy CPU time during the command, both ends of a transfer, median;\n"
          f" this machine has {os.cpu_count()} cores)")

    checks = [
        ("get / rclone down", median["zarnucmd get"] / median["rclone down"], 1.0),
        ("put / rclone up", median["zarnucmd put"] / median["rclone up"], 0.7),
        ("put again / restic backup --force", median["zarnucmd put again"] / median["restic backup --force"], 0.7),
    ]
    failures = []
    print()
    for label, ratio, goal in checks:
        ok = ratio <= goal
        print(f"{label:<36} {ratio:5.2f}  (goal at most {goal:.1f}) {'met' if ok else 'MISSED'}")
        if not ok:
            failures.append(label)
    print(f"{'get / disk read + write':<36} {median['zarnucmd get'] / median['disk read + write']:5.2f}  "
          "(for scale: the disk alone, when the parts are not in memory)")
    print(f"{'part bytes sent by put again':<36} {max(again_sent)}  (goal 0) {'met' if max(again_sent) == 0 else 'MISSED'}")
    if max(again_sent) != 0:
        failures.append("put again sent part bytes")
    zarnu_peak = max(peak[k] for k in peak if k.startswith("zarnucmd")) / 1024
    print(f"{'peak memory of zarnucmd':<36} {zarnu_peak:5.1f} MiB  (goal under 32) {'met' if zarnu_peak < 32 else 'MISSED'}")
    if zarnu_peak >= 32:
        failures.append("peak memory")
    print("targets:", "met" if not failures else "MISSED: " + "; ".join(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
