"""zarnucmd "build": uploads a build into "/Zarnu Builds/agent/<plat>/<version folder>",
prints the public link, writes it beside the program with -todisk, and posts the token
to the build slots with -json (its own slots service, or the cloud's)."""

import json
import os
import pathlib
import shutil
import urllib.request


def private_zarnucmd(real, tmp_path):
    """A copy of zarnucmd in a folder of its own (it writes <plat>_url beside itself)."""
    real = pathlib.Path(real)
    prefix = tmp_path / "install"
    (prefix / "bin").mkdir(parents=True)
    (prefix / "lib").symlink_to(real.resolve().parent.parent / "lib")
    shutil.copy2(real, prefix / "bin" / "zarnucmd")
    return prefix / "bin"


def fetch(url, token=None):
    request = urllib.request.Request(url)
    if token:
        request.add_header("Authorization", "Bearer " + token)
    with urllib.request.urlopen(request, timeout=30) as answer:
        return answer.read()


def stored_slots(cloud):
    """The test account's build slots (it has the build role)."""
    return json.loads(fetch(cloud.url + "buildslots/slots/", cloud.client().token))["platforms"]


def lines_starting(text, prefix):
    return [line[len(prefix):] for line in text.splitlines() if line.startswith(prefix)]


def test_build_uploads_links_and_updates_slots(cloud, tmp_path):
    build = tmp_path / "agent-build.tar"
    build.write_bytes(os.urandom(3 * 1024 * 1024 + 5))
    bin_dir = private_zarnucmd(cloud.zarnucmd.exe, tmp_path)

    result = cloud.zarnucmd.run("Cloud", "build", build, "stable, GA ,beta", "linux-x64", "-json", "-todisk",
                                "-version=2.0.1", "-debug", *cloud.credentials(), exe=bin_dir / "zarnucmd")
    assert result.returncode == 0, result.stderr
    [token] = lines_starting(result.stdout, "token=")
    [url] = lines_starting(result.stdout, "url=")
    assert "Successfully updated cloud build slots." in result.stdout
    assert "Request: \n{" in result.stdout and "Response: \n{" in result.stdout

    assert cloud.entry("/Zarnu Builds/agent/linux-x64/1.34.x/agent-build.tar")["size"] == build.stat().st_size
    assert fetch(url) == build.read_bytes()
    assert (bin_dir / "linux-x64_url").read_text() == url

    slots = stored_slots(cloud)
    assert slots == {"linux-x64": {"stable": {"download_token": token, "version": "2.0.1"},
                                   "beta": {"download_token": token, "version": "2.0.1"}}}

    # "nebra" is posted as platform "lin" with "nebra-" slots; -folder names the version folder.
    nebra = cloud.zarnucmd.run("Cloud", "build", build, "stable", "nebra", "-json", "-folder=nightly",
                               *cloud.credentials(), exe=bin_dir / "zarnucmd")
    assert nebra.returncode == 0, nebra.stderr
    [nebra_token] = lines_starting(nebra.stdout, "token=")
    assert cloud.entry("/Zarnu Builds/agent/nebra/nightly/agent-build.tar") is not None
    slots = stored_slots(cloud)
    assert slots["lin"] == {"nebra-stable": {"download_token": nebra_token, "version": "1.34.0508"}}
    assert "linux-x64" in slots


def test_build_refused_slot_update_retries_then_fails(cloud, tmp_path):
    build = tmp_path / "b.bin"
    build.write_bytes(b"build")
    # An address that answers every post with an error object.
    env = {"ZARNU_BUILD_SLOT_ADDRESS": cloud.url + "api/v1/"}
    result = cloud.cmd("build", build, "stable", "win", "-json", "-retries=1", env=env)
    assert result.returncode == 150, result.stderr
    assert "Cloud error with JSON update: " in result.stderr
    assert result.stdout.count("Retrying...") == 1
    assert result.stdout.count("token=") == 2  # the whole run was repeated
    assert stored_slots(cloud) == {}
