"""Helpers of the transfer suite: a real zarnu-cloud with one user, and zarnucmd run as
a user would run it against that service (-username/-password/-cloudAddress).

The service is started and stopped through the cloud suite's CloudProcess (by process
id; it waits for the "listening on" line)."""

import hashlib
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "cloud"))
from cloudclient import CloudClient  # noqa: E402
from cloudservice import CloudProcess, add_user  # noqa: E402

MIB = 1 << 20
USER = "transfer"
PASSWORD = "pass word 1"


def fingerprints_of(data: bytes):
    """The part fingerprints of a file: MD5 hex then SHA-1 hex of each MiB."""
    return [hashlib.md5(data[o:o + MIB]).hexdigest() + hashlib.sha1(data[o:o + MIB]).hexdigest()
            for o in range(0, len(data), MIB)]


def pseudo_random(size: int, seed: str) -> bytes:
    """Deterministic bytes that differ in every MiB."""
    out = bytearray()
    block = hashlib.sha512(seed.encode()).digest()
    while len(out) < size:
        block = hashlib.sha512(block).digest()
        out += block * 128
    return bytes(out[:size])


class Cloud:
    """A running service with the test user, and a zarnucmd that talks to it."""

    def __init__(self, zarnucmd, data_dir):
        self.zarnucmd = zarnucmd
        self.proc = CloudProcess(data_dir)
        add_user(data_dir, USER, PASSWORD, build=True)
        self.proc.start()
        self.api = None

    @property
    def url(self):
        return self.proc.url

    def restart(self):
        """Starts the service again on the same data folder (after it was stopped)."""
        self.proc.start()
        self.api = None

    def client(self):
        if self.api is None:
            self.api = CloudClient(self.url)
            self.api.login(USER, PASSWORD)
        return self.api

    def credentials(self):
        return ["-username=" + USER, "-password=" + PASSWORD, "-cloudAddress=" + self.url]

    def cmd(self, *args, **kwargs):
        """zarnucmd Cloud <args> logged in as the test user."""
        return self.zarnucmd.run("Cloud", *args, *self.credentials(), **kwargs)

    def entry(self, path):
        """The listing entry of a cloud path, with its parts, or None."""
        entries = self.client().list(path, include_parts=True, part_limit=0, page_size=1)["entries"]
        return entries[0] if entries else None

    def stats(self):
        """The service-wide counters (read with the operator credential)."""
        return self.proc.operator_client().stats()

    def stop(self, **kwargs):
        if self.api:
            self.api.close()
            self.api = None
        return self.proc.stop(**kwargs)
