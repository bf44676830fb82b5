"""The documents: what is made is up to date, what is written by hand is true of the programs."""

import os
import re
import shlex
import socket
import struct
import subprocess
import sys
from pathlib import Path

import pytest

from testbed.daemon import SFECTL, Daemon
from testbed.document import blocks
from testbed.metrics import fetch
from testbed.namespaces import Namespace
from testbed.router import Router
from testbed.run import BUILD, ROOT, Run
from testbed.traffic import send_paced

DOCS = ROOT / "docs"
sys.path.insert(0, str(DOCS))
import generate  # noqa: E402 (the path comes first)

sys.path.insert(0, str(ROOT / "packaging"))
import command_tree  # noqa: E402 (the path comes first)

PAGES = sorted([*DOCS.rglob("*.md"), ROOT / "README.md"])
WRITE = os.environ.get("SFE_GOLDEN") == "write"
COMMAND = re.compile(r"^(?:.*?[\s\"'(])?(?:/usr/s?bin/)?(sfectl|bessd) (.*)$")


@pytest.fixture(scope="module")
def made():
    return generate.everything(BUILD / "bin")


@pytest.fixture(scope="module")
def router(run):
    return Router(run, ["source", "left"], options=["--publish-period", "100", "--metrics", "--metrics-routes", "9"])


def test_what_is_made_is_up_to_date(made):
    old = [name for name, text in made.items() if (DOCS / name).read_text() != text]
    assert old == [], "run docs/generate.py"


def test_pictures_and_pages_that_are_linked_exist():
    missing = []
    for page in PAGES:
        for target in re.findall(r"\]\(([^)#]+)[^)]*\)", page.read_text()):
            if "://" not in target and not (page.parent / target).exists():
                missing.append(f"{page.relative_to(ROOT)}: {target}")
    assert missing == []


def lines_with_commands():
    """(page, program, words) of each command line in a block, and of each one that stands in a sentence."""
    for page in PAGES:
        if page.parent.name == "reference":
            continue
        text = page.read_text()
        found = [line for kind, block in blocks(text) if kind in ("", "sh", "console")
                 for line in block.replace("\\\n", " ").splitlines()]
        found += [span for span in re.findall(r"`([^`]+)`", re.sub(r"^ *```.*?^ *```$", "", text, flags=re.M | re.S))
                  if span.startswith(("sfectl ", "bessd "))]
        for line in found:
            match = COMMAND.match(re.sub(r"(^|\s)#.*", "", line))
            if match and not line.strip().startswith(("until grep", "cat ")):
                yield page, match.group(1), match.group(2)


def words_of(text):
    """The words of a command line up to what belongs to the shell."""
    text = re.split(r"\s(?:\d?>|<|&|\|)|[<>]\(|;", re.sub(r"\$(\w+|\{[^}]*\})", "V", text).rstrip('")'))[0]
    try:
        return shlex.split(text)
    except ValueError:
        return shlex.split(text.split(" '")[0])


def problem(tree, words):
    """What is wrong with a command line; nothing when each command and option of it exists."""
    command, options = tree, {name for option in tree.options for name in option.names}
    for word in words:
        below = [c for c in command.commands if c.words[-1] == word]
        if below:
            command = below[0]
            options |= {name for option in command.options for name in option.names}
        elif word.startswith("-") and len(word) > 1 and word.split("=")[0] not in options:
            return f"{' '.join(command.words)} has no option {word}"
        elif not word.startswith("-") and command.commands and command.words[1:]:
            return f"{' '.join(command.words)} has no command {word}"
    if command is tree and tree.commands and not any(word.startswith("-") for word in words):
        return f"no command in: {' '.join(words)}"
    return None


def test_every_command_line_exists():
    trees = {name: command_tree.read(str(BUILD / "bin" / name)) for name in ("sfectl", "bessd")}
    lines = list(lines_with_commands())
    assert len(lines) > 50, "the documents were not understood"
    wrong = [f"{page.relative_to(ROOT)}: {wrong}" for page, program, text in lines
             if "..." not in text and (wrong := problem(trees[program], words_of(text)))]
    assert wrong == []
    assert problem(trees["sfectl"], ["show", "mroute", "--no-such"])
    assert problem(trees["sfectl"], ["show", "no-such"])


