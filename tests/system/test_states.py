"""What a running daemon shows of its inside: `explain`, the trace, the state texts behind them."""

import json
import re

import pytest

from testbed.daemon import Daemon
from testbed.namespaces import Namespace

ROUTE = ["mroute", "add", "10.0.0.1", "239.1.1.1", "--iif", "Ethernet1", "--oif", "Ethernet2:1", "--oif", "Ethernet3:2"]


@pytest.fixture(scope="module")
def daemon(run):
    """An instance for each family, a route, no traffic."""
    daemon = run.keep(Daemon(run, run.keep(Namespace(f"{run.name}-states"))))
    daemon.load_plugins()
    daemon.sfectl("port", "add", "port0", "net_null0")
    daemon.sfectl("module", "add", "IntfIn", "in")
    daemon.sfectl("module", "add", "IntfOut", "out")
    daemon.sfectl("module", "add", "Mfib", "mfib4",
                  "--arg", json.dumps({"vrfname": "default", "af": 1, "ethernet_mode": True}))
    daemon.sfectl("module", "add", "Mfib", "mfib6", "--arg", json.dumps({"vrfname": "default", "af": 2}))
    daemon.sfectl("intf", "add", "Ethernet1", "--port", "port0", "--mcast")
    daemon.sfectl(*ROUTE)
    return daemon


def steps(daemon, *words):
    return [(row["step"], row["result"], row["detail"]) for row in daemon.json("explain", *words)]


def fate(daemon, *words):
    found = [detail for step, _, detail in steps(daemon, *words) if step == "fate"]
    assert len(found) == 1
    return found[0]


def test_explain_follows_the_packet_to_its_counters(daemon):
    told = steps(daemon, "10.0.0.1", "239.1.1.1", "Ethernet1")
    assert [step for step, _, _ in told if step != "counter"] == [
        "instance", "destination", "interface", "route", "iif", "ttl", "oif", "oif", "rewrite", "fate"]
    assert ("fate", "ok", "forwarded to Ethernet2, Ethernet3") in told
    counters = [detail for step, _, detail in told if step == "counter"]
    assert counters[0] == "mfib4.default.forwarded"
    assert "interface Ethernet3 packets_out" in counters


def test_explain_names_the_cause_of_a_black_hole(daemon):
    assert fate(daemon, "10.0.0.1", "239.1.1.1", "Ethernet2") == "dropped: its interface is not enabled for multicast"
    assert fate(daemon, "10.0.0.1", "239.1.1.1", "Ethernet1", "--ttl", 1) == "dropped: TTL too small"
    assert fate(daemon, "10.0.0.1", "239.1.1.9", "Ethernet1").startswith("held until the route comes")
    assert fate(daemon, "2001:db8::1", "ff02::1", "Ethernet1") == "passed on unchanged by gate 0"


def test_explain_prints_a_table_for_people(daemon):
    lines = daemon.sfectl("explain", "10.0.0.1", "239.1.1.1", "Ethernet1").splitlines()
    assert lines[0].split() == ["STEP", "RESULT", "DETAIL"]
    assert any(re.match(r"fate +ok +forwarded to Ethernet2, Ethernet3$", line) for line in lines)


@pytest.mark.parametrize("words, code, text", [
    (["10.0.0.1", "239.1.1.1"], 2, "INTF"),
    (["10.0.0.256", "239.1.1.1", "Ethernet1"], 2, "10.0.0.256"),
    (["10.0.0.1", "ff15::1", "Ethernet1"], 2, "families"),
    (["10.0.0.1", "239.1.1.1", "nothing"], 2, "nothing"),
    (["10.0.0.1", "239.1.1.1", "Ethernet1", "--ttl", "256"], 2, "--ttl"),
    (["10.0.0.1", "239.1.1.1", "Ethernet1", "--vrf", "nobody"], 1, "nobody"),
])
def test_explain_refuses(daemon, words, code, text):
    result = daemon.attempt("explain", *words)
    assert result.returncode == code, result
    assert text in result.stderr
    assert result.stdout == ""


def test_trace_shows_commands_in_time_order(daemon):
    rows = daemon.json("show", "trace", "--function", "Mfib::addMroute", "--level", 6)
    assert rows and all(row["function"] == "SfeModules::Mfib::addMroute" and row["level"] <= 6 for row in rows)
    everything = [row["time"] for row in daemon.json("show", "trace")]
    assert everything == sorted(everything) and len(everything) > len(rows)
    assert len(daemon.json("show", "trace", "--count", 2)) == 2
    assert daemon.json("show", "trace", "--function", "NoSuchFunction") == []
    assert daemon.sfectl("show", "trace").splitlines()[0].split() == ["TIME", "THREAD", "LEVEL", "FUNCTION", "TEXT"]
    assert daemon.attempt("show", "trace", "--level", "10").returncode == 2
