"""The commands and options of a program, read from its --help and from that of each of its commands."""

import os
import re
import subprocess
from dataclasses import dataclass, field

COLUMN = 30  # where the help texts begin


@dataclass
class Option:
    names: list      # ["-h", "--help"]
    value: str       # what stands for its value; empty for a flag
    choices: list    # the only values, if it has such
    limits: str      # "[1 - 4094]", if it has such
    default: str
    variable: str    # the environment variable that sets it
    required: bool
    help: str


@dataclass
class Command:
    words: list      # ["sfectl", "port", "add"]
    help: str
    usage: str = ""
    positionals: list = field(default_factory=list)
    options: list = field(default_factory=list)
    commands: list = field(default_factory=list)

    def all(self):
        """This command and every one below it."""
        yield self
        for command in self.commands:
            yield from command.all()


def _sections(text):
    """The entries of each titled section: (left column, help)."""
    sections = {"": []}
    title = ""
    for line in text.splitlines():
        if line and not line.startswith(" "):
            title = line.rstrip(":")
            sections.setdefault(title, [])
        elif line.startswith(" " * COLUMN) and sections[title]:
            left, words = sections[title][-1]
            sections[title][-1] = (left, f"{words} {line.strip()}".strip())
        elif line.startswith("  ") and line.strip():
            left = line[:COLUMN]
            split = left.endswith(" ") and left.count("[") == left.count("]")  # else it goes on in the next line
            sections[title].append((left.strip(), line[COLUMN:].strip()) if split else (line.strip(), ""))
    return sections


def _option(left, words):
    match = re.match(r"(\S+)\s*(.*)", left)
    names, rest = match.group(1).split(","), match.group(2)
    variable = re.search(r"\(Env:(\w+)\)", rest)
    default = re.search(r"=(\S+)", rest)
    limits = re.search(r" in (\[[^\]]*\])", rest)
    choices = re.search(r"\{([^}]*)\}", rest)
    value = re.match(r"[A-Z]+\b", rest)
    return Option(names, value.group(0) if value and value.group(0) != "REQUIRED" else "",
                  choices.group(1).split(",") if choices else [], limits.group(1) if limits else "",
                  default.group(1) if default else "", variable.group(1) if variable else "", "REQUIRED" in rest,
                  words)


def read(program, words=None, summary=""):
    """Runs the program with --help, and with the name of each of its commands and --help."""
    words = words or [os.path.basename(program)]
    environment = {name: value for name, value in os.environ.items() if not name.startswith("SFE_")}
    text = subprocess.run([program, *words[1:], "--help"], check=True, capture_output=True, text=True,
                          env=environment).stdout
    usage = re.search(r"^Usage: (.*)$", text, re.M).group(1)
    command = Command(words, summary or text.splitlines()[0], usage)
    for title, entries in _sections(text).items():
        if title == "Positionals":
            command.positionals = [_option(*entry) for entry in entries]
        elif title == "Subcommands":
            command.commands = [read(program, [*words, name], words_of) for name, words_of in entries]
        elif title not in ("", usage) and not title.startswith("Usage") and entries:
            command.options += [_option(*entry) for entry in entries]
    return command
