"""The manual pages: right by the checkers' rules, and complete by what the programs and the schema say."""

import re
import subprocess
import sys

import pytest

from testbed.run import BUILD, ROOT

sys.path.insert(0, str(ROOT / "packaging"))
import command_tree  # noqa: E402 (the path comes first)

MADE = BUILD / "packaging" / "man"
PAGES = {"bessd": MADE / "bessd.8", "sfectl": MADE / "sfectl.1", "sfe.yaml": ROOT / "packaging" / "man" / "sfe.yaml.5"}


def text(page):
    """The page as a reader sees it, on one line."""
    shown = subprocess.run(["mandoc", "-Tascii", "-O", "width=500", str(PAGES[page])], check=True,
                           capture_output=True, text=True).stdout
    return " ".join(re.sub(r".\x08", "", shown).split())


@pytest.mark.parametrize("page", PAGES)
def test_the_checkers_have_no_complaint(page):
    lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", str(PAGES[page])], capture_output=True, text=True)
    assert (lint.returncode, lint.stdout) == (0, "")
    shown = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", str(PAGES[page])],
                           capture_output=True, text=True, env={"LC_ALL": "C.UTF-8", "MANROFFSEQ": "", "MANWIDTH": "80",
                                                                "PATH": "/usr/bin:/bin"})
    assert (shown.returncode, shown.stderr) == (0, "")


@pytest.mark.parametrize("program", ["bessd", "sfectl"])
def test_every_command_option_and_operand_is_described(program):
    shown = text(program)
    tree = command_tree.read(str(BUILD / "bin" / program))
    commands = list(tree.all())
    assert program == "bessd" or len(commands) > 20, "the help was not understood"
    missing = []
    for command in commands:
        if not command.commands:
            words = [" ".join(command.words)] if command.words[1:] else []
            words += [name for option in command.options for name in option.names]
            words += [operand.names[0] for operand in command.positionals]
            missing += [f"{' '.join(command.words)}: {word}" for word in words if word not in shown]
    assert missing == []


def test_the_help_of_a_command_is_in_the_page():
    shown = text("sfectl")
    for sentence in ("Connect an output gate with an input gate.", "The daemon's address: unix:PATH or HOST:PORT."):
        assert sentence in shown
