"""zarnucmd's shell as a user meets it: version, help at every level, errors
that name the offending word, and the exit codes scripts rely on."""
import pytest

MODULES = ["Cloud", "Config", "Overlay", "Debug", "Peer"]


def one_error_line(result, code, *fragments):
    """The run failed with `code` and exactly one stderr line holding every fragment."""
    assert result.returncode == code, (result.stdout, result.stderr)
    lines = result.stderr.splitlines()
    assert len(lines) == 1, result.stderr
    assert lines[0].startswith("zarnucmd: ") and lines[0].endswith(f"(error {code})"), lines[0]
    for fragment in fragments:
        assert fragment in lines[0], lines[0]
    return lines[0]


def test_version(zarnucmd):
    r = zarnucmd.run("-version")
    assert (r.returncode, r.stdout, r.stderr) == (0, "Zarnu v1.34.0508\n", "")


def test_program_help_lists_modules_in_order(zarnucmd):
    for flag in ("-help", "--help"):
        r = zarnucmd.run(flag)
        assert r.returncode == 0 and r.stderr == ""
        assert "Usage: zarnucmd <Module> <verb>" in r.stdout
        positions = [r.stdout.index(f"\n  {m} ") for m in MODULES]
        assert positions == sorted(positions), r.stdout


def test_module_help_lists_verbs_once(zarnucmd):
    r = zarnucmd.run("Cloud", "-help")
    assert r.returncode == 0 and r.stderr == ""
    for verb in ("get", "put", "mkdir", "rm", "undelete", "link"):
        assert f"\n  {verb}" in r.stdout, verb
    assert r.stdout.count("\n  link ") == 1  # declared twice, listed once
    assert "\n  build" not in r.stdout  # hidden
    for option in ("-username=<value>", "-password=<value>", "-cloudAddress=<value>", "-debugOutput, -debug"):
        assert option in r.stdout, option


def test_verb_help_shows_arguments_and_options(zarnucmd):
    r = zarnucmd.run("Cloud", "put", "-help")
    assert r.returncode == 0 and r.stderr == ""
    assert "Usage: zarnucmd Cloud put <local path> <cloud path> [options]" in r.stdout
    assert "Uploads a file to the cloud" in r.stdout
    assert "  -r " in r.stdout and "-username=<value>" in r.stdout


def test_names_are_case_insensitive(zarnucmd):
    upper = zarnucmd.run("cloud", "PUT", "-help")
    assert upper.returncode == 0
    assert upper.stdout == zarnucmd.run("Cloud", "put", "-help").stdout
    assert zarnucmd.run("CONFIG", "--help").returncode == 0


def test_hidden_verb_is_reachable(zarnucmd):
    r = zarnucmd.run("Cloud", "build", "-help")
    assert r.returncode == 0 and "Usage: zarnucmd Cloud build" in r.stdout


@pytest.mark.parametrize("args, code, fragments, usage", [
    (["Config", "get"], 47, ["A required argument is missing: config name (error 47)"], None),
    ([], 47, ["missing: module", "'zarnucmd -help'"], "Usage: zarnucmd <Module> <verb>"),
    (["Peer"], 47, ["missing: verb", "'zarnucmd Peer -help'"], "Usage: zarnucmd Peer <verb>"),
    (["Clod", "put"], 55, ["'Clod'", "-help'"], None),
    (["Cloud", "pt"], 55, ["'pt'", "-help'"], None),
    (["Cloud", "put", "a", "b", "-bogus"], 55, ["'-bogus'", "-help'"], None),
    (["-bogus"], 55, ["'-bogus'", "-help'"], None),
    (["Cloud", "udelete"], 55, ["did you mean 'undelete'?"], None),
    (["Confg", "list"], 55, ["did you mean 'Config'?"], None),
])
def test_bad_command_lines_are_one_error_line(zarnucmd, args, code, fragments, usage):
    r = zarnucmd.run(*args)
    one_error_line(r, code, *fragments)
    if usage:
        assert usage in r.stdout
    else:
        assert r.stdout == ""


def test_more_than_63_arguments_do_not_crash(zarnucmd):
    r = zarnucmd.run("Cloud", "put", *[f"w{i}" for i in range(100)])
    one_error_line(r, 55, "Unexpected argument")
    # Slot 63 still reaches the shell; a 64th word does not (it is past the 64 slots).
    last_slot = zarnucmd.run("Cloud", "put", *(["-r"] * 60), "-help")
    assert last_slot.returncode == 0 and "Usage: zarnucmd Cloud put" in last_slot.stdout
    beyond = zarnucmd.run("Cloud", "put", *(["-r"] * 61), "-help")
    assert beyond.returncode > 0, beyond.stderr  # an error, not a crash
    assert "Usage:" not in beyond.stdout