def test_every_configuration_is_good(tmp_path):
    checked = 0
    for page in PAGES:
        for kind, block in blocks(page.read_text()):
            if kind == "yaml":
                file = tmp_path / "sfe.yaml"
                file.write_text(block)
                result = subprocess.run([str(SFECTL), "apply", str(file), "--check"], capture_output=True, text=True)
                assert result.returncode == 0, f"{page.name}: {result.stderr}\n{block}"
                checked += 1
    assert checked > 6


def configuration(page):
    """The first configuration of a page, with ports that lead nowhere."""
    text = next(block for kind, block in blocks((DOCS / "how-to" / page).read_text()) if kind == "yaml")
    return re.sub(r"net_\w+?(\d),iface=\w+", r"net_null\1", text)


@pytest.fixture
def daemon():
    with Run("howto") as own:
        yield own.keep(Daemon(own, own.keep(Namespace(f"{own.name}-howto")), ["--plugin-dir", str(BUILD / "lib")]))


def apply(daemon, text, *options):
    file = daemon.run.directory / "sfe.yaml"
    file.write_text(text)
    return daemon.json("apply", file, *options)["steps"]


def test_a_pair_changes_its_interfaces_only(daemon):
    active = configuration("pair.md")
    standby = active.replace("multicast: true", "multicast: false")
    assert active.count("multicast: true") == 2
    apply(daemon, standby)
    told = daemon.json("explain", "10.1.0.2", "239.1.1.1", "Ethernet1")
    assert "dropped: its interface is not enabled for multicast" in [row["detail"] for row in told]
    steps = apply(daemon, active)
    assert steps and {step["kind"] for step in steps} == {"multicast"}, steps
    told = daemon.json("explain", "10.1.0.2", "239.1.1.1", "Ethernet1")
    assert "forwarded to Ethernet2" in [row["detail"] for row in told]


def test_vrfs_do_not_meet(daemon):
    apply(daemon, configuration("vrfs.md"))
    for vrf, iif, oif in (("red", "Ethernet1.10", "Ethernet2.10"), ("blue", "Ethernet2.20", "Ethernet1.20")):
        told = daemon.json("explain", "10.1.0.2", "239.1.1.1", iif, "--vrf", vrf)
        assert f"forwarded to {oif}" in [row["detail"] for row in told]
        assert [row["iif"] for row in daemon.json("show", "mroute", "--vrf", vrf)] == [iif]


def test_every_drop_reason_is_explained():
    counted = set(re.findall(r"`drop_(\w+)`", (DOCS / "reference" / "counters.md").read_text()))
    explained = re.findall(r"^\| `(\w+)` \|", (DOCS / "explanation" / "drops.md").read_text(), re.M)
    assert len(counted) > 10
    assert sorted(explained) == sorted(counted)


def test_every_environment_variable_and_path_is_listed():
    listed = (DOCS / "reference" / "environment.md").read_text()
    source = "".join(path.read_text() for room in ("Base", "Bess", "Sfe", "SfeModules", "bessd", "sfectl")
                     for path in (ROOT / room).rglob("*.cpp") if not path.stem.endswith(("Test", "Benchmark")))
    variables = set(re.findall(r'(?:getenv|envname)\("(\w+)"\)', source))
    assert variables and [name for name in variables if f"`{name}`" not in listed] == []


def test_metrics_are_those_of_a_daemon(scope, router):
    flow, unknown = scope.flow(4), scope.flow(4)
    scope.add_route(flow, oifs=["left"])
    receiver = scope.receiver("left", flow)
    send_paced([scope.sender("source", flow), scope.sender("source", unknown)], 5, 500)
    assert receiver.wait_for(flow.number, 5, timeout=10)
    router.wait_for_counters(4, lambda rows: len(rows["routes"]) >= 1)
    text = generate.metrics(fetch(router.forwarder, "http://127.0.0.1:9394/metrics"))
    path = DOCS / "reference" / "metrics.md"
    if WRITE:
        path.write_text(text)
    assert path.read_text() == text


def rows(page, title):
    """The first table below a title of a reference page."""
    text = (DOCS / "reference" / page).read_text().split(f"## {title}", 1)[1]
    lines = re.search(r"^\|---.*\n((?:\|.*\n)+)", text, re.M).group(1).splitlines()
    return [[field.strip() for field in re.split(r"(?<!\\)\|", line)[1:-1]] for line in lines]


