"""What every command prints that is not a `show`: text and JSON against golden files, in a pipe and on a terminal."""

import contextlib
import json
import os
import re
import subprocess

import pytest

from testbed.daemon import SFECTL
from testbed.golden import ESCAPE, OnTerminal, masked, on_terminal, problems, shape
from testbed.run import BUILD, start, wait_until

SMCROUTE = """phyint Ethernet1 enable
mroute from Ethernet1 source 10.1.0.2 group 239.8.8.8 to Ethernet2 Ethernet3
mroute from Ethernet1 group 239.8.8.9 to Ethernet2
"""
CONFIGURATION = """publish_period: 500
ports:
  port1: net_af_packet1,iface=veth1
interfaces:
  Ethernet1: port1
"""
BAD_CONFIGURATION = "ports: {p1: {devargs: net_null0, rxq: 0}}\nroute: []\n"


@pytest.fixture(scope="module")
def used(router, run):
    """A router that has done something, and a directory with files for it."""
    from conftest import Scope
    with Scope(router) as scope:
        flow, silent = scope.flow(4), scope.flow(6)
        flow.group, silent.group = "239.2.203.1", "ff15::2:cb01"
        scope.add_route(flow, options=["--to-cpu"])
        scope.add_route(silent, oifs=["right"])
        daemon = router.daemon
        daemon.sfectl("hook", "add", "track", "in", "out", "0")
        scope.sender("source", flow).send(5)
        assert wait_until(lambda: (row := scope.route_counters(flow)) and row["packets"] == 5, 15)
        for name, text in (("smcroute.conf", SMCROUTE), ("sfe.yaml", CONFIGURATION), ("bad.yaml", BAD_CONFIGURATION)):
            (run.directory / name).write_text(text)
        yield router


def same_everywhere(text, run):
    """Without what depends on where and on what the test runs."""
    text = text.replace(f"{run.directory}/", "").replace(str(BUILD), "BUILD").replace(run.name, "SYSNAME")
    text = re.sub(r"DPDK [\w.-]+", "DPDK VERSION", text)
    text = re.sub(r"(?<![\d.])\d+\.\d+\.\d+(?![\d.])", "VERSION", text)
    return re.sub(r'("mac": ?)"[A-Za-z0-9+/]{8}"', r'\1"BASE64"', text)


# (golden file, words of the command line); numbers are masked, and a file of the run's directory begins with @
COMMANDS = [
    ("version", ["version"]),
    ("stats", ["stats"]),
    ("worker-show", ["worker", "show"]),
    ("task-show", ["task", "show"]),
    ("port-show", ["port", "show"]),
    ("port-show-one", ["port", "show", "port1"]),
    ("module-show", ["module", "show"]),
    ("module-show-one", ["module", "show", "mfib4"]),
    ("connections", ["connections"]),
    ("hook-show", ["hook", "show"]),
    ("plugin-show", ["plugin", "show"]),
    ("intf-show", ["intf", "show"]),
    ("counters", ["counters"]),
    ("counters-ipv6", ["counters", "--af", "6"]),
    ("command", ["command", "in", "showIntfs"]),
    ("explain", ["explain", "10.1.0.2", "239.2.200.200", "Ethernet1"]),
    ("apply-dry-run", ["apply", "@sfe.yaml", "--dry-run"]),
    ("apply-check", ["apply", "@sfe.yaml", "--check"]),
]


def words(argv, run):
    return [str(run.directory / word[1:]) if word.startswith("@") else word for word in argv]


@pytest.mark.parametrize("name, argv", COMMANDS, ids=[case[0] for case in COMMANDS])
def test_text_is_the_same_in_a_pipe_and_on_a_terminal(used, run, name, argv):
    daemon = used.daemon
    text = daemon.sfectl(*words(argv, run))
    assert ESCAPE not in text
    assert problems(name + ".txt", masked(same_everywhere(text, run), True)) == ""
    code, shown = on_terminal([str(SFECTL), *words(argv, run)], {**os.environ, **daemon.environment})
    assert code == 0
    assert problems(name + ".txt", masked(same_everywhere(shown, run), True)) == ""


@pytest.mark.parametrize("name, argv", COMMANDS, ids=[case[0] for case in COMMANDS])
def test_json_has_the_expected_members(used, run, name, argv):
    text = used.daemon.sfectl("--json", *words(argv, run))
    value = json.loads(same_everywhere(text, run)) if text else None
    assert problems(name + ".json", shape(value, True)) == ""


def test_files_are_written_as_text_alone(used, run):
    """`save` and `import` write a file, whatever else is asked for."""
    for name, argv in (("save", ["save"]), ("import", ["import", "@smcroute.conf"])):
        text = used.daemon.sfectl(*words(argv, run))
        assert ESCAPE not in text
        assert problems(name + ".txt", masked(text)) == ""
        code, shown = on_terminal([str(SFECTL), *words(argv, run)], {**os.environ, **used.daemon.environment})
        assert (code, shown) == (0, text)


