#!/usr/bin/env python3
"""Makes the manual pages and the bash completion from the programs' declarations.

Usage: make_docs.py DECLARATIONS.json TEMPLATE_DIR COMPLETION_TEMPLATE OUT_DIR

DECLARATIONS.json is what zarnu-declarations prints. Each page template
(TEMPLATE_DIR/<page>.in) is hand-written roff with markers that this script
replaces by roff made from the declarations:

  @VERSION@            the version
  @ZARNUCMD_MODULES@   every module, its options, its verbs with arguments, aliases and options
  @AGENT_SWITCHES@     the agent's switches
  @CLOUD_COMMANDS@     the service's command forms
  @CLOUD_OPTIONS@      the service's options
  @EXIT_CODES@         the code table (exit status and its text)

The completion template has @COMPLETION_TABLES@, replaced by bash functions
that answer a module's verbs and a verb's options. Writes
OUT_DIR/man/man1/zarnucmd.1, man/man1/ZarnuAgent.1, man/man8/zarnu-cloud.8 and
bash-completion/completions/zarnucmd. Uses only the standard library.
"""
import json
import os
import re
import sys

PAGES = {"zarnucmd.1": "man1", "ZarnuAgent.1": "man1", "zarnu-cloud.8": "man8"}


def roff(text):
    """Escapes text for roff: backslashes, hyphens, and a leading control character."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^([.'])", r"\\&\1", text, flags=re.M)


def paragraph(description):
    """A description as roff lines (each declared line trimmed, as -help prints it)."""
    lines = [roff(line.strip()) for line in description.split("\n") if line.strip()]
    return "\n".join(lines) if lines else ""


def option_roff(option):
    names = ", ".join("\\fB\\-%s\\fR" % roff(n) for n in option["names"])
    if option["takesValue"]:
        names += "=\\fIvalue\\fR"
    return ".TP\n%s\n%s\n" % (names, paragraph(option["description"]))


def argument_roff(name):
    """An argument as -help shows it: <local path>, or <path>... for one that takes every remaining word."""
    if name.endswith("..."):
        return "<\\fI%s\\fR>..." % roff(name[:-3])
    return "<\\fI%s\\fR>" % roff(name)


def zarnucmd_modules(decl):
    out = []
    for module in decl["zarnucmd"]["modules"]:
        name = module["names"][0]
        out.append(".SS %s\n%s\n" % (roff(name), paragraph(module["description"])))
        if module["options"]:
            out.append(".PP\nOptions of every %s verb:\n.RS\n" % roff(name))
            out.extend(option_roff(o) for o in module["options"])
            out.append(".RE\n")
        for verb in module["verbs"]:
            head = "\\fBzarnucmd %s %s\\fR" % (roff(name), roff(verb["names"][0]))
            args = " ".join(argument_roff(a) for a in verb["arguments"])
            options = " [\\fIoptions\\fR]" if verb["options"] or module["options"] else ""
            out.append(".TP\n%s%s%s\n%s\n" % (head, " " + args if args else "", options,
                                              paragraph(verb["description"])))
            if len(verb["names"]) > 1:
                out.append(".br\nAlso known as: %s.\n" % ", ".join(roff(n) for n in verb["names"]))
            if verb["options"]:
                out.append(".RS\n")
                out.extend(option_roff(o) for o in verb["options"])
                out.append(".RE\n")
    return "".join(out)


def agent_switches(decl):
    out = []
    for switch in decl["ZarnuAgent"]["switches"]:
        value = "=\\fIvalue\\fR" if switch["takesValue"] else ""
        out.append(".TP\n\\fB\\-%s\\fR%s\n%s\n" % (roff(switch["name"]), value, paragraph(switch["description"])))
    return "".join(out)


def cloud_commands(decl):
    return "".join(".TP\n\\fBzarnu\\-cloud %s\\fR\n%s\n" % (roff(c["synopsis"]), paragraph(c["description"]))
                   for c in decl["zarnu-cloud"]["commands"])


def cloud_options(decl):
    out = []
    for option in decl["zarnu-cloud"]["options"]:
        value = " \\fI%s\\fR" % roff(option["value"]) if option["value"] else ""
        out.append(".TP\n\\fB%s\\fR%s\n%s\n" % (roff(option["name"]), value, paragraph(option["description"])))
    return "".join(out)


def exit_codes(decl):
    return "".join(".TP\n.B %d\n%s\n" % (c["code"], paragraph(c["description"])) for c in decl["codes"])


def bash_words(words):
    """Words for a bash case branch; the declarations never hold quotes or spaces in names."""
    words = list(words)
    for w in words:
        if not re.fullmatch(r"[A-Za-z0-9_.,=-]+", w):
            raise SystemExit("make_docs.py: name %r cannot be completed (only letters, digits and _.,=-)" % w)
    return " ".join(words)


def option_words(options):
    words = []
    for o in options:
        words.extend("-" + n + ("=" if o["takesValue"] else "") for n in o["names"])
    return words


def completion_tables(decl):
    modules = decl["zarnucmd"]["modules"]
    lines = ["_zarnucmd_modules() {", "  echo %s" % bash_words(m["names"][0] for m in modules), "}", "",
             "# The verbs of module $1 (lower case), aliases included.", "_zarnucmd_verbs() {",
             "  case \"$1\" in"]
    for m in modules:
        names = [n for v in m["verbs"] for n in v["names"]]
        lines.append("    %s) echo %s ;;" % ("|".join(n.lower() for n in m["names"]), bash_words(names)))
    lines += ["  esac", "}", "",
              "# The options of verb $2 of module $1 (both lower case); a trailing \"=\" marks a value.",
              "_zarnucmd_options() {", "  case \"$1 $2\" in"]
    for m in modules:
        for v in m["verbs"]:
            patterns = "|".join("'%s %s'" % (mn.lower(), vn.lower()) for mn in m["names"] for vn in v["names"])
            words = ["-help"] + option_words(v["options"]) + option_words(m["options"])
            lines.append("    %s) echo %s ;;" % (patterns, bash_words(words)))
    lines += ["    *) echo -help ;;", "  esac", "}", "",
              "# The options that take the next word as their value (every name, lower case).",
              "_zarnucmd_value_options() {",
              "  echo %s" % bash_words(sorted({n.lower() for m in modules
                                                for o in m["options"] + [x for v in m["verbs"] for x in v["options"]]
                                                if o["takesValue"] for n in o["names"]})),
              "}", "", "_zarnuagent_switches() {",
              "  echo %s" % bash_words("-" + s["name"] + ("=" if s["takesValue"] else "")
                                       for s in decl["ZarnuAgent"]["switches"]),
              "}"]
    return "\n".join(lines)


def fill(template, markers):
    def replace(match):
        if match.group(1) not in markers:
            raise SystemExit("make_docs.py: unknown marker @%s@" % match.group(1))
        return markers[match.group(1)]
    return re.sub(r"@([A-Z_]+)@", replace, template)


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def main(argv):
    if len(argv) != 5:
        raise SystemExit(__doc__)
    with open(argv[1], encoding="utf-8") as f:
        decl = json.load(f)
    template_dir, completion_template, out_dir = argv[2], argv[3], argv[4]
    markers = {
        "VERSION": decl["version"],
        "ZARNUCMD_MODULES": zarnucmd_modules(decl).rstrip("\n"),
        "AGENT_SWITCHES": agent_switches(decl).rstrip("\n"),
        "CLOUD_COMMANDS": cloud_commands(decl).rstrip("\n"),
        "CLOUD_OPTIONS": cloud_options(decl).rstrip("\n"),
        "EXIT_CODES": exit_codes(decl).rstrip("\n"),
    }
    for page, section in PAGES.items():
        with open(os.path.join(template_dir, page + ".in"), encoding="utf-8") as f:
            write(os.path.join(out_dir, "man", section, page), fill(f.read(), markers))
    with open(completion_template, encoding="utf-8") as f:
        script = fill(f.read(), {"COMPLETION_TABLES": completion_tables(decl)})
    write(os.path.join(out_dir, "bash-completion", "completions", "zarnucmd"), script)


if __name__ == "__main__":
    main(sys.argv)
