"""What people see: `show`, `graph`, `capture`, against golden files; in a pipe as on a terminal."""

import contextlib
import json
import os
import signal
import subprocess
from pathlib import Path

import pytest
from scapy.layers.inet import IP
from scapy.layers.l2 import Ether
from scapy.utils import rdpcap

from testbed.daemon import SFECTL
from testbed.golden import ESCAPE, masked, on_terminal, problems, shape
from testbed.run import start, wait_until

SOURCE = "10.1.0.2"


class Watched:
    """A router with a few routes, traffic that is over, and a packet that waits for a route."""

    def __init__(self, scope, flows):
        self.scope = scope
        self.flows = flows


def count(daemon, group):
    for row in daemon.json("show", "mroute", group):
        return row
    return {}


@pytest.fixture(scope="module")
def watched(router):
    from conftest import Scope
    with Scope(router) as scope:
        for module in router.graph.INSTANCES:
            router.graph.set_size(module, "setCacheExpiryTimer", 600)
        flows = {name: scope.flow(6 if name == "six" else 4)
                 for name in ("plain", "six", "held", "silent", "wild")}
        for number, flow in enumerate(flows.values(), 1):
            flow.group = f"239.1.1.{number}" if flow.version == 4 else f"ff15::1:{number}"
        scope.add_route(flows["plain"], options=["--to-cpu", "--iif-frr", "Ethernet5"])
        scope.add_route(flows["six"], oifs=["right"])
        scope.add_route(flows["silent"], oifs=[])
        scope.add_route(flows["wild"], source="*", oifs=["left"])
        for name, packets in (("plain", 5), ("six", 3), ("silent", 2), ("held", 1)):
            scope.sender("source", flows[name]).send(packets)
        scope.sender("stray", flows["plain"]).send(1)
        daemon = router.daemon
        assert wait_until(lambda: (row := count(daemon, "239.1.1.1")).get("packets") == 6
                          and row["wrong_if"] == 1, 15), count(daemon, "239.1.1.1")
        assert wait_until(lambda: count(daemon, "239.1.1.4").get("dropped") == 2, 15)
        assert wait_until(lambda: count(daemon, "ff15::1:2").get("packets") == 3, 15)
        assert wait_until(lambda: count(daemon, "239.1.1.3").get("held_packets") == 1, 15)
        yield Watched(scope, flows)


# (golden file, words of the command line, whether numbers differ from run to run)
COMMANDS = [
    ("show-mroute", ["show", "mroute"], False),
    ("show-mroute-stats", ["show", "mroute", "-s", "-4"], False),
    ("show-mroute-group", ["show", "mroute", "-s", "ff15::1:2"], False),
    ("show-mroute-any-source", ["show", "mroute", "*", "239.1.1.5"], False),
    ("show-mroute-source", ["show", "mroute", SOURCE, "239.1.1.1", "--vrf", "default"], False),
    ("show-mroute-nothing", ["show", "mroute", SOURCE, "239.9.9.9"], False),
    ("show-intf", ["show", "intf"], True),
    ("show-cache", ["show", "cache"], True),
    ("show-summary", ["show", "summary"], True),
    ("show-modules", ["show", "modules"], True),
    ("show-ports", ["show", "ports"], True),
    ("show-tasks", ["show", "tasks"], True),
    ("graph", ["graph", "--no-rates"], False),
]


@pytest.mark.parametrize("name, argv, numbers", COMMANDS, ids=[case[0] for case in COMMANDS])
def test_text_is_the_same_in_a_pipe_and_on_a_terminal(watched, name, argv, numbers):
    daemon = watched.scope.daemon
    text = masked(daemon.sfectl(*argv), numbers)
    assert ESCAPE not in text
    assert problems(name + ".txt", text) == ""
    code, shown = on_terminal([str(SFECTL), *argv], {**os.environ, **daemon.environment, "NO_COLOR": "1"})
    assert code == 0
    assert problems(name + ".txt", masked(shown, numbers)) == ""