def test_problems_of_a_file_are_printed_alike(used, run):
    argv = [str(SFECTL), "apply", str(run.directory / "bad.yaml")]
    result = subprocess.run(argv, capture_output=True, text=True, env=used.daemon.environment, timeout=30)
    assert (result.returncode, result.stdout) == (1, "")
    assert problems("apply-problems.txt", same_everywhere(result.stderr, run)) == ""
    assert on_terminal(argv, {**os.environ, **used.daemon.environment}) == (1, result.stderr)
    result = used.daemon.attempt("--json", *argv[1:])
    assert problems("apply-problems.json", shape(json.loads(same_everywhere(result.stdout, run)), False)) == ""


# (golden file, words of the command line that makes something, words of the one that takes it away)
MAKERS = [
    ("module-add", ["module", "add", "Sink", "s1"], ["module", "del", "s1"]),
    ("port-add", ["port", "add", "n1", "net_null1"], ["port", "del", "n1"]),
    ("worker-add", ["worker", "add", "1"], ["worker", "del", "1"]),
    ("mroute-add", ["mroute", "add", "10.1.0.2", "239.2.200.1", "--iif", "Ethernet1"],
     ["mroute", "del", "10.1.0.2", "239.2.200.1"]),
]


@pytest.mark.parametrize("name, make, take", MAKERS, ids=[case[0] for case in MAKERS])
def test_what_is_made_is_answered_alike(used, name, make, take):
    daemon = used.daemon
    text = daemon.sfectl(*make)
    assert ESCAPE not in text + daemon.sfectl(*take)
    assert problems(name + ".txt", masked(text, True)) == ""
    code, shown = on_terminal([str(SFECTL), *make], {**os.environ, **daemon.environment})
    assert (code, masked(shown, True)) == (0, masked(text, True))
    daemon.sfectl(*take)
    made = daemon.json(*make)
    assert problems(name + ".json", shape(made, True)) == ""
    assert daemon.json(*take) is None


@contextlib.contextmanager
def watching(daemon, argv):
    """The program in a pipe and on a terminal, from the moment on that it listens; both end by themselves."""
    full = daemon.namespace.command(str(SFECTL), *argv)
    pipe = start(full, daemon.environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    shown = OnTerminal(full, {**os.environ, **daemon.environment})
    try:
        ready = pipe.stderr.readline().decode()
        assert shown.wait_for(ready.strip()), shown.text()
        yield ready, pipe, shown
    finally:
        shown.close()
        pipe.kill()
        pipe.wait()
        pipe.stdout.close()
        pipe.stderr.close()


def ended(ready, pipe, shown):
    """(standard output, standard error, what the terminal shows) of the two."""
    out, error = (data.decode() for data in pipe.communicate(timeout=20))
    code, screen = shown.finish()
    assert (pipe.returncode, code) == (0, 0)
    return out, ready + error, screen


@pytest.mark.parametrize("form", ["txt", "json"])
def test_monitor_prints_the_same_in_a_pipe_and_on_a_terminal(used, scope, form):
    flow = scope.flow(4)
    flow.group = {"txt": "239.2.201.1", "json": "239.2.201.2"}[form]
    options = ["--json"] if form == "json" else []
    with watching(scope.daemon, ["monitor", "--count", "2", "--timeout", "20", *options]) as (ready, pipe, shown):
        scope.sender("source", flow).send(1)
        assert shown.wait_for(flow.group)
        scope.add_route(flow, oifs=["left"])
        scope.sender("stray", flow).send(1)
        out, error, screen = ended(ready, pipe, shown)
    assert ESCAPE not in out + error
    assert error == "listening\n"
    assert screen == error + out
    if form == "json":
        out = "".join(shape(json.loads(line), False) for line in out.splitlines())
    assert problems(f"monitor.{form}", out.replace(flow.group, "GROUP")) == ""


def test_capture_says_the_same_in_a_pipe_and_on_a_terminal(used, scope, run):
    flow = scope.flow(4)
    flow.group = "239.2.202.1"
    scope.add_route(flow, oifs=["left"])
    path = run.directory / "printed.pcap"
    argv = ["capture", "rx1:out:0", str(path), "--count", "3", "--timeout", "20"]
    for terminal in (False, True):
        if terminal:
            shown = OnTerminal([str(SFECTL), *argv], {**os.environ, **scope.daemon.environment})
            assert shown.wait_for("capturing"), shown.text()
            scope.sender("source", flow).send(3)
            code, text = shown.finish()
        else:
            process = start([str(SFECTL), *argv], scope.daemon.environment, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE)
            text = process.stderr.readline().decode()
            scope.sender("source", flow).send(3)
            out, error = process.communicate(timeout=20)
            code, text = process.returncode, out.decode() + text + error.decode()
            assert ESCAPE not in text
        assert code == 0
        assert problems("capture.txt", same_everywhere(text, run)) == ""
