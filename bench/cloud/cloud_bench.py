#!/usr/bin/env python3
"""Loopback benchmark of zarnu-cloud (run by hand, not in CI).

Starts its own service (plain HTTP on 127.0.0.1, fresh data folder) unless --url is
given, then measures:
  * part upload throughput: batches of 5 x 1 MiB parts, several keep-alive clients;
  * part download throughput: batches of 8 x 1 MiB parts;
  * requests per second of small listings (a folder of 10 entries), 16 clients.

  python3 bench/cloud/cloud_bench.py [--bin-dir build/release/bin] [--upload-mib 200]
"""

import argparse
import os
import pathlib
import shutil
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
REPO = HERE.parents[1]
sys.path.insert(0, str(REPO / "tests" / "cloud"))
sys.path.insert(0, str(REPO / "bench"))

from benchlib import add_user, start_cloud, stop  # noqa: E402
from cloudclient import CloudClient, fingerprint  # noqa: E402

MIB = 1024 * 1024


def run_threads(count, work):
    """Runs work(index) in `count` threads; returns elapsed seconds."""
    threads = [threading.Thread(target=work, args=(i,)) for i in range(count)]
    start = time.perf_counter()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return time.perf_counter() - start


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--bin-dir", default=os.environ.get("ZARNU_BIN_DIR", str(REPO / "build" / "release" / "bin")))
    ap.add_argument("--url", help="use a running service instead (needs --user/--password)")
    ap.add_argument("--user", default="bench")
    ap.add_argument("--password", default="bench")
    ap.add_argument("--upload-mib", type=int, default=200)
    ap.add_argument("--transfer-clients", type=int, default=4)
    ap.add_argument("--list-clients", type=int, default=16)
    ap.add_argument("--list-seconds", type=float, default=5.0)
    args = ap.parse_args()

    proc = data_dir = None
    if args.url:
        url = args.url
    else:
        data_dir = tempfile.mkdtemp(prefix="zarnu-cloud-bench-")
        cloud = str(pathlib.Path(args.bin_dir) / "zarnu-cloud")
        add_user(cloud, data_dir, args.user, args.password)
        proc, url = start_cloud(cloud, data_dir)
    try:
        token = CloudClient(url).login(args.user, args.password)["token"]
        results = {}

        # --- upload ---
        parts = [os.urandom(MIB) for _ in range(args.upload_mib)]
        fps = [fingerprint(p) for p in parts]
        batches = [parts[i:i + 5] for i in range(0, len(parts), 5)]

        def upload(index):
            client = CloudClient(url, token=token)
            for b in batches[index::args.transfer_clients]:
                client.upload(b)
            client.close()

        elapsed = run_threads(args.transfer_clients, upload)
        results["upload"] = len(parts) * MIB / elapsed / 1e6

        # --- download ---
        setup = CloudClient(url, token=token)
        file_id = setup.create("/bench/big.bin", parts)["id"]
        groups = [fps[i:i + 8] for i in range(0, len(fps), 8)]

        def download(index):
            client = CloudClient(url, token=token)
            for g in groups[index::args.transfer_clients]:
                got = client.download(file_id, g)
                assert all(status == "ok" for _, status, _ in got)
            client.close()

        elapsed = run_threads(args.transfer_clients, download)
        results["download"] = len(parts) * MIB / elapsed / 1e6

        # --- small listings ---
        for i in range(10):
            setup.call("folders/create", {"path": f"/small/f{i}"})
        counts = [0] * args.list_clients

        def listing(index):
            client = CloudClient(url, token=token)
            deadline = time.perf_counter() + args.list_seconds
            while time.perf_counter() < deadline:
                assert len(client.list("/small")["entries"]) == 11
                counts[index] += 1
            client.close()

        elapsed = run_threads(args.list_clients, listing)
        results["list"] = sum(counts) / elapsed

        print(f"part upload   : {results['upload']:8.1f} MB/s  ({args.upload_mib} x 1 MiB parts, batches of 5, "
              f"{args.transfer_clients} clients)")
        print(f"part download : {results['download']:8.1f} MB/s  (batches of 8 x 1 MiB, {args.transfer_clients} clients)")
        print(f"small listings: {results['list']:8.0f} requests/s ({args.list_clients} clients, 10-entry folder)")
    finally:
        if proc:
            stop(proc)
        if data_dir:
            shutil.rmtree(data_dir, ignore_errors=True)


if __name__ == "__main__":
    main()
