#!/usr/bin/python3 -B
"""Makes the parts of the documents that come from the program: its --help, the control protocol, headers, pictures.

    docs/generate.py [--bin DIRECTORY]     writes docs/reference/*.md and docs/pictures/*.svg anew

tests/system/test_documents.py fails when one of these files is not what this program makes.
"""

import argparse
import re
import subprocess
import sys
from pathlib import Path

DOCS = Path(__file__).resolve().parent
ROOT = DOCS.parent
sys.path.insert(0, str(ROOT / "packaging"))
import command_tree  # noqa: E402 (the path comes first)

MADE = "<!-- Made by docs/generate.py; do not edit. -->\n"


def page(title, *parts):
    return "\n".join([MADE + f"# {title}\n", *parts]).rstrip() + "\n"


def cell(text):
    """Text in a table, as it is."""
    return text.replace("|", "\\|").replace("<", "&lt;")


def table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "|" + "---|" * len(heads)]
    lines += ["| " + " | ".join(cell(field) for field in row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


# --- commands and options

def option_row(option):
    named = option.names[0].startswith("-")
    names = ", ".join(f"`{name}`" for name in option.names)
    value = f" {option.value}" if option.value and named else ""
    notes = [option.help] if option.help else []
    if option.choices:
        notes.append("one of " + ", ".join(option.choices))
    if option.limits:
        notes.append(option.limits.strip("[]").replace(" - ", " to "))
    if option.required and named:
        notes.append("required")
    if option.default:
        notes.append(f"default `{option.default}`")
    if option.variable:
        notes.append(f"environment `{option.variable}`")
    return names + value, "; ".join(notes)


def command_section(command):
    name = " ".join(command.words)
    parts = [f"## {name}\n", f"{command.help.rstrip('.')}.\n", f"```\n{command.usage}\n```\n"]
    options = [option for option in command.options if "--help" not in option.names]
    rows = [option_row(option) for option in [*command.positionals, *options]]
    if rows:
        parts.append(table(["argument", "meaning"], rows))
    return "\n".join(parts)


def commands(directory, program):
    tree = command_tree.read(str(directory / program))
    parts = [command_section(tree)]
    parts += [command_section(command) for command in tree.all() if command.words[1:] and not command.commands]
    return page(f"{program}: commands and options" if tree.commands else f"{program}: options", *parts)


# --- control protocol

FIELD = re.compile(r"\s*(repeated |optional )?([\w.]+) (\w+) = (\d+);\s*(?://\s*(.*))?$")
RPC = re.compile(r"\s*rpc (\w+)\((stream )?([\w.]+)\) returns \((stream )?([\w.]+)\)")


def proto(path):
    """One file of the protocol: its opening comment, its calls, and a table for each message."""
    lines = path.read_text().splitlines()
    opening = [line[2:].strip() for line in lines[:next(i for i, x in enumerate(lines) if x.startswith("syntax"))]]
    parts, comment, rows, title = [f"## {path.name}\n", " ".join(filter(None, opening)) + "\n"], [], [], None
    outer, inner = None, []  # an enum inside a message
    for line in lines:
        start = re.match(r"(message|enum|service) (\w+) \{", line)
        if start:
            title, rows = start, []
            parts.append(f"### {start.group(1)} {start.group(2)}\n")
            if comment:
                parts.append(" ".join(comment) + "\n")
            comment = []
        elif line.strip().startswith("//"):
            comment.append(line.strip()[2:].strip())
        elif title and re.match(r"  enum \w+ \{", line):
            outer, rows = (title, rows), []
            title = re.match(r"(enum) (\w+)", line.strip())
        elif line == "  }" and outer:
            inner, comment = [f"Values of {title.group(2)}:\n", table(["value", "name"], rows)], []
            (title, rows), outer = outer, None
        elif line == "}":
            heads = {"message": ["number", "field", "type", "meaning"], "enum": ["value", "name"],
                     "service": ["call", "request", "answer", "meaning"]}[title.group(1)]
            parts += [table(heads, rows) if rows else "No fields.\n", *inner]
            title, comment, inner = None, [], []
        elif title and (call := RPC.match(line)):
            name, sent, request, got, answer = call.groups()
            rows.append([f"`{name}`", (sent or "") + request, (got or "") + answer, " ".join(comment)])
            comment = []
        elif title and title.group(1) == "enum":
            name, number = re.match(r"\s*(\w+) = (\d+)", line).groups()
            rows.append([number, f"`{name}`"])
        elif title and (field := FIELD.match(line)):
            label, kind, name, number, note = field.groups()
            rows.append([number, f"`{name}`", (label or "") + kind, " ".join([*comment, note or ""]).strip()])
            comment = []
        elif title and line.strip():
            raise ValueError(f"{path.name}: not understood: {line}")
        elif not line.strip():
            comment = []
    return "\n".join(parts)


def protocol():
    files = [ROOT / "protocol" / name for name in ("bess.proto", "sfe.proto", "modules.proto", "health.proto")]
    return page("The control protocol", "gRPC over the daemon's control socket. Field numbers are never reused.\n",
                *[proto(path) for path in files])


# --- headers

def opening(path):
    """The comment at the head of a header."""
    lines = []
    for line in path.read_text().splitlines():
        if not line.startswith("//"):
            return lines
        lines.append(line[2:].removeprefix(" "))
    return lines


def constants(path, names):
    text = path.read_text()
    rows = []
    for name in names:
        value, note = re.search(rf"inline constexpr [\w:]+ {name} = ([^;]+);(?: *// (.*))?", text).groups()
        rows.append([f"`{name}`", f"`{value}`", note or ""])
    return table(["constant", "value", "meaning"], rows)


def columns(lines, pattern, heads):
    """A table of a header's comment: a row for each line that the pattern matches, and what is indented below it."""
    rows, indent = [], None
    for line in lines:
        match = re.match(pattern, line)
        if match:
            rows.append([(field or "").strip() for field in match.groups()])
            indent = match.start(match.lastindex)
        elif rows and indent and line[:indent].strip() == "" and line.strip():
            rows[-1][-1] += " " + line.strip()
        else:
            indent = None
    return table(heads, rows)


def netlink():
    path = ROOT / "Routing" / "Multicast" / "Notify" / "CacheReport.h"
    lines = opening(path)
    middle = next(i for i, line in enumerate(lines) if line.strip().startswith("length type"))
    first = next(i for i, line in enumerate(lines) if line.startswith("A NOCACHE"))
    head = columns(lines[:middle], r" +(\d+) +(\d+) (.+?)(?:  +(host))?$", ["offset", "bytes", "field", "order"])
    attributes = columns(lines[middle:first], r" +([\d/n+ ]+?) +(\d+) (VIF_ID / MIF_ID|\w+) +(\S.*)$",
                         ["length", "type", "attribute", "value"])
    sizes = [line for line in lines[first:] if not line.startswith("Threads")]
    return page("Notifications on netlink",
                "The daemon sends the kernel's own multicast cache report (`RTM_NEWCACHEREPORT`) with one attribute "
                "more, so whoever\nreads the kernel's reads these. Groups of `NETLINK_ROUTE`: 30 for IPv4, 31 for "
                "IPv6, in the network namespace of the\nVRF. One datagram is one message. `sfectl monitor` prints "
                "them.\n",
                "## Head\n", head,
                "## Attributes, in this order\n",
                "Each is a u16 length (its 4 header bytes included, its padding not), a u16 type, the value, and "
                "zeroes up to the next\nmultiple of 4; both u16 in host order.\n", attributes, " ".join(sizes) + "\n",
                "## Constants\n",
                constants(path, ["kGroupIpv4", "kGroupIpv6", "kKindNoCache", "kKindWrongVif", "kKindWholePkt",
                                 "kKindWrVifWhole", "kAttrIntfId", "kDefaultTable", "kMaxPktBytes"]))


def shared_memory():
    path = ROOT / "Sfe" / "Multicast" / "TableLayout.h"
    lines = opening(path)
    slot = next(i for i, line in enumerate(lines) if line.strip().startswith("slot n"))
    heads = ["offset", "bytes", "field"]
    pattern = r" +([\d+*()KC]+) +([\d*KC]+)  (\S.*)$"
    header = columns(lines[:slot], pattern, heads)
    slots = columns(lines[slot:], pattern, heads)
    last = next(i for i, line in enumerate(lines) if "* self-checking" in line)
    notes = "\n".join(lines[last:]).rstrip()
    return page("Counters in shared memory",
                "The daemon keeps the counters of routes and interfaces in POSIX shared memory, files "
                "`/dev/shm/sfe.SYSNAME.*`; readers\nneed no daemon and no lock. `sfectl show mroute -s` and "
                "`sfectl counters` read them. Every field is made of 64-bit words in the byte order of the machine "
                "that wrote it.\n",
                "## Header, 512 bytes\n", header, "## Slot n, at 512 + n * slot size\n", slots,
                f"## Rules\n\n```\n{notes}\n```\n", "## Constants\n",
                constants(path, ["kTableMagic", "kLayoutVersion", "kEndianMark", "kHeaderBytes", "kCollectionBytes",
                                 "kPathBytes", "kSlotUsed", "kSlotFree", "kMaxCapacity"]))


def counters():
    """Fates and notifications: the enumerations' comments beside the names of their counters."""
    head = (ROOT / "SfeModules" / "PacketFates.h").read_text()
    names = iter(re.findall(r'"(\w+)"', (ROOT / "SfeModules" / "PacketFates.cpp").read_text().split("{", 1)[1]))
    words = dict(re.findall(r'\{"(\w+)", "([^"]+)"\}', (ROOT / "sfectl" / "DropReasons.cpp").read_text()))
    sections = []
    for title, kind in (("What became of packets", "Fate"), ("Notifications", "Notification")):
        body = re.search(rf"enum class {kind} : uint8_t {{(.*?)kCount", head, re.S).group(1)
        rows = []
        for _, note in re.findall(r"^  (k\w+),(?:\s*// (.*))?$", body, re.M):
            name = next(names)
            shown = words.get(name.removeprefix("drop_"), "") if name.startswith("drop_") else ""
            rows.append([f"`{name}`", note, shown] if kind == "Fate" else [f"`{name}`"])
        sections += [f"## {title}\n", table(["counter", "meaning", "in `sfectl show summary`"] if kind == "Fate"
                                            else ["counter"], rows)]
    return page("Event counters of a multicast module",
                "`sfectl stats` prints them for each worker, named `MODULE.COUNTER`; `sfectl explain` names the one "
                "that would grow.\nTheir sums are in the [metrics](metrics.md). They lose nothing:\n\n```\n"
                "packets in + re-injected = passed + forwarded + held + all drops but expired\n"
                "held                     = re-injected + expired + still in the cache\n```\n",
                *sections, "What each drop means and what to do about it: [drops](../explanation/drops.md).\n")


def metrics(text):
    """The page of metrics, from what a daemon serves. Labels are those of all samples of a name."""
    kinds = dict(re.findall(r"^# TYPE (\S+) (\S+)$", text, re.M))
    rows = []
    for name, meaning in sorted(re.findall(r"^# HELP (\S+) (.*)$", text, re.M)):
        labels = set()
        for found in re.findall(rf"^{name}(?:_bucket|_sum|_count)?\{{(.*)\}} ", text, re.M):
            labels |= set(re.findall(r'(\w+)="', found)) - {"le"}
        rows.append([f"`{name}`", kinds[name], ", ".join(sorted(labels)), meaning])
    return page("Metrics", "What `bessd --metrics` serves under `/metrics`; `mfib_route_…` only with "
                "`--metrics-routes`.\n", table(["metric", "type", "labels", "meaning"], rows))


# --- all of it

def picture(source):
    svg = subprocess.run(["dot", "-Tsvg", str(source)], check=True, capture_output=True, text=True).stdout
    return re.sub(r"<!-- Generated by.*?-->\n?", "", svg, flags=re.S)


def everything(directory):
    """Every file that is made without a running daemon: path below docs/ and text."""
    made = {"reference/sfectl.md": commands(directory, "sfectl"), "reference/bessd.md": commands(directory, "bessd"),
            "reference/protocol.md": protocol(), "reference/netlink.md": netlink(),
            "reference/shared-memory.md": shared_memory(), "reference/counters.md": counters()}
    for source in sorted((DOCS / "pictures").glob("*.dot")):
        made[f"pictures/{source.stem}.svg"] = picture(source)
    return made


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=Path, default=ROOT / "build" / "release" / "bin")
    for name, text in everything(parser.parse_args().bin).items():
        (DOCS / name).write_text(text)


if __name__ == "__main__":
    main()
