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


def test_missing_argument(zarnucmd):
    r = zarnucmd.run("Config", "get")
    line = one_error_line(r, 47)
    assert line == "zarnucmd: A required argument is missing: config name (error 47)"
    assert r.stdout == ""


@pytest.mark.parametrize("args, word", [
    (["Clod", "put"], "'Clod'"),
    (["Cloud", "pt"], "'pt'"),
    (["Cloud", "put", "a", "b", "-bogus"], "'-bogus'"),
    (["-bogus"], "'-bogus'"),
])
def test_unknown_words_exit_55(zarnucmd, args, word):
    r = zarnucmd.run(*args)
    one_error_line(r, 55, word, "-help'")


def test_typo_suggests_the_nearest_name(zarnucmd):
    one_error_line(zarnucmd.run("Cloud", "udelete"), 55, "did you mean 'undelete'?")
    one_error_line(zarnucmd.run("Confg", "list"), 55, "did you mean 'Config'?")


def test_bare_and_module_only_print_usage_and_fail(zarnucmd):
    bare = zarnucmd.run()
    assert bare.returncode != 0
    assert "Usage: zarnucmd <Module>" in bare.stdout and "Cloud" in bare.stdout
    one_error_line(bare, bare.returncode)
    module_only = zarnucmd.run("Peer")
    assert module_only.returncode != 0
    assert "Usage: zarnucmd Peer <verb>" in module_only.stdout


def test_more_than_63_arguments_do_not_crash(zarnucmd):
    r = zarnucmd.run("Cloud", "put", *[f"w{i}" for i in range(100)])
    one_error_line(r, 55, "Unexpected argument")
    # Slot 63 still reaches the shell; a 64th word does not (it is past the 64 slots).
    last_slot = zarnucmd.run("Cloud", "put", *(["-r"] * 60), "-help")
    assert last_slot.returncode == 0 and "Usage: zarnucmd Cloud put" in last_slot.stdout
    beyond = zarnucmd.run("Cloud", "put", *(["-r"] * 61), "-help")
    assert beyond.returncode > 0, beyond.stderr  # an error, not a crash
    assert "Usage:" not in beyond.stdout
