#!/usr/bin/python3
"""Transfer benchmark: "put" of a new file, "put" of the same file again, "get" of it.

Run through run.sh, which builds the hashing helper and passes the paths. Everything
happens on this machine in one run: a zarnu-cloud on loopback (plain HTTP, its own data
folder), the single-core MD5+SHA-1 rate of this machine (measured with the helper before
and after the transfers; the higher figure is used, so the ratios are conservative), and
each command's wall time and peak memory (GNU time's %M).
"""
import argparse
import filecmp
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from benchlib import MIB, get_json, hash_rate, operator_token, start_cloud, timed  # noqa: E402


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True, help="folder holding zarnucmd and zarnu-cloud")
    ap.add_argument("--helper", required=True, help="the hashing-rate program")
    ap.add_argument("--size-mib", type=int, default=1024)
    ap.add_argument("--work", default=None, help="work folder (default: a new temporary folder)")
    ap.add_argument("--zarnucmd", default="zarnucmd", help="program name in --bin (to compare builds)")
    ap.add_argument("--cloud", default="zarnu-cloud", help="service program name in --bin")
    ap.add_argument("--cloud-data", default=None,
                    help="the service's data folder (default: in the work folder, on its disk)")
    args = ap.parse_args()

    work = pathlib.Path(args.work or tempfile.mkdtemp(prefix="zarnu-transfer-bench-"))
    work.mkdir(parents=True, exist_ok=True)
    size = args.size_mib * MIB
    src = work / "big.bin"
    if not src.exists() or src.stat().st_size != size:
        with open(src, "wb") as f:
            for _ in range(args.size_mib):
                f.write(os.urandom(MIB))
    back = work / "big.back"
    back.unlink(missing_ok=True)

    data = pathlib.Path(args.cloud_data) if args.cloud_data else work / "cloud-data"
    for old in (data, work / "zarnu-data"):
        shutil.rmtree(old, ignore_errors=True)
    subprocess.run([str(pathlib.Path(args.bin) / args.cloud), "user", "add", "bench", "--data", str(data)],
                   input="bench-password\n", text=True, check=True, capture_output=True)
    cloud, address = start_cloud(str(pathlib.Path(args.bin) / args.cloud), data)
    try:
        # Log in once; the commands use the token, as the agent does.
        token = get_json(address + "api/v1/login", {"username": "bench", "password": "bench-password"})["token"]
        env = dict(os.environ, ZARNU_DATA=str(work / "zarnu-data"), HOME=str(work))
        zarnucmd = [str(pathlib.Path(args.bin) / args.zarnucmd), "Cloud"]
        creds = ["-username=bench", "-authToken=" + token, "-cloudAddress=" + address]

        rate_before = hash_rate(args.helper, 1024)
        runs = []
        for label, verb in (("put (new)", ["put", str(src), "/bench"]),
                            ("put (again)", ["put", str(src), "/bench"]),
                            ("get", ["get", "/bench/" + src.name, str(back)])):
            stats_before = get_json(address + "api/v1/stats", token=operator_token(data))
            seconds, peak_kib = timed(zarnucmd + verb + creds, env)
            stats_after = get_json(address + "api/v1/stats", token=operator_token(data))
            sent = {k: stats_after[k] - stats_before[k]
                    for k in ("parts_received", "bytes_received", "parts_stored", "bytes_sent")}
            runs.append((label, seconds, peak_kib, sent))
        rate_after = hash_rate(args.helper, 1024)
    finally:
        cloud.send_signal(signal.SIGTERM)
        cloud.wait(timeout=30)

    same = filecmp.cmp(src, back, shallow=False)
    rate = max(rate_before, rate_after)
    print(f"service data folder: {data}")
    print(f"file: {args.size_mib} MiB; single-core MD5+SHA-1 rate: {rate / MIB:.1f} MiB/s "
          f"(before {rate_before / MIB:.1f}, after {rate_after / MIB:.1f}); load average {os.getloadavg()[0]:.2f}")
    print(f"{'command':<12} {'seconds':>8} {'MiB/s':>8} {'ratio':>6} {'peak MiB':>9}  cloud counters during the command")
    for label, seconds, peak_kib, sent in runs:
        throughput = size / seconds
        print(f"{label:<12} {seconds:8.2f} {throughput / MIB:8.1f} {throughput / rate:6.2f} {peak_kib / 1024:9.1f}"
              f"  received {sent['bytes_received']} B in {sent['parts_received']} parts, stored"
              f" {sent['parts_stored']}, sent {sent['bytes_sent']} B")
    print("downloaded copy identical:", same)
    failures = []
    if size / runs[0][1] < 0.7 * rate:
        failures.append("new upload below 0.7 of the hashing rate")
    if size / runs[1][1] < 0.9 * rate:
        failures.append("repeat upload below 0.9 of the hashing rate")
    if runs[1][3]["bytes_received"] != 0:
        failures.append("repeat upload sent part bytes")
    if any(peak_kib >= 32 * 1024 for _, _, peak_kib, _ in runs):
        failures.append("peak memory of 32 MiB or more")
    if not same:
        failures.append("downloaded copy differs")
    print("targets:", "met" if not failures else "MISSED: " + "; ".join(failures))
    shutil.rmtree(data, ignore_errors=True)
    if not args.work:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
