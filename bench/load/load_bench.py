#!/usr/bin/python3
"""Load benchmark: logged-in clients against zarnu-cloud while attackers hold connections.

Run through run.sh. One asyncio process plays every party over loopback:
  * clients: each keeps one keep-alive connection and lists its account's folder of a
    few files (POST /api/v1/list), pausing --think seconds between requests; every
    request's latency is recorded, and any failure (refused connection, cut connection,
    an answer other than 200) counts as an error;
  * slow-loris: connections that send a request line, then one more header line every
    --loris-interval seconds, never finishing the header (reconnecting once cut off);
  * flood: connections that are opened and never send a byte (reopened once closed).
The service is a fresh `zarnu-cloud serve --http` on 127.0.0.1 with its own data folder.
"""
import argparse
import asyncio
import json
import multiprocessing
import pathlib
import resource
import shutil
import statistics
import sys
import tempfile
import time
import urllib.parse

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from benchlib import add_user, get_json, operator_token, start_cloud, stop  # noqa: E402

ACCOUNTS = 20
FILES_PER_ACCOUNT = 10
PASSWORD = "load-bench-password"
ATTACK_HEAD_START = 2  # seconds the attack runs before the clients start


def raise_descriptor_limit():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    return hard


async def read_answer(reader):
    """(status, body) of one HTTP/1.1 answer with a Content-Length."""
    head = await reader.readuntil(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    status = int(lines[0].split()[1])
    length = 0
    for line in lines[1:]:
        name, _, value = line.partition(":")
        if name.lower() == "content-length":
            length = int(value)
    body = await reader.readexactly(length)
    return status, body


def request(path, token, body):
    return (f"POST {path} HTTP/1.1\r\nHost: bench\r\nAuthorization: Bearer {token}\r\n"
            f"Content-Type: application/json\r\nContent-Length: {len(body)}\r\n\r\n").encode() + body


class Results:
    def __init__(self):
        self.latencies = []
        self.errors = 0
        self.error_kinds = {}
        self.loris_cut = 0
        self.flood_closed = 0
        self.flood_opened = 0

    def error(self, kind):
        self.errors += 1
        self.error_kinds[kind] = self.error_kinds.get(kind, 0) + 1


async def client(host, port, token, deadline, think, results):
    payload = request("/api/v1/list", token, json.dumps({"path": "/files"}).encode())
    reader = writer = None
    while time.monotonic() < deadline:
        try:
            if writer is None:
                reader, writer = await asyncio.open_connection(host, port)
            started = time.perf_counter()
            writer.write(payload)
            status, body = await read_answer(reader)
            elapsed = time.perf_counter() - started
            if status != 200:
                results.error(f"HTTP {status}")
            else:
                results.latencies.append(elapsed)
        except (OSError, asyncio.IncompleteReadError) as e:
            results.error(type(e).__name__)
            if writer:
                writer.close()
            reader = writer = None
        await asyncio.sleep(think)
    if writer:
        writer.close()


async def slow_loris(host, port, deadline, interval, results):
    while time.monotonic() < deadline:
        try:
            reader, writer = await asyncio.open_connection(host, port)
        except OSError:
            await asyncio.sleep(interval)
            continue
        try:
            writer.write(b"POST /api/v1/list HTTP/1.1\r\nHost: bench\r\n")
            n = 0
            while time.monotonic() < deadline:
                await asyncio.sleep(interval)
                writer.write(f"X-Slow-{n}: {'a' * 10}\r\n".encode())
                await writer.drain()
                n += 1
                if reader.at_eof():
                    break
        except OSError:
            pass
        if time.monotonic() < deadline:
            results.loris_cut += 1
        writer.close()


async def flooder(host, port, deadline, results):
    while time.monotonic() < deadline:
        try:
            reader, writer = await asyncio.open_connection(host, port)
        except OSError:
            await asyncio.sleep(0.5)
            continue
        results.flood_opened += 1
        try:
            remaining = deadline - time.monotonic()
            if remaining > 0 and not await asyncio.wait_for(reader.read(1), remaining):
                results.flood_closed += 1
        except (asyncio.TimeoutError, OSError):
            pass
        writer.close()


def prepare_accounts(exe, data, address):
    """ACCOUNTS accounts with a folder of small files each; returns their tokens."""
    tokens = []
    for i in range(ACCOUNTS):
        add_user(exe, data, f"load{i}", PASSWORD)
    for i in range(ACCOUNTS):
        token = get_json(address + "api/v1/login", {"username": f"load{i}", "password": PASSWORD})["token"]
        tokens.append(token)
        for f in range(FILES_PER_ACCOUNT):
            get_json(address + "api/v1/files/create", {"path": f"/files/f{f}.txt", "parts": []}, token=token)
    return tokens


async def attack(args, host, port, deadline, results):
    tasks = [asyncio.create_task(flooder(host, port, deadline, results)) for _ in range(args.flood)]
    tasks += [asyncio.create_task(slow_loris(host, port, deadline, args.loris_interval, results))
              for _ in range(args.loris)]
    await asyncio.gather(*tasks)


def attacker(args, host, port, deadline, queue):
    """The attack in a process of its own, so that its connections do not slow down
    the measuring clients' event loop; reports its counts through `queue`."""
    results = Results()
    asyncio.run(attack(args, host, port, deadline, results))
    queue.put((results.loris_cut, results.flood_opened, results.flood_closed))


async def measure(args, host, port, tokens, deadline, results):
    await asyncio.gather(*[client(host, port, tokens[i % len(tokens)], deadline, args.think, results)
                           for i in range(args.clients)])


def run(args, host, port, tokens, results):
    attack_start = time.monotonic()
    deadline = attack_start + ATTACK_HEAD_START + args.seconds
    queue = multiprocessing.Queue()
    proc = multiprocessing.Process(target=attacker, args=(args, host, port, deadline, queue))
    proc.start()
    time.sleep(ATTACK_HEAD_START)  # the attack is under way before the clients start
    asyncio.run(measure(args, host, port, tokens, deadline, results))
    results.loris_cut, results.flood_opened, results.flood_closed = queue.get(timeout=120)
    proc.join(60)


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(p / 100 * len(ordered)))]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True, help="folder holding zarnu-cloud")
    ap.add_argument("--seconds", type=float, default=30)
    ap.add_argument("--clients", type=int, default=200)
    ap.add_argument("--loris", type=int, default=200)
    ap.add_argument("--flood", type=int, default=1000)
    ap.add_argument("--think", type=float, default=0.1, help="each client's pause between requests (s)")
    ap.add_argument("--loris-interval", type=float, default=2.0)
    ap.add_argument("--max-connections", type=int, default=0,
                    help="the service's connection cap (default: its own); below the attack's size it "
                         "shows the cap making room")
    ap.add_argument("--work", default=None, help="work folder (default: a new temporary folder)")
    args = ap.parse_args()

    limit = raise_descriptor_limit()
    if args.clients + args.loris + args.flood + 64 > limit:
        sys.exit(f"{args.clients + args.loris + args.flood} connections need more than the descriptor limit {limit}")
    work = pathlib.Path(args.work or tempfile.mkdtemp(prefix="zarnu-load-bench-"))
    data = work / "cloud-data"
    shutil.rmtree(data, ignore_errors=True)
    exe = str(pathlib.Path(args.bin) / "zarnu-cloud")
    add_user(exe, data, "warmup", PASSWORD)  # makes the data folder before the service opens it
    cap = ["--max-connections", str(args.max_connections)] if args.max_connections else []
    cloud, address = start_cloud(exe, data, *cap)
    results = Results()
    try:
        tokens = prepare_accounts(exe, data, address)
        parts = urllib.parse.urlsplit(address)
        run(args, parts.hostname, parts.port, tokens, results)
        service = get_json(address + "api/v1/stats", token=operator_token(data))
    finally:
        stop(cloud)
        if not args.work:
            shutil.rmtree(work, ignore_errors=True)

    lat = results.latencies
    print(f"zarnu-cloud load: {args.clients} clients (think {args.think} s) for {args.seconds:g} s, "
          f"beside {args.loris} slow-loris and {args.flood} flood connections"
          + (f", connection cap {args.max_connections}" if args.max_connections else ""))
    print(f"  requests answered   {len(lat)} ({len(lat) / args.seconds:.0f}/s)")
    if lat:
        print(f"  latency p50         {percentile(lat, 50) * 1000:.2f} ms")
        print(f"  latency p99         {percentile(lat, 99) * 1000:.2f} ms")
        print(f"  latency max         {max(lat) * 1000:.2f} ms")
        print(f"  latency mean        {statistics.mean(lat) * 1000:.2f} ms")
    print(f"  client errors       {results.errors} {results.error_kinds or ''}")
    print(f"  slow-loris cut off  {results.loris_cut}")
    print(f"  flood: opened {results.flood_opened}, closed by the service {results.flood_closed}")
    print(f"  service requests    {service['requests']}")
    return 0 if results.errors == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
