"""Times reads through the cloud mount against Cloud get (see run.sh)."""
import argparse
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

USER, PASSWORD = "bench", "bench-password"


def timed(what, action):
    start = time.monotonic()
    action()
    seconds = time.monotonic() - start
    print(f"{what}: {seconds:.2f} s", flush=True)
    return seconds


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", required=True)
    parser.add_argument("--large-mib", type=int, default=1024)
    parser.add_argument("--small", type=int, default=10000)
    parser.add_argument("--work")
    args = parser.parse_args()
    bin_dir = pathlib.Path(args.bin)
    work = pathlib.Path(args.work or tempfile.mkdtemp(prefix="zarnu-mount-bench-"))
    work.mkdir(parents=True, exist_ok=True)
    env = dict(os.environ, ZARNU_DATA=str(work / "data"), HOME=str(work), ZARNU_PEER_DISCOVERY="off")
    cloud = subprocess.Popen([str(bin_dir / "zarnu-cloud"), "serve", "--data", str(work / "cloud"), "--listen",
                              "127.0.0.1:0", "--http"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    mount = None
    point = work / "mnt"
    try:
        url = cloud.stdout.readline().strip().removeprefix("listening on ")
        subprocess.run([str(bin_dir / "zarnu-cloud"), "user", "add", USER, "--data", str(work / "cloud")],
                       input=PASSWORD + "\n", text=True, check=True, capture_output=True)
        login = [f"-username={USER}", f"-password={PASSWORD}", f"-cloudAddress={url}"]

        def zarnucmd(*words):
            subprocess.run([str(bin_dir / "zarnucmd"), *map(str, words), *login], env=env, check=True,
                           stdout=subprocess.DEVNULL)

        large = work / "large.bin"
        with open(large, "wb") as f:
            for _ in range(args.large_mib):
                f.write(os.urandom(1 << 20))
        many = work / "many"
        many.mkdir()
        for i in range(args.small):
            (many / f"file{i:05d}.txt").write_text(f"small file {i}\n")
        zarnucmd("Cloud", "put", large, "/")
        zarnucmd("Cloud", "mkdir", "/many")
        zarnucmd("Cloud", "put", many, "/", "-r")
        print(f"{args.large_mib} MiB file and {args.small} small files in the cloud", flush=True)

        got = work / "got.bin"
        get_s = timed(f"Cloud get of {args.large_mib} MiB", lambda: zarnucmd("Cloud", "get", "/large.bin", got))
        got.unlink()

        point.mkdir()
        mount = subprocess.Popen([str(bin_dir / "zarnucmd"), "Cloud", "mount", "/", str(point), *login], env=env,
                                 stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        line = b""
        while b"Successfully mounted" not in line:
            line += os.read(mount.stdout.fileno(), 4096)

        def read_all():
            with open(point / "large.bin", "rb") as f:
                while f.read(1 << 20):
                    pass
        cold = timed("mount read, cold cache", read_all)
        warm = timed("mount read, again", read_all)
        mib = args.large_mib
        print(f"  MiB/s: Cloud get {mib / get_s:.0f}, mount cold {mib / cold:.0f}, mount again {mib / warm:.0f}")
        timed(f"ls -lR over {args.small} files",
              lambda: subprocess.run(["ls", "-lR", str(point / "many")], stdout=subprocess.DEVNULL, check=True))
        timed(f"ls -lR over {args.small} files, again",
              lambda: subprocess.run(["ls", "-lR", str(point / "many")], stdout=subprocess.DEVNULL, check=True))
    finally:
        if mount is not None:
            mount.terminate()
            mount.wait()
        cloud.terminate()
        cloud.wait()
        if not args.work:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
