"""`sfectl apply`, `save` and `import` with a real daemon, real ports and traffic."""

import itertools
import json
import struct
import threading

import pytest

from testbed.capture import Capture, group_mac, raw_socket
from testbed.daemon import Daemon
from testbed.namespaces import Network
from testbed.packets import frame, numbers
from testbed.run import BUILD, wait_until
from testbed.traffic import TTL, Receiver, Sender, send_paced

HOSTS = ["source", "left", "right"]
GROUP = "239.1.1.1"
SOURCE = "10.1.0.2"
SOURCE6 = "2001:db8:1::2"
_flows = itertools.count(5000)

BASE = """
bridge_mac: "02:00:00:00:5f:e0"
ports:
  p1: net_af_packet1,iface=veth1
  p2: net_af_packet2,iface=veth2
  p3: net_af_packet3,iface=veth3
interfaces:
  Ethernet1: p1
  Ethernet2: p2
  Ethernet3: p3
"""
ROUTES = f"""
routes:
  - {{source: {SOURCE}, group: {GROUP}, iif: Ethernet1, oifs: [Ethernet2, Ethernet3]}}
  - {{source: "{SOURCE6}", group: "ff15::1", iif: Ethernet1, oifs: [Ethernet2]}}
"""


class Site:
    """Three hosts around an empty daemon."""

    def __init__(self, run):
        self.directory = run.directory
        self.network = run.keep(Network(run.name))
        self.forwarder = self.network.namespace("fwd")
        self.forwarder.sysctl({"net/ipv6/conf/default/disable_ipv6": 1})
        self.hosts = {}
        for number, name in enumerate(HOSTS, 1):
            host = self.network.namespace(name)
            self.network.cable(host, "eth0", self.forwarder, f"veth{number}")
            host.address("eth0", f"10.{number}.0.2/24", f"2001:db8:{number}::2/64")
            self.hosts[name] = host
        self.daemon = run.keep(Daemon(run, self.forwarder,
                                      ["--publish-period", "200", "--plugin-dir", str(BUILD / "lib")]))

    def file(self, text):
        path = self.directory / "sfe.yaml"
        path.write_text(text)
        return path

    def apply(self, text, *options):
        return self.daemon.sfectl("apply", self.file(text), *options)

    def steps(self, text):
        return self.daemon.json("apply", self.file(text), "--dry-run")["steps"]

    def state(self):
        """Everything that is configured."""
        ports = [(row["name"], row["id"], row["devargs"]) for row in self.daemon.json("port", "show")]
        modules = [row["name"] for row in self.daemon.json("module", "show")]
        workers = [row["wid"] for row in self.daemon.json("worker", "show")]
        return [ports, modules, workers, self.tasks(), self.daemon.json("connections"),
                self.daemon.json("plugin", "show"), self.daemon.sfectl("save")]

    def tasks(self):
        return [(row["module"], row.get("wid"), row.get("rate")) for row in self.daemon.json("task", "show")]


@pytest.fixture(scope="module")
def site(run):
    return Site(run)


@pytest.fixture
def traffic(site):
    opened = []

    def flow(source="source", receivers=("left",), group=GROUP, address=SOURCE, interface="eth0"):
        number = next(_flows)
        sender = Sender(site.hosts[source], interface, address, group, number)
        opened.append(sender)
        ends = [Receiver(site.hosts[name], interface, [group]) for name in receivers]
        opened.extend(ends)
        return number, sender, ends
    yield flow
    for thing in reversed(opened):
        thing.close()
    assert site.daemon.alive(), site.daemon.log_text()[-4000:]


def warm(flow):
    """Sends until the receivers get packets."""
    number, sender, ends = flow

    def arrives():
        sender.send()
        return all(end.wait_for(number, 1, timeout=0.1) for end in ends)
    assert wait_until(arrives, 10)


