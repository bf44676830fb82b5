"""Wrong input to every command and option: an exit code that tells whose fault it is, and a text that names the fault.

Exit code 2: the command line is wrong, the daemon was not asked. Exit code 1: the daemon refused, or is not there.
After every refusal the daemon still lives and holds what it held before.
"""

import json
import re
import subprocess

import pytest

from testbed.daemon import BESSD, PLUGINS, SFECTL, Daemon
from testbed.namespaces import Namespace

USAGE, REFUSED = 2, 1


@pytest.fixture(scope="module")
def daemon(run):
    """A daemon without traffic: two ports that are no wires, one module of each kind."""
    namespace = run.keep(Namespace(f"{run.name}-solo"))
    daemon = run.keep(Daemon(run, namespace))
    daemon.load_plugins()
    daemon.sfectl("worker", "add", 0)
    for number in (0, 1):
        daemon.sfectl("port", "add", f"port{number}", f"net_null{number}")
    daemon.sfectl("module", "add", "IntfIn", "in")
    daemon.sfectl("module", "add", "IntfOut", "out")
    daemon.sfectl("module", "add", "Sink", "sink")
    daemon.sfectl("module", "add", "PortInc", "rx0", "--arg", '{"port": "port0"}')
    daemon.sfectl("module", "add", "Mfib", "mfib4", "--arg", '{"af": 1, "ethernet_mode": true}')
    daemon.sfectl("module", "add", "Mfib", "mfib6", "--arg", '{"af": 2}')
    daemon.sfectl("connect", "rx0", "in")
    daemon.sfectl("connect", "in:0", "mfib4")
    daemon.sfectl("intf", "add", "Ethernet1", "--port", "port0", "--mcast")
    daemon.sfectl("mroute", "add", "10.0.0.1", "239.1.1.1", "--iif", "Ethernet1", "--oif", "Ethernet2")
    daemon.sfectl("hook", "add", "track", "in", "out", "0")
    return daemon


def state(daemon):
    """All that clients have made, without the counts that go on by themselves."""
    def without(rows, *keys):
        return [{k: v for k, v in row.items() if k not in keys} for row in rows]
    counting = ("packets", "bits", "rounds", "silent_drops", "runs", "bytes", "batches", "dead_ends", "desc", "state",
                "running")
    return {name: without(daemon.json(*argv), *counting) for name, argv in {
        "workers": ["worker", "show"], "ports": ["port", "show"], "modules": ["module", "show"],
        "connections": ["connections"], "hooks": ["hook", "show"], "tasks": ["task", "show"],
        "plugins": ["plugin", "show"]}.items()} | {"interfaces": daemon.json("intf", "show")["interfaces"]}


ROUTE = ["mroute", "add", "10.0.0.1", "239.1.1.9"]
IIF = ["--iif", "Ethernet1"]