@pytest.mark.parametrize("name, argv, numbers", COMMANDS, ids=[case[0] for case in COMMANDS])
def test_json_has_the_expected_members(watched, name, argv, numbers):
    value = watched.scope.daemon.json(*argv)
    for row in value if isinstance(value, list) else []:
        if "held_ms" in row:
            assert row.pop("held_ms") >= 0
    assert problems(name + ".json", shape(value, numbers)) == ""


def test_graph_for_graphviz(watched, run):
    daemon = watched.scope.daemon
    dot = daemon.sfectl("graph", "--dot", "--no-rates")
    assert problems("graph.dot", dot) == ""
    picture = run.directory / "graph.svg"
    daemon.sfectl("graph", "--svg", picture, "--no-rates")
    svg = picture.read_text()
    assert "<svg" in svg
    for module in ("mfib4", "mfib6", "in", "out", "rx1", "tx5"):
        assert f">{module}</text>" in svg
    poor = subprocess.run([str(SFECTL), "graph", "--svg", str(picture)], capture_output=True, text=True,
                          env={**daemon.environment, "PATH": "/nowhere"}, timeout=30)
    assert poor.returncode == 1
    assert "graphviz" in poor.stderr
    refused = daemon.attempt("graph", "--no-rates", "--svg", "/nowhere/graph.svg")
    assert refused.returncode == 1
    assert "/nowhere/graph.svg" in refused.stderr


def hooks(daemon):
    return [(row["hook"], row["module"], row["direction"], row["gate"]) for row in daemon.json("hook", "show")]


def test_graph_measures_what_passes_and_leaves_the_hooks_as_they_were(watched, scope):
    daemon = scope.daemon
    daemon.sfectl("hook", "add", "track", "rx1", "out", "0")
    before = hooks(daemon)
    edges = len(daemon.json("connections"))
    sender = scope.sender("source", watched.flows["plain"])
    graph = start([str(SFECTL), "graph", "--interval", "2", "--json"], daemon.environment, stdout=subprocess.PIPE)
    try:
        assert wait_until(lambda: len(hooks(daemon)) == edges, 10), hooks(daemon)
        sender.send(100)
        text, _ = graph.communicate(timeout=20)
    finally:
        graph.kill()
        graph.wait()
    assert hooks(daemon) == before
    daemon.sfectl("hook", "del", "track", "rx1", "out", "0")
    rates = {(edge["from"], edge["ogate"]): edge["packets_per_second"] for edge in json.loads(text)["edges"]}
    assert 20 < rates["rx1", 0] <= 50
    assert rates["in", 0] == pytest.approx(rates["rx1", 0], abs=5)
    assert rates["mfib4", 1] >= 1.9 * rates["rx1", 0]
    assert rates["rx5", 0] == 0


def test_interrupted_graph_leaves_no_hooks(watched, scope):
    daemon = scope.daemon
    graph = start([str(SFECTL), "graph", "--interval", "3000"], daemon.environment, stdout=subprocess.PIPE,
                  stderr=subprocess.PIPE)
    edges = len(daemon.json("connections"))
    try:
        assert wait_until(lambda: len(hooks(daemon)) == edges, 10)
        graph.send_signal(signal.SIGINT)
        text, error = graph.communicate(timeout=10)
    finally:
        graph.kill()
        graph.wait()
    assert (graph.returncode, text) == (1, b"")
    assert b"interrupted" in error
    assert hooks(daemon) == []


@contextlib.contextmanager
def capturing(daemon, *argv, **pipes):
    """A capture, from the moment that it captures."""
    process = start([str(SFECTL), "capture", *map(str, argv)], daemon.environment, stderr=subprocess.PIPE, **pipes)
    try:
        assert process.stderr.readline() == b"capturing\n"
        yield process
    finally:
        process.kill()
        process.wait()
        process.stderr.close()