def forwards(flow, count=20):
    warm(flow)
    number, sender, ends = flow
    first = sender.sent
    send_paced([sender], count, 500)
    expected = [(sequence, TTL - 1) for sequence in range(first, first + count)]
    for end in ends:
        assert wait_until(lambda e=end: [p for p in e.packets(number) if p[0] >= first] == expected, 10)


def test_dry_run_changes_nothing(site):
    before = site.state()
    text = site.apply(BASE + ROUTES, "--dry-run")
    lines = text.splitlines()
    assert "+ plug-in libMfib.so" in lines
    assert "+ port p1: net_af_packet1,iface=veth1" in lines
    assert f"+ route ({SOURCE},{GROUP}): of mfib4: iif Ethernet1, oifs Ethernet2 Ethernet3" in lines
    assert lines[-1] == f"{len(lines) - 1} steps to do"
    assert site.state() == before
    assert site.daemon.json("port", "show") == []


def test_apply_builds_a_router_that_forwards(site, traffic):
    last = site.apply(BASE + ROUTES).splitlines()[-1]
    assert last.endswith(" steps done")
    forwards(traffic(receivers=("left", "right")))
    forwards(traffic(group="ff15::1", address=SOURCE6))


def test_second_apply_has_nothing_to_do(site):
    site.apply(BASE + ROUTES)
    before = site.state()
    assert site.apply(BASE + ROUTES) == "nothing to change\n"
    assert site.steps(BASE + ROUTES) == []
    assert site.state() == before


def test_the_clean_up_task_runs_once_a_second(site):
    site.apply(BASE + ROUTES)
    rates = [rate for module, worker, rate in site.tasks() if module in ("mfib4", "mfib6") and rate]
    assert rates == [1, 1]
    assert all(worker == 0 for module, worker, rate in site.tasks())


def test_bad_file_touches_nothing(site):
    site.apply(BASE + ROUTES)
    before = site.state()
    path = site.file(BASE + "  Ethernet4: p9\nroutes: [{group: 10.0.0.1, iif: Ethernet1}]\nvrf: {}\n")
    result = site.daemon.attempt("apply", path)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr.splitlines() == [
        f"{path}:11:14: unknown port 'p9'; did you mean 'p1'?",
        f"{path}:12:18: group '10.0.0.1' is not multicast; expected an address of 224.0.0.0/4 or ff00::/8",
        f"{path}:13:1: unknown key 'vrf' in the file; did you mean 'vrfs'?",
        f"sfectl: 3 problems in {path}; nothing was changed",
    ]
    result = site.daemon.attempt("apply", site.directory / "absent.yaml")
    assert result.returncode == 1
    assert "absent.yaml: No such file" in result.stderr
    assert site.state() == before


def test_errors_are_told_to_programs_as_json(site):
    site.apply(BASE + ROUTES)
    before = site.state()
    path = str(site.file(BASE + "  Ethernet4: p9\nvrf: {}\n"))
    errors = [{"file": path, "line": 11, "column": 14, "message": "unknown port 'p9'; did you mean 'p1'?"},
              {"file": path, "line": 12, "column": 1,
               "message": "unknown key 'vrf' in the file; did you mean 'vrfs'?"}]
    result = site.daemon.attempt("apply", path, "--json")
    assert (result.returncode, json.loads(result.stdout)) == (1, {"applied": False, "errors": errors})
    assert result.stderr == f"sfectl: 2 problems in {path}; nothing was changed\n"
    result = site.daemon.attempt("apply", path, "--check", "--json")
    assert (result.returncode, json.loads(result.stdout)) == (1, {"file": path, "good": False, "errors": errors})
    absent = f"{path}.absent"
    result = site.daemon.attempt("apply", absent, "--json")
    assert (result.returncode, json.loads(result.stdout)["errors"]) == (1, [
        {"file": absent, "line": None, "column": None,
         "message": f"cannot read {absent}: No such file or directory"}])
    # What only the daemon knows.
    path = str(site.file(BASE.replace("iface=veth2", "iface=nowhere")))
    result = site.daemon.attempt("apply", path, "--json")
    answer = json.loads(result.stdout)
    assert (result.returncode, answer["applied"], len(answer["errors"])) == (1, False, 1)
    assert "nowhere" in answer["errors"][0]["message"]
    assert f"sfectl: {answer['errors'][0]['message']}\n" == result.stderr
    site.apply(BASE + ROUTES)
    assert site.state()[-1] == before[-1]