# (words of the command line, exit code, what the text must contain)
WRONG = [
    # nothing and nonsense
    ([], USAGE, ["subcommand"]),
    (["frobnicate"], USAGE, ["frobnicate"]),
    (["--frobnicate", "version"], USAGE, ["--frobnicate"]),
    (["--socket"], USAGE, ["--socket"]),
    (["version", "extra"], USAGE, ["extra"]),
    (["pause", "extra"], USAGE, ["extra"]),
    (["resume", "extra"], USAGE, ["extra"]),
    (["stats", "extra"], USAGE, ["extra"]),
    (["shutdown", "extra"], USAGE, ["extra"]),
    # workers and tasks
    (["worker"], USAGE, ["subcommand"]),
    (["worker", "add"], USAGE, ["WID"]),
    (["worker", "add", "x"], USAGE, ["x"]),
    (["worker", "add", "36"], USAGE, ["36"]),
    (["worker", "add", "-1"], USAGE, ["-1"]),
    (["worker", "add", "0"], REFUSED, ["worker 0"]),
    (["worker", "add", "1", "--core", "x"], USAGE, ["--core"]),
    (["worker", "add", "1", "--core", "1023"], REFUSED, ["1023"]),
    (["worker", "del", "7"], REFUSED, ["7"]),
    (["worker", "del", "99"], USAGE, ["99"]),
    (["task", "attach", "rx0"], USAGE, ["--worker"]),
    (["task", "attach", "nobody", "--worker", "0"], REFUSED, ["nobody"]),
    (["task", "attach", "rx0", "9", "--worker", "0"], REFUSED, ["9", "rx0"]),
    (["task", "attach", "rx0", "64", "--worker", "0"], USAGE, ["64"]),
    (["task", "attach", "rx0", "--worker", "5"], REFUSED, ["5"]),
    (["task", "attach", "rx0", "--worker", "0", "--rate", "0"], USAGE, ["--rate"]),
    (["task", "attach", "sink", "--worker", "0"], REFUSED, ["sink"]),
    (["task", "detach", "rx0"], REFUSED, ["rx0"]),
    (["task", "detach", "nobody"], REFUSED, ["nobody"]),
    # ports
    (["port", "add", "p"], USAGE, ["DEVARGS"]),
    (["port", "add", "port0", "net_null7"], REFUSED, ["port0"]),
    (["port", "add", "p", "net_nothing0"], REFUSED, ["net_nothing0"]),
    (["port", "add", "p", "net_null0"], REFUSED, ["net_null0"]),
    (["port", "add", "p", "net_af_packet0,iface=nowhere"], REFUSED, ["net_af_packet0"]),
    (["port", "add", "", "net_null7"], REFUSED, ["name"]),
    (["port", "add", "p", "net_null7", "--mtu", "0"], USAGE, ["--mtu"]),
    (["port", "add", "p", "net_null7", "--rxq", "many"], USAGE, ["--rxq"]),
    (["port", "add", "p", "net_null7", "--txq", "0"], USAGE, ["--txq"]),
    (["port", "add", "p", "net_null7", "--queue-size", "x"], USAGE, ["--queue-size"]),
    (["port", "add", "p", "net_null7", "--promisc", "maybe"], USAGE, ["--promisc"]),
    (["port", "add", "p", "net_null7", "--allmulti", "maybe"], USAGE, ["--allmulti"]),
    (["port", "del", "nobody"], REFUSED, ["nobody"]),
    (["port", "del", "port0"], REFUSED, ["port0", "rx0"]),
    (["port", "show", "nobody"], REFUSED, ["nobody"]),
    # modules and their arguments
    (["module", "add"], USAGE, ["CLASS"]),
    (["module", "add", "Nothing"], REFUSED, ["Nothing"]),
    (["module", "add", "Sink", "sink"], REFUSED, ["sink"]),
    (["module", "add", "Mfib", "m", "--arg", "{"], USAGE, ["JSON"]),
    (["module", "add", "Mfib", "m", "--arg", "[]"], USAGE, ["JSON"]),
    (["module", "add", "Mfib", "m", "--arg", '{"frob": 1}'], USAGE, ["frob"]),
    (["module", "add", "Mfib", "m", "--arg", '{"af": "many"}'], USAGE, ["af"]),
    (["module", "add", "Mfib", "m", "--arg", json.dumps({"vrfname": "v" * 101, "af": 1})], REFUSED,
     ["Orp::String::bytes > maxLength() not allowed"]),
    (["module", "add", "PortInc", "p"], REFUSED, ["port"]),
    (["module", "add", "PortInc", "p", "--arg", '{"port": "nobody"}'], REFUSED, ["nobody"]),
    (["module", "add", "PortOut", "p", "--arg", '{"port": "nobody"}'], REFUSED, ["nobody"]),
    (["module", "add", "Source", "s"], REFUSED, ["packet"]),
    (["module", "del", "nobody"], REFUSED, ["nobody"]),
    (["module", "show", "nobody"], REFUSED, ["nobody"]),
    # commands of modules
    (["command", "mfib4"], USAGE, ["NAME"]),
    (["command", "nobody", "addMroute"], REFUSED, ["nobody"]),
    (["command", "mfib4", "frobnicate"], REFUSED, ["frobnicate", "addMroute"]),
    (["command", "mfib4", "addMroute", "nonsense"], USAGE, ["JSON"]),
    (["command", "mfib4", "setCacheExpiryTimer", '{"value": -1}'], USAGE, ["value"]),
    (["command", "mfib4", "setBridgeMacAddr", '{"mac": "AAAA"}'], REFUSED, ["Invalid MAC address size"]),
    # connections and hooks
    (["connect", "in"], USAGE, ["TO"]),
    (["connect", "in:x", "sink"], USAGE, ["gate 'x'"]),
    (["connect", "in:8192", "sink"], USAGE, ["8192"]),
    (["connect", "nobody", "sink"], REFUSED, ["nobody"]),
    (["connect", "in:1", "nobody"], REFUSED, ["nobody"]),
    (["connect", "in:0", "sink"], REFUSED, ["in"]),
    (["connect", "in:4095", "sink"], REFUSED, ["4095"]),
    (["connect", "sink", "in"], REFUSED, ["sink"]),
    (["disconnect", "in:2"], REFUSED, ["in"]),
    (["disconnect", "nobody"], REFUSED, ["nobody"]),
    (["hook", "add", "frob", "in", "out", "0"], USAGE, ["frob"]),
    (["hook", "add", "track", "in", "sideways", "0"], USAGE, ["sideways"]),
    (["hook", "add", "track", "in", "out", "9000"], USAGE, ["9000"]),
    (["hook", "add", "track", "in", "out", "2"], REFUSED, ["2"]),
    (["hook", "add", "track", "nobody", "out", "0"], REFUSED, ["nobody"]),
    (["hook", "add", "track", "in", "out", "0"], REFUSED, ["track"]),
    (["hook", "add", "pcap", "in", "out", "0"], REFUSED, ["file"]),
    (["hook", "add", "pcap", "in", "out", "0", "--file", "/dev/null/all.pcap"], REFUSED, ["/dev/null/all.pcap"]),
    (["hook", "del", "pcap", "in", "out", "0"], REFUSED, ["pcap"]),
    # plug-ins
    (["plugin", "load"], USAGE, ["PATH"]),
    (["plugin", "load", "/nowhere/libNothing.so"], REFUSED, ["/nowhere/libNothing.so"]),
    (["plugin", "load", "/bin/true"], REFUSED, ["/bin/true"]),
    (["plugin", "load", str(PLUGINS[0])], REFUSED, [PLUGINS[0].name]),
    (["plugin", "unload", "/nowhere/libNothing.so"], REFUSED, ["/nowhere/libNothing.so"]),
    (["plugin", "unload", str(PLUGINS[1])], REFUSED, ["Mfib"]),
    # interfaces
    (["intf", "add", "Ethernet2"], USAGE, ["--port"]),
    (["intf", "add", "Eth 2", "--port", "port1"], USAGE, ["Eth 2"]),
    (["intf", "add", "Ethernet2", "--port", "nobody"], REFUSED, ["nobody"]),
    (["intf", "add", "Ethernet2", "--port", "port1", "--vlan", "4095"], USAGE, ["4095"]),
    (["intf", "add", "Ethernet2", "--port", "port1", "--vlan", "0"], USAGE, ["--vlan"]),
    (["intf", "add", "Vlan7", "--port", "port1"], REFUSED, ["7"]),
    (["intf", "add", "Vlan7", "--port", "port1", "--vlan", "8"], REFUSED, ["7"]),
    (["intf", "add", "Ethernet2", "--port", "port1", "--mac", "02:00"], USAGE, ["02:00"]),
    (["intf", "add", "Ethernet2", "--port", "port1", "--mac", "01:00:5e:00:00:01"], REFUSED, ["mac", "unicast"]),
    (["intf", "add", "Ethernet1", "--port", "port1"], REFUSED, ["Ethernet1"]),
    (["intf", "add", "Ethernet2", "--port", "port0"], REFUSED, ["Ethernet1"]),
    (["intf", "del", "Ethernet9"], REFUSED, ["Ethernet9"]),
    (["intf", "del", "what"], USAGE, ["what"]),
    # routes
    (["mroute", "add"], USAGE, ["SOURCE"]),
    (ROUTE, USAGE, ["--iif"]),
    ([*ROUTE, "--iif", "nothing"], USAGE, ["--iif", "nothing"]),
    ([*ROUTE, *IIF, "--oif", "nothing"], USAGE, ["--oif", "nothing"]),
    ([*ROUTE, *IIF, "--oif", "Ethernet2:x"], USAGE, ["gate 'x'"]),
    ([*ROUTE, *IIF, "--oif", "Ethernet2:8192"], USAGE, ["8192"]),
    ([*ROUTE, *IIF, "--oif", "Ethernet2", "--oif", "Ethernet2"], USAGE, ["Ethernet2", "twice"]),
    ([*ROUTE, *IIF, "--iif-frr", "nothing"], USAGE, ["--iif-frr"]),
    ([*ROUTE, *IIF, "--notify", "nothing"], USAGE, ["--notify"]),
    ([*ROUTE, *IIF, "--fastdrop", "nothing"], USAGE, ["--fastdrop"]),
    ([*ROUTE, *IIF, "--module", "nobody"], REFUSED, ["nobody"]),
    ([*ROUTE, *IIF, "--module", "mfib6"], REFUSED, ["IPv6"]),
    ([*ROUTE, *IIF, "--module", "sink"], REFUSED, ["sink"]),
    ([*ROUTE, *IIF, "--vrf", "nobody"], REFUSED, ["nobody"]),
    ([*ROUTE, *IIF, "--vrf", "default", "--module", "mfib4"], USAGE, ["--vrf"]),
    (["mroute", "add", "10.0.0.256", "239.1.1.9", *IIF], USAGE, ["10.0.0.256"]),
    (["mroute", "add", "10.0.0.1", "10.1.1.1", *IIF], USAGE, ["10.1.1.1"]),
    (["mroute", "add", "10.0.0.1", "ff15::1", *IIF], USAGE, ["ff15::1"]),
    (["mroute", "add", "239.0.0.1", "239.1.1.9", *IIF], USAGE, ["239.0.0.1"]),
    (["mroute", "del", "10.0.0.1"], USAGE, ["GROUP"]),
    (["mroute", "del", "x", "239.1.1.9"], USAGE, ["x"]),
    (["mroute", "del", "10.0.0.1", "239.1.1.9", "--module", "nobody"], REFUSED, ["nobody"]),
    # what needs no daemon
    (["counters", "--af", "5"], USAGE, ["--af"]),
    (["counters", "--vrf"], USAGE, ["--vrf"]),
    (["monitor", "--namespace", "no-such-namespace", "--timeout", "1"], REFUSED, ["no-such-namespace"]),
    (["monitor", "--count", "0"], USAGE, ["--count"]),
    (["monitor", "--count", "x"], USAGE, ["--count"]),
    (["monitor", "--timeout", "x"], USAGE, ["--timeout"]),
    (["monitor", "--timeout", "0"], USAGE, ["--timeout"]),
    (["monitor", "--count", "1", "--timeout", "0.1"], REFUSED, ["0 of 1"]),
]


