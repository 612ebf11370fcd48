"""Helpers of the zarnucmd Cloud suite: accounts on a running zarnu-cloud, a
runner for `zarnucmd Cloud <verb>`, and the expected listing lines.

The service is the cloud suite's CloudProcess; content is put into accounts
through the cloud API directly (tests/cloud/cloudclient.py).
"""
import pathlib
import sqlite3
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "cloud"))
from cloudservice import CloudProcess, add_user  # noqa: E402,F401


class Account:
    """A user of the service, logged in through the API (for uploads and tokens)."""

    def __init__(self, service, name, password):
        self.service, self.name, self.password = service, name, password
        self.api = service.account(name, password)
        self.token = self.api.token

    def token_options(self, username=None):
        return [f"-username={username or self.name}", f"-authToken={self.token}"]

    def password_options(self):
        return [f"-username={self.name}", f"-password={self.password}"]


class CloudCmd:
    """Runs `zarnucmd Cloud ...` against one service, with its own data folder."""

    def __init__(self, zarnucmd, url):
        self.zarnucmd = zarnucmd
        self.url = url
        self.data_dir = zarnucmd.data_dir

    def run(self, verb, *args, account=None, url=None):
        """Runs a verb; with `account`, logs in by user name and token."""
        words = ["Cloud", verb, *args, f"-cloudAddress={url or self.url}"]
        if account is not None:
            words += account.token_options()
        return self.zarnucmd.run(*words)

    def ok(self, verb, *args, account=None):
        """Runs a verb that must succeed; returns its output lines after the login line."""
        result = self.run(verb, *args, account=account)
        assert result.returncode == 0, result.stderr
        lines = result.stdout.split("\n")
        assert lines[0] == f"Logged in as {account.name}", result.stdout
        assert lines[-1] == ""
        return lines[1:-1]

    def put_option(self, name, value):
        """Stores an option in the data folder's config.db, as the agent does
        ("csmAuthToken" is where the agent keeps its login token)."""
        self.data_dir.mkdir(parents=True, exist_ok=True)
        db = sqlite3.connect(self.data_dir / "config.db")
        with db:
            db.execute("CREATE TABLE IF NOT EXISTS options(name TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL)")
            db.execute("INSERT OR REPLACE INTO options(name, value) VALUES(?, ?)", (name, value))
        db.close()


def entry_line(name, size=None, deleted=False):
    """A listing line: a folder when `size` is None."""
    kind = "d" if size is None else "-"
    column = " " * 8 if size is None else f"{size:>8}"
    return f"{kind}{'X ' if deleted else '- '}{column} {name}"