def test_queue_size_and_publication_period_are_kept(site):
    sized = BASE.replace("p2: net_af_packet2,iface=veth2",
                         "p2: {devargs: 'net_af_packet2,iface=veth2', queue_size: 512}") + ROUTES
    steps = site.steps(sized)
    assert any(step["kind"] == "port" and step["name"] == "p2" for step in steps), steps
    site.apply("publish_period: 150\n" + sized)
    assert site.steps("publish_period: 150\n" + sized) == []
    saved = site.daemon.sfectl("save")
    assert "publish_period: 150\n" in saved
    assert "queue_size: 512\n" in saved
    assert site.steps(saved) == []
    sizes = {row["name"]: row.get("queue_size") for row in site.daemon.json("port", "show")}
    assert sizes == {"p1": None, "p2": 512, "p3": None}
    assert site.apply("publish_period: 200\n" + BASE + ROUTES, "--dry-run").splitlines()[0] == \
        "~ publication period 200 ms: from 150 ms"
    site.apply("publish_period: 200\n" + sized.replace("512", "256"))
    assert {row["name"]: row.get("queue_size") for row in site.daemon.json("port", "show")}["p2"] == 256


def test_unchanged_routes_lose_nothing_while_everything_else_changes(site, traffic):
    site.apply(BASE + ROUTES)
    number, sender, (left, right) = traffic(receivers=("left", "right"))
    warm((number, sender, (left, right)))
    first = sender.sent
    stop = threading.Event()

    def send():
        while not stop.is_set():
            send_paced([sender], 20, 400)
    thread = threading.Thread(target=send)
    thread.start()
    try:
        many = "".join(f"  - {{group: 239.5.{n // 250}.{n % 250}, iif: Ethernet1, oifs: [Ethernet2]}}\n"
                       for n in range(500))
        other = BASE + "  Ethernet2.7: {port: p2, vrf: red}\nvrfs: {default: {cache_expiry: 3}, red: {}}\n"
        for text, kinds in ((BASE + ROUTES + many, {"route"}),
                            (BASE + ROUTES + many.replace("Ethernet2]", "Ethernet3]"), {"route"}),
                            (other + ROUTES, {"route", "module", "connection", "interface", "settings", "multicast",
                                              "task"}),
                            (BASE + ROUTES, {"module", "connection", "interface", "settings"})):
            assert {step["kind"] for step in site.steps(text)} == kinds
            assert not [step for step in site.steps(text) if f",{GROUP})" in step["name"]]
            site.apply(text)
            assert site.steps(text) == []
    finally:
        stop.set()
        thread.join()
    assert sender.sent > first + 100
    expected = [(sequence, TTL - 1) for sequence in range(first, sender.sent)]
    for receiver in (left, right):
        assert wait_until(lambda r=receiver: [p for p in r.packets(number) if p[0] >= first] == expected, 10)


def test_a_route_that_differs_is_replaced(site, traffic):
    site.apply(BASE + ROUTES)
    number, sender, (left, right) = traffic(receivers=("left", "right"))
    changed = BASE + ROUTES.replace("oifs: [Ethernet2, Ethernet3]", "oifs: [Ethernet3]")
    steps = site.steps(changed)
    assert [(step["action"], step["kind"], step["name"]) for step in steps] == [
        ("change", "route", f"({SOURCE},{GROUP})")]
    site.apply(changed)
    warm((number, sender, [right]))
    assert left.packets(number) == []


