"""The generated manual pages and bash completion, checked against the real programs' -help.

The pages and the completion script come from the build tree (build/<preset>/share, beside bin/).
The completion is driven the way bash drives it: the script is sourced in bash, COMP_LINE and
COMP_POINT describe the line typed so far, and the completion function fills COMPREPLY.
"""
import os
import re
import subprocess

import pytest

from conftest import bin_dir

SHARE = bin_dir().parent / "share"
COMPLETION = SHARE / "bash-completion" / "completions" / "zarnucmd"
PAGES = [SHARE / "man" / "man1" / "zarnucmd.1", SHARE / "man" / "man1" / "ZarnuAgent.1",
         SHARE / "man" / "man8" / "zarnu-cloud.8"]


def run(*args):
    result = subprocess.run([str(bin_dir() / args[0]), *args[1:]], capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    return result.stdout


def help_rows(text, heading):
    """The first column of the rows under `heading` in -help output ("ls, dir, list" -> [ls, dir, list])."""
    rows, inside = [], False
    for line in text.splitlines():
        if line.rstrip(":") == heading.rstrip(":") and line.endswith(":"):
            inside = True
        elif inside and not line.startswith("  "):
            inside = False
        elif inside and line.startswith("  ") and not line.startswith("   "):
            rows.append([n.strip() for n in re.split(r"\s{2,}", line.strip())[0].split(",")])
    return rows


def modules():
    return [row[0] for row in help_rows(run("zarnucmd", "-help"), "Modules:")]


def complete(line, function="_zarnucmd"):
    script = f'source "{COMPLETION}"; COMP_LINE="$1"; COMP_POINT=${{#COMP_LINE}}; {function}; ' \
             'printf "%s\\n" "${COMPREPLY[@]}"'
    result = subprocess.run(["bash", "--norc", "-c", script, "bash", line], capture_output=True, text=True,
                            timeout=30)
    assert result.returncode == 0, result.stderr
    return [w for w in result.stdout.splitlines() if w]


def render(page):
    env = dict(os.environ, MANWIDTH="200", LC_ALL="C.UTF-8")
    result = subprocess.run(["man", "--warnings", "-l", str(page)], capture_output=True, text=True, env=env,
                            timeout=60)
    assert result.returncode == 0, result.stderr
    assert result.stderr == "", f"{page.name}: {result.stderr}"
    # man marks bold and italic with overstrikes when writing to a pipe; drop them.
    return re.sub(r".\x08", "", result.stdout)


def test_completion_of_modules_verbs_and_options():
    assert complete("zarnucmd Cl") == ["Cloud"]
    assert complete("zarnucmd Cloud p") == ["put"]
    # Names match without regard to case, as the program matches them; aliases complete too.
    assert complete("zarnucmd cloud PU") == ["put"]
    assert complete("zarnucmd Cloud di") == ["dir"]
    assert complete("zarnucmd Cloud put -user") == ["-username="]
    # A value option given as two words does not count as the module or the verb.
    assert complete("zarnucmd -username me Cloud put -pass") == ["-password="]
    # The value after "-name=" and the verb's own words are left to file-name completion.
    assert complete("zarnucmd Cloud put -username=") == []
    assert complete("zarnucmd Cloud put ") == []
    assert complete("ZarnuAgent -li", "_zarnuagent") == ["-listen=", "-link"]


def test_completion_offers_what_help_lists():
    assert sorted(complete("zarnucmd ")) == sorted(modules())
    for module in modules():
        module_help = run("zarnucmd", module, "-help")
        verbs = help_rows(module_help, "Verbs:")
        assert sorted(complete(f"zarnucmd {module} ")) == sorted(n for row in verbs for n in row)
        for row in verbs:
            verb_help = run("zarnucmd", module, row[0], "-help")
            listed = {"-help"}
            for heading in ("Options:", f"Options of every {module} verb:"):
                for names in help_rows(verb_help, heading):
                    value = names[-1].endswith("=<value>")
                    listed |= {n.replace("=<value>", "") + ("=" if value else "") for n in names}
            assert set(complete(f"zarnucmd {module} {row[0]} -")) == listed, f"{module} {row[0]}"


@pytest.mark.parametrize("page", PAGES, ids=lambda p: p.name)
def test_manual_page_renders_without_warnings(page):
    text = render(page)
    for section in ("NAME", "SYNOPSIS", "DESCRIPTION", "FILES", "EXIT STATUS", "SEE ALSO"):
        assert re.search(rf"^{section}$", text, re.M), f"{page.name} lacks {section}"


def test_manual_pages_describe_what_the_programs_accept():
    text = render(PAGES[0])
    for module in modules():
        for row in help_rows(run("zarnucmd", module, "-help"), "Verbs:"):
            assert f"zarnucmd {module} {row[0]}" in text
            for heading in ("Options:",):
                for names in help_rows(run("zarnucmd", module, row[0], "-help"), heading):
                    assert names[0].replace("=<value>", "") in text, f"{module} {row[0]} {names}"
    # The exit status section carries the code table: the agent-already-running code among them.
    assert re.search(r"^\s+197\s+The zarnu agent is already running", text, re.M)

    agent = render(PAGES[1])
    for switch in re.findall(r"^  (-\w+)", run("ZarnuAgent", "-help"), re.M):
        assert switch in agent

    cloud = render(PAGES[2])
    for option in re.findall(r"^  (--[\w-]+)", run("zarnu-cloud", "--help"), re.M):
        assert option in cloud
    assert "zarnu-cloud user add NAME" in cloud
