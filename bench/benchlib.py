"""Helpers shared by the script benchmarks: the service on loopback, GNU time, the
single-core fingerprint rate and test data. Every process started here is stopped by
its process id."""
import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request

MIB = 1 << 20


def start_cloud(exe, data, *options):
    """Starts `zarnu-cloud serve` over plain HTTP on 127.0.0.1 and a free port (with
    further `options`); returns (process, address) once it prints its "listening on" line."""
    proc = subprocess.Popen([exe, "serve", "--data", str(data), "--listen", "127.0.0.1:0", "--http", *options],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    line = proc.stdout.readline()
    if not line.startswith("listening on "):
        proc.kill()
        sys.exit(f"zarnu-cloud did not start: {line!r}")
    return proc, line.split()[-1]


def stop(proc):
    if proc.poll() is None:
        proc.send_signal(signal.SIGTERM)
        try:
            proc.wait(timeout=30)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()


def add_user(exe, data, user, password):
    subprocess.run([exe, "user", "add", user, "--data", str(data)], input=password + "\n", text=True,
                   check=True, capture_output=True)


def get_json(url, body=None, token=None):
    data = None if body is None else json.dumps(body).encode()
    headers = {"Content-Type": "application/json"}
    if token:
        headers["Authorization"] = "Bearer " + token
    req = urllib.request.Request(url, data=data, headers=headers)
    with urllib.request.urlopen(req, timeout=60) as answer:
        return json.load(answer)


def operator_token(data):
    """The operator credential a service made in its data folder (service-wide stats);
    None for builds that made none (they answered the stats to loopback clients)."""
    path = os.path.join(data, "operator.token")
    if not os.path.exists(path):
        return None
    with open(path) as f:
        return f.read().strip()


def hash_rate(helper, mib=1024):
    """Bytes per second of MD5+SHA-1 over 1 MiB parts on one core (the helper run.sh builds)."""
    return float(subprocess.run([helper, str(mib)], check=True, capture_output=True, text=True).stdout)


def timed(cmd, env=None, cwd=None):
    """Runs cmd under GNU time; returns (seconds, peak resident KiB). Exits on failure."""
    with tempfile.NamedTemporaryFile("r") as mem:
        start = time.monotonic()
        result = subprocess.run(["/usr/bin/time", "-f", "%M", "-o", mem.name, *cmd], env=env, cwd=cwd,
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        seconds = time.monotonic() - start
        if result.returncode != 0:
            sys.exit(f"{' '.join(map(str, cmd))} failed ({result.returncode}): {result.stderr.strip()[-2000:]}")
        return seconds, int(mem.read().strip().splitlines()[-1])


def random_file(path, mib):
    """Makes `path` hold `mib` MiB of random bytes, unless it already has that size."""
    if path.exists() and path.stat().st_size == mib * MIB:
        return
    with open(path, "wb") as f:
        for _ in range(mib):
            f.write(os.urandom(MIB))


def same_bytes(a, b):
    with open(a, "rb") as fa, open(b, "rb") as fb:
        while True:
            x, y = fa.read(MIB), fb.read(MIB)
            if x != y:
                return False
            if not x:
                return True