def is_clear(text):
    """Few lines, no inner workings of ours or of a library."""
    lines = text.strip().splitlines()
    return 1 <= len(lines) <= 4 and not re.search(r"terminate called|std::|\b0x[0-9a-f]{6,}|Check failed", text)


@pytest.mark.parametrize("argv, code, words", WRONG, ids=[" ".join(case[0])[:60] or "nothing" for case in WRONG])
def test_client_refuses(daemon, argv, code, words):
    result = daemon.attempt(*argv)
    assert result.returncode == code, result
    assert result.stdout == ""
    assert is_clear(result.stderr), result.stderr
    for word in words:
        assert word in result.stderr, result.stderr
    assert daemon.alive(), daemon.log_text()[-4000:]


def test_nothing_has_changed_by_refusals(daemon):
    before = state(daemon)
    for argv, code, _ in WRONG:
        if code == REFUSED and argv[0] != "monitor":
            daemon.attempt(*argv)
    assert state(daemon) == before


def test_repeated_removal_of_a_route_is_no_error(daemon):
    daemon.sfectl("mroute", "add", "10.0.0.7", "239.7.7.7", *IIF)
    for _ in range(2):
        daemon.sfectl("mroute", "del", "10.0.0.7", "239.7.7.7")


@pytest.mark.parametrize("target, words", [
    ("unix:/nowhere/bessd.sock", ["/nowhere/bessd.sock"]),
    ("127.0.0.1:1", ["127.0.0.1:1"]),
    ("not an address", ["not an address"]),
])
def test_client_says_where_no_daemon_answers(daemon, target, words):
    result = daemon.attempt("--socket", target, "version")
    assert result.returncode == REFUSED
    for word in words:
        assert word in result.stderr