def test_routes_of_others_go_or_stay_as_the_file_says(site):
    site.apply(BASE + ROUTES)
    site.daemon.sfectl("mroute", "add", "10.1.0.9", "239.9.9.9", "--iif", "Ethernet1", "--oif", "Ethernet2")
    assert site.steps(BASE + ROUTES + "vrfs: {default: {exclusive_routes: false}}\n") == []
    assert [step["name"] for step in site.steps(BASE + ROUTES)] == ["(10.1.0.9,239.9.9.9)"]


def test_save_is_the_file_of_what_runs(site):
    site.apply(BASE + ROUTES)
    saved = site.daemon.sfectl("save")
    assert site.steps(saved) == []
    assert "p1: net_af_packet1,iface=veth1" in saved
    path = site.directory / "saved.yaml"
    assert site.daemon.sfectl("save", path) == ""
    assert path.read_text() == saved
    result = site.daemon.attempt("save", site.directory / "nowhere" / "x.yaml")
    assert result.returncode == 1
    assert "nowhere" in result.stderr


CHANGES = [
    ("mroute", "add", "10.1.0.7", "239.7.7.7", "--iif", "Ethernet1", "--oif", "Ethernet2", "--oif", "Ethernet9:2",
     "--to-cpu", "--notify", "Ethernet3"),
    ("mroute", "add", "*", "ff15::7", "--iif", "Ethernet1", "--register-out"),
    ("mroute", "del", SOURCE, GROUP),
    ("intf", "add", "Ethernet2.55", "--port", "p2", "--vlan", "55", "--mac", "02:00:00:00:00:55", "--mcast"),
    ("intf", "add", "Vlan56", "--port", "p3", "--vlan", "56"),
    ("intf", "del", "Ethernet3"),
    ("command", "mfib4", "setCacheExpiryTimer", '{"value": 77}'),
    ("command", "mfib6", "setMaxUnresolvedPktBuffers", '{"value": 0}'),
    ("command", "mfib6", "setBridgeMacAddr", '{"mac": "AgAAAAAH"}'),
    ("command", "mfib4", "addMulticastIntfs", '{"intf_ids": [288230376151711744]}'),
    ("worker", "add", "1"),
    ("task", "detach", "rx.p3"),
    ("port", "add", "spare", "net_null7"),
    ("module", "add", "Sink", "mine"),
]


def test_save_follows_single_commands(site, traffic):
    site.apply(BASE + ROUTES)
    for words in CHANGES:
        site.daemon.sfectl(*words)
        saved = site.daemon.sfectl("save")
        assert site.steps(saved) == [], (words, saved)
    # Back to the file, over everything that was done.
    site.apply("workers: 1\n" + BASE + ROUTES)
    assert site.steps("workers: 1\n" + BASE + ROUTES) == []
    assert "mine" in site.daemon.sfectl("module", "show")
    site.daemon.sfectl("module", "del", "mine")
    site.daemon.sfectl("port", "del", "spare")
    forwards(traffic(receivers=("left", "right")))


def test_a_failure_says_what_was_done_and_the_next_apply_continues(site, traffic):
    site.apply(BASE + ROUTES)
    # The port before the bad one, and nothing behind it, is made.
    more = BASE.replace("interfaces:", "  p4: net_null4\n  p5: net_af_packet5,iface=no-such-device\ninterfaces:")
    more += "  Ethernet4: p4\n  Ethernet5: p5\n"
    result = site.daemon.attempt("apply", site.file(more + ROUTES))
    assert (result.returncode, result.stdout) == (1, "")
    lines = result.stderr.splitlines()
    assert lines[0].startswith("sfectl: step 2 (+ port p5: net_af_packet5,iface=no-such-device) failed: ")
    assert lines[-1].startswith("1 of ")
    assert lines[-1].endswith("steps are done and stay; the same command continues from here")
    assert "p4" in site.daemon.sfectl("port", "show")
    forwards(traffic(receivers=("left", "right")))
    good = more.replace("net_af_packet5,iface=no-such-device", "net_null5")
    steps = site.steps(good + ROUTES)
    assert ("add", "port", "p4") not in {(step["action"], step["kind"], step["name"]) for step in steps}
    assert ("add", "port", "p5") in {(step["action"], step["kind"], step["name"]) for step in steps}
    site.apply(good + ROUTES)
    assert site.steps(good + ROUTES) == []
    site.apply(BASE + ROUTES)
    assert {row["name"] for row in site.daemon.json("port", "show")} == {"p1", "p2", "p3"}