def object_of(router, word):
    """The bytes of the shared memory object with this word in its name."""
    found = [path for path in Path("/dev/shm").iterdir() if router.daemon.run.name in path.name and word in path.name]
    assert found
    return found[0].read_bytes()


def test_shared_memory_is_as_described(scope, router):
    flow = scope.flow(4)
    scope.add_route(flow, oifs=["left"])
    receiver = scope.receiver("left", flow)
    send_paced([scope.sender("source", flow)], 7, 500)
    assert receiver.wait_for(flow.number, 7, timeout=10)
    router.wait_for_counters(4, lambda _: scope.route_counters(flow) and scope.route_counters(flow)["packets"] == 7)
    for word in [path.name for path in Path("/dev/shm").iterdir() if router.daemon.run.name in path.name]:
        check_object(object_of(router, word))


def check_object(data):
    values = {field: data[int(at):int(at) + int(size)] for at, size, field in rows("shared-memory.md", "Header")}
    constants = {name.strip("`"): value.strip("`") for name, value, _ in rows("shared-memory.md", "Constants")}

    def number(start):
        return struct.unpack("=Q", next(value for field, value in values.items() if field.startswith(start)))[0]
    assert number("magic") == int(constants["kTableMagic"], 0)
    assert number("layout version") == int(constants["kLayoutVersion"])
    assert number("endianness mark") == int(constants["kEndianMark"], 0)
    assert number("size of this header") == int(constants["kHeaderBytes"])
    assert number("record kind") in (1, 2)
    key, counters, capacity = number("K, "), number("C, "), number("capacity")
    slots = {field.split(":")[0].split()[0]: int(eval(at.replace("K", str(key)).replace("C", str(counters))))
             for at, _, field in rows("shared-memory.md", "Slot")}
    assert number("size of one slot") == slots["CRC32C"] + 8
    assert len(data) >= 512 + capacity * number("size of one slot")
    states = [struct.unpack_from("=Q", data, 512 + n * number("size of one slot") + slots["state"])[0]
              for n in range(min(capacity, 1000))]
    assert set(states) <= {0, int(constants["kSlotUsed"], 0), int(constants["kSlotFree"], 0)}


@pytest.mark.parametrize("version, group", [(4, "kGroupIpv4"), (6, "kGroupIpv6")])
def test_notifications_are_as_described(scope, router, version, group):
    constants = {name.strip("`"): int(value.strip("`")) for name, value, _ in rows("netlink.md", "Constants")}
    with router.forwarder.entered():
        listener = scope.keep(socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE))
    listener.bind((0, 0))
    listener.settimeout(10)
    listener.setsockopt(270, 1, constants[group])  # SOL_NETLINK, NETLINK_ADD_MEMBERSHIP
    flow = scope.flow(version)
    scope.sender("source", flow).send()
    family = socket.AF_INET if version == 4 else socket.AF_INET6
    wanted = {"SRC_ADDR": socket.inet_pton(family, flow.source), "DST_ADDR": socket.inet_pton(family, flow.group)}
    while True:
        message = listener.recv(70000)
        found = attributes(message, version)
        if found["DST_ADDR"] == wanted["DST_ADDR"]:
            break
    for offset, size, field, _ in rows("netlink.md", "Head"):
        value = int.from_bytes(message[int(offset):int(offset) + int(size)], sys.byteorder)
        if field.startswith("nlmsg_len"):
            assert value == len(message) == (72 if version == 4 else 88)
        elif number := re.search(r"= (\d+)(?:.*or (\d+))?", field):
            assert value == int(number.group(2) if number.group(2) and version == 6 else number.group(1)), field
    assert found["MSGTYPE"] == bytes([constants["kKindNoCache"]])
    assert {name: found[name] for name in wanted} == wanted
    assert found["kAttrIntfId"][:4] == found["VIF_ID / MIF_ID"]
    assert ("TABLE" in found) == (version == 4)


def attributes(message, version):
    """The attributes of a message by the names of the page, whose order and lengths they have."""
    listed = rows("netlink.md", "Attributes")
    expected = [(int(kind), int(length.split("/")[-1 if version == 6 else 0]), name) for length, kind, name, _ in listed
                if name != "PKT" and (version == 4 or name != "TABLE")]
    found, at = {}, 20
    for kind, length, name in expected:
        assert struct.unpack_from("=HH", message, at) == (length, kind), name
        found[name] = message[at + 4:at + length]
        at += (length + 3) // 4 * 4
    assert at == len(message)
    return found