def test_client_says_its_version_and_how_it_is_used():
    for option, word in (("--version", "sfectl"), ("--help", "mroute"), ("-h", "monitor")):
        result = subprocess.run([str(SFECTL), option], capture_output=True, text=True, timeout=30)
        assert (result.returncode, word in result.stdout, result.stderr) == (0, True, "")


DAEMON_WRONG = [
    (["--frobnicate"], USAGE, ["--frobnicate"]),
    (["extra"], USAGE, ["extra"]),
    (["--workers", "x"], USAGE, ["--workers"]),
    (["--workers", "0,0"], USAGE, ["twice"]),
    (["--memory", "1"], USAGE, ["--memory"]),
    (["--packets", "many"], USAGE, ["--packets"]),
    (["--data-room", "1"], USAGE, ["--data-room"]),
    (["--publish-period", "0"], USAGE, ["--publish-period"]),
    (["--log-level", "9"], USAGE, ["--log-level"]),
    (["--workers", "1000"], REFUSED, ["1000"]),
    (["--plugin", "/nowhere/libNothing.so"], REFUSED, ["/nowhere/libNothing.so"]),
    (["--listen", "nonsense"], USAGE, ["nonsense"]),
    (["--listen", "192.0.2.1:5000"], USAGE, ["192.0.2.1"]),
    (["--socket", "/dev/null/all.sock"], REFUSED, ["/dev/null"]),
    (["--eal", "--frobnicate"], REFUSED, ["--frobnicate"]),
]


@pytest.mark.parametrize("options, code, words", DAEMON_WRONG, ids=[" ".join(case[0]) for case in DAEMON_WRONG])
def test_daemon_refuses(run, options, code, words):
    socket = [] if "--socket" in options else ["--socket", f"{run.directory}/refused.sock"]
    memory = [] if "--memory" in options else ["--memory", "128"]
    result = subprocess.run([str(BESSD), *socket, *memory, *options], capture_output=True, text=True, timeout=60,
                            env={"SYSNAME": run.name})
    assert result.returncode == code, result
    for word in words:
        assert word in result.stderr, result.stderr
    assert "terminate called" not in result.stderr