def is_tagged(data):
    return data[:6] == group_mac(GROUP) and data[12:14] == b"\x81\x00"


def test_the_same_flow_in_two_vrfs_never_meets(site, traffic):
    text = BASE.split("interfaces:")[0] + """interfaces:
  Ethernet1.10: {port: p1, vrf: red}
  Ethernet2.10: {port: p2, vrf: red}
  Ethernet3.10: {port: p3, vrf: red}
  Ethernet1.20: {port: p1, vrf: blue}
  Ethernet2.20: {port: p2, vrf: blue}
  Ethernet3.20: {port: p3, vrf: blue}
vrfs: {red: , blue: {families: [ipv4]}}
routes:
  - {vrf: red, source: 10.99.0.2, group: 239.1.1.1, iif: Ethernet1.10, oifs: [Ethernet2.10]}
  - {vrf: blue, source: 10.99.0.2, group: 239.1.1.1, iif: Ethernet1.20, oifs: [Ethernet3.20]}
"""
    site.apply(text)
    assert site.steps(text) == []
    assert site.steps(site.daemon.sfectl("save")) == []
    captures = {name: Capture(site.hosts[name], "eth0") for name in ("left", "right")}
    sender = raw_socket(site.hosts["source"], "eth0")
    try:
        for flow, vlan in ((1, 10), (2, 20)):
            for number in range(10):
                data = frame("10.99.0.2", GROUP, flow, number)
                sender.send(data[:12] + struct.pack("!HH", 0x8100, vlan) + data[12:])
        for name, vlan, flow in (("left", 10, 1), ("right", 20, 2)):
            assert captures[name].wait_for(is_tagged, 10, timeout=10)
            got = captures[name].frames(is_tagged)
            assert {struct.unpack_from("!HH", data, 12) for data in got} == {(0x8100, vlan)}
            assert [numbers(data[:12] + data[16:]) for data in got] == [(flow, number) for number in range(10)]
    finally:
        sender.close()
        for capture in captures.values():
            capture.close()
    site.apply(BASE + ROUTES)
    assert site.steps(BASE + ROUTES) == []
    forwards(traffic(receivers=("left", "right")))


def test_imported_routes_forward(site, traffic):
    path = site.directory / "smcroute.conf"
    path.write_text("phyint veth1 enable\nmgroup from veth1 group 239.1.1.1\n"
                    f"mroute from veth1 source {SOURCE} group {GROUP} to veth2 veth3\n")
    result = site.daemon.attempt("import", path)
    assert result.returncode == 0
    assert f"{path}:2: warning: mgroup is not for us" in result.stderr
    site.apply(result.stdout)
    forwards(traffic(receivers=("left", "right")))
    path.write_text(f"mroute from veth1 group {GROUP}/24 to veth2\nmroute from veth2 group {GROUP} to veth1\n")
    result = site.daemon.attempt("import", path)
    assert (result.returncode, result.stdout) == (1, "")
    assert f"{path}:1: group '{GROUP}/24' is a range" in result.stderr
    result = site.daemon.attempt("import", "--skip", path)
    assert result.returncode == 0
    assert f"{path}:1: group" in result.stderr
    assert "routes:\n  - {group: 239.1.1.1, iif: " in result.stdout


def test_an_empty_configuration_takes_everything_away(site):
    site.apply(BASE + ROUTES)
    site.apply("{}")
    assert site.daemon.json("port", "show") == []
    assert site.steps("{}") == []
    assert wait_until(lambda: "mfib" not in site.daemon.sfectl("module", "show"), 1)
