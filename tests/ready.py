"""Waiting for a started server's ready lines without sleeping."""
import os
import selectors
import time


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