def packets_to(path, group):
    frames = [Ether(bytes(frame)) for frame in rdpcap(str(path))]
    return [frame for frame in frames if IP in frame and frame[IP].dst == group]


def left_beside_the_socket(daemon):
    return list(Path(daemon.socket.removeprefix("unix:")).parent.glob("sfectl-capture*"))


def test_capture_of_a_number_of_packets(watched, scope, run):
    daemon, flow = scope.daemon, watched.flows["plain"]
    path = run.directory / "rx.pcap"
    with capturing(daemon, "in:out:0", path, "--count", 5) as process:
        assert left_beside_the_socket(daemon) == []
        scope.sender("source", flow).send(8)
        assert process.wait(10) == 0
        assert b"5 packets captured" in process.stderr.read()
    assert len(packets_to(path, flow.group)) == 5
    assert hooks(daemon) == []


def test_capture_into_a_pipe_until_it_is_interrupted(watched, scope, run):
    daemon, flow = scope.daemon, watched.flows["plain"]
    path = run.directory / "pipe.pcap"
    with open(path, "wb") as file, capturing(daemon, "mfib4:in:0", "-", stdout=file) as process:
        scope.sender("source", flow).send(4)
        assert wait_until(lambda: path.stat().st_size > 24 and len(packets_to(path, flow.group)) == 4, 10)
        process.send_signal(signal.SIGINT)
        assert process.wait(10) == 0
        assert b"4 packets captured" in process.stderr.read()
    assert hooks(daemon) == []
    assert left_beside_the_socket(daemon) == []


def test_capture_says_when_too_few_packets_came(watched, scope, run):
    with capturing(scope.daemon, "in:2", run.directory / "none.pcap", "--count", 2000, "--timeout", 0.3) as process:
        assert process.wait(10) == 1
        assert b"of 2000 packets came in time" in process.stderr.read()
    assert hooks(scope.daemon) == []


WRONG = [
    (["show"], 2, "subcommand"),
    (["show", "mroute", "nonsense"], 2, "nonsense"),
    (["show", "mroute", "239.1.1.1", "239.1.1.1"], 2, "multicast"),
    (["show", "mroute", "10.0.0.1", "10.0.0.2"], 2, "10.0.0.2"),
    (["show", "mroute", "10.0.0.1", "ff15::1"], 2, "families"),
    (["show", "mroute", "-4", "-6"], 2, "-4"),
    (["show", "mroute", "--vrf", "nobody"], 1, "nobody"),
    (["show", "intf", "--vrf", "nobody"], 1, "nobody"),
    (["graph", "--dot", "--svg", "x"], 2, "--dot"),
    (["graph", "--interval", "0"], 2, "--interval"),
    (["capture", "in"], 2, "FILE"),
    (["capture", "in:sideways", "/dev/null"], 2, "sideways"),
    (["capture", "in:9000", "/dev/null"], 2, "9000"),
    (["capture", ":in", "/dev/null"], 2, "names no gate"),
    (["capture", "nobody", "/dev/null"], 1, "nobody"),
    (["capture", "in:77", "/dev/null"], 1, "77"),
    (["capture", "in", "/nowhere/x.pcap"], 1, "/nowhere/x.pcap"),
    (["capture", "in", "/dev/null", "--socket", "127.0.0.1:1"], 2, "--socket"),
    (["top", "--sort", "luck"], 2, "luck"),
    (["top", "-d", "0"], 2, "--delay"),
    (["top", "--json"], 2, "counters"),
]


@pytest.mark.parametrize("argv, code, word", WRONG, ids=[" ".join(case[0]) for case in WRONG])
def test_wrong_words_are_refused(watched, argv, code, word):
    result = watched.scope.daemon.attempt(*argv)
    assert (result.returncode, result.stdout) == (code, ""), result
    assert word in result.stderr
    assert hooks(watched.scope.daemon) == []
