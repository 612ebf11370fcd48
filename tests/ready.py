"""The built programs: where they are, waiting for a started server's ready lines
without sleeping, and stopping it by process id."""
import os
import pathlib
import selectors
import signal
import subprocess
import time

REPO = pathlib.Path(__file__).resolve().parent.parent


def bin_dir() -> pathlib.Path:
    """$ZARNU_BIN_DIR (CTest sets it), else build/release/bin."""
    return pathlib.Path(os.environ.get("ZARNU_BIN_DIR", REPO / "build" / "release" / "bin"))


class NotReady(AssertionError):
    """The process printed too few lines: `exited` says whether it ended (else time ran out)."""

    def __init__(self, message, exited):
        super().__init__(message)
        self.exited = exited


def first_lines(proc, count=1, timeout=30, fd=None):
    """The first `count` lines the process writes to `fd` (its stdout unless given),
    read a byte at a time so that nothing after them is taken, waiting at most
    `timeout` seconds in all. Raises NotReady when time runs out or the process ends."""
    fd = proc.stdout.fileno() if fd is None else fd
    text = b""
    deadline = time.monotonic() + timeout
    with selectors.DefaultSelector() as selector:
        selector.register(fd, selectors.EVENT_READ)
        while text.count(b"\n") < count:
            remaining = deadline - time.monotonic()
            if remaining <= 0 or not selector.select(remaining):
                raise NotReady(f"printed no ready line within {timeout} s", exited=False)
            byte = os.read(fd, 1)
            if not byte:
                raise NotReady(f"exited with {proc.wait()}", exited=True)
            text += byte
    return text.decode().splitlines()


def stop_process(proc, sig=signal.SIGTERM):
    """Signals the process by id and waits (killing it after 30 s); returns its exit status."""
    if proc.poll() is None:
        os.kill(proc.pid, sig)
    try:
        return proc.wait(timeout=30)
    except subprocess.TimeoutExpired:
        os.kill(proc.pid, signal.SIGKILL)
        return proc.wait()
