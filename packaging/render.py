"""Fills a manual page or a completion file with what the program's --help says.

    render.py --bin DIRECTORY --changelog FILE TEMPLATE OUTPUT

The template's name begins with the program's. In it stand, each as a whole word between two @:
VERSION, DATE; OPTIONS, COMMANDS (mdoc); TABLE (bash).
"""

import argparse
import re
from email.utils import parsedate_to_datetime
from pathlib import Path

import command_tree
from completion_kinds import kind


def changelog(path):
    """The newest version and its day."""
    text = path.read_text()
    version = re.search(r"^\w+ \(([^)]+)\)", text).group(1)
    day = parsedate_to_datetime(re.search(r"^ -- .*>  (.*)$", text, re.M).group(1))
    return version, f"{day:%B} {day.day}, {day.year}"


def roff(text):
    """Text as it is, whatever it contains."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^(?=[.'])", r"\\&", text, flags=re.M)


def argument(text):
    """A word that no macro takes for a macro."""
    text = roff(text).replace('"', '\\(dq')
    return f'"{text}"' if " " in text else f"\\&{text}" if len(text) < 4 else text


def sentence(text):
    text = roff(text[:1].upper() + text[1:])
    return text + ("" if not text or text.endswith((".", "?", "!")) else ".")


def mdoc_option(option):
    if option.names[0].startswith("-"):
        names = " , ".join(f"Fl {roff(name[1:])}" for name in option.names)
    else:
        names = f"Ar {argument(option.names[0])}"
    value = f" Ar {option.value.lower()}" if option.value and option.names[0].startswith("-") else ""
    yield f".It {names}{value}"
    if option.help:
        yield sentence(option.help)
    if option.choices:
        yield "One of " + roff(", ".join(option.choices)) + "."
    if option.limits:
        yield "Range: " + roff(option.limits.strip("[]").replace(" - ", " to ")) + "."
    if option.required and option.names[0].startswith("-"):
        yield "Required."
    if option.default:
        yield ".br"
        yield f"Default: {roff(option.default)}"
    if option.variable:
        yield ".br"
        yield f"Environment: {option.variable}"


def mdoc_options(options):
    yield ".Bl -tag -width Ds"
    for option in options:
        yield from mdoc_option(option)
    yield ".El"


def mdoc_command(command):
    """The lines of one command; nothing for one that only has commands below it."""
    if command.commands:
        yield f".Ss {roff(' '.join(command.words[1:]))}"
        yield sentence(command.help)
        for below in command.commands:
            yield from mdoc_command(below)
        return
    operands = "".join(f" Ar {argument(p.names[0])}" if p.required else f" Oo Ar {argument(p.names[0])} Oc"
                       for p in command.positionals)
    yield f".Nm Cm {' '.join(roff(word) for word in command.words[1:])} Oo Ar options Oc{operands}"
    yield ".Bd -ragged -offset indent -compact"
    yield sentence(command.help)
    options = [o for o in command.options if "--help" not in o.names]
    explained = [p for p in command.positionals if p.help or p.choices]
    if options or explained:
        yield from mdoc_options([*explained, *options])
    yield ".Ed"
    yield ".Pp"


def mdoc_commands(tree):
    alone = [command for command in tree.commands if not command.commands]
    yield ".Ss Commands of one word"
    for command in alone:
        yield from mdoc_command(command)
    for command in tree.commands:
        if command.commands:
            yield from mdoc_command(command)


def without_idle_paragraphs(lines):
    """No paragraph macro right before a heading."""
    return re.sub(r"\.Pp\n(?=\.S[hs])|\n\.Pp$", "", "\n".join(lines))


def bash_table(tree):
    """For each command: its commands (c), options (o), options with a value (v) and operands (p), with their kinds."""
    for command in tree.all():
        key = " ".join(command.words[1:])
        rows = {
            "c": [below.words[-1] for below in command.commands],
            "o": [name for option in command.options for name in option.names],
            "v": [f"{name}={kind(command, option)}" for option in command.options if option.value
                  for name in option.names],
            "p": [kind(command, operand) for operand in command.positionals],
        }
        for row, words in rows.items():
            if words:
                yield f'  ["{key}:{row}"]="{" ".join(words)}"'


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=Path, required=True)
    parser.add_argument("--changelog", type=Path, required=True)
    parser.add_argument("template", type=Path)
    parser.add_argument("output", type=Path)
    options = parser.parse_args()
    version, day = changelog(options.changelog)
    tree = command_tree.read(str(options.bin / options.template.name.split(".")[0]))
    values = {
        "VERSION": lambda: version,
        "DATE": lambda: day,
        "OPTIONS": lambda: "\n".join(mdoc_options(tree.options)),
        "COMMANDS": lambda: without_idle_paragraphs(mdoc_commands(tree)),
        "TABLE": lambda: "\n".join(bash_table(tree)),
    }
    text = re.sub(r"@([A-Z]+)@", lambda match: values[match.group(1)](), options.template.read_text())
    options.output.parent.mkdir(parents=True, exist_ok=True)
    options.output.write_text(text)


if __name__ == "__main__":
    main()
