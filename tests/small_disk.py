"""A small tmpfs for tests that fill a disk on purpose."""
import contextlib
import os
import pathlib
import subprocess

import pytest


@contextlib.contextmanager
def small_tmpfs(mount_point: pathlib.Path, size: str):
    """Mounts a tmpfs of `size` (as mount takes it: "4m", "9500k") at `mount_point` for the
    block and unmounts it after; skips the test where this machine cannot mount one."""
    if os.geteuid() != 0:
        pytest.skip("mounting a small tmpfs needs root")
    mount_point.mkdir(exist_ok=True)
    done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=" + size, "tmpfs", str(mount_point)],
                          capture_output=True, text=True)
    if done.returncode != 0:
        pytest.skip("cannot mount a tmpfs here: " + done.stderr.strip())
    try:
        yield mount_point
    finally:
        subprocess.run(["umount", "-l", str(mount_point)], check=False)
