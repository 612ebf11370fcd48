#!/usr/bin/env python3
"""Whether the time of a part upload tells one account what another stored (run by hand,
not in CI).

Starts its own service (plain HTTP on 127.0.0.1, fresh data folder). Account "owner"
uploads parts; account "prober" then uploads, interleaved, parts the owner stored before
and parts nobody stored, and the upload latencies of the two kinds are compared. The
service does the same work for both, so their distributions should match within noise.

  python3 bench/cloud/dedupe_timing.py [--bin-dir build/release/bin] [--parts 200] [--size 65536]
"""

import argparse
import os
import pathlib
import random
import shutil
import statistics
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
REPO = HERE.parents[1]
sys.path.insert(0, str(REPO / "tests" / "cloud"))
sys.path.insert(0, str(REPO / "bench"))

from benchlib import add_user, start_cloud, stop  # noqa: E402
from cloudclient import CloudClient  # noqa: E402


def summary(name, seconds):
    ms = sorted(s * 1000 for s in seconds)
    p90 = ms[int(len(ms) * 0.9) - 1]
    return f"{name:<26} median {statistics.median(ms):7.2f} ms   p90 {p90:7.2f} ms   ({len(ms)} uploads)"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin-dir", default=str(REPO / "build" / "release" / "bin"))
    ap.add_argument("--parts", type=int, default=200)
    ap.add_argument("--size", type=int, default=64 * 1024)
    args = ap.parse_args()
    work = tempfile.mkdtemp(prefix="dedupe-timing-", dir="/var/tmp")
    cloud = str(pathlib.Path(args.bin_dir) / "zarnu-cloud")
    for name in ("owner", "prober"):
        add_user(cloud, work, name, "bench")
    proc, url = start_cloud(cloud, work)
    try:
        owner, prober = CloudClient(url), CloudClient(url)
        owner.login("owner", "bench")
        prober.login("prober", "bench")
        stored = [os.urandom(args.size) for _ in range(args.parts)]
        for p in stored:
            owner.upload([p])
        fresh = [os.urandom(args.size) for _ in range(args.parts)]
        trials = [("stored by another", p) for p in stored] + [("stored by nobody", p) for p in fresh]
        random.shuffle(trials)
        times = {"stored by another": [], "stored by nobody": []}
        for kind, p in trials:
            start = time.perf_counter()
            prober.upload([p])
            times[kind].append(time.perf_counter() - start)
        for kind, seconds in times.items():
            print(summary(kind, seconds))
    finally:
        stop(proc)
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
