"""Starting, removing, stopping, dying: what is there while it runs, and that nothing stays when it is gone."""

import os
import signal
import stat
import subprocess
from pathlib import Path

import pytest

from testbed.capture import Capture, is_to, raw_socket
from testbed.daemon import BESSD, PLUGINS, Daemon
from testbed.namespaces import Namespace
from testbed.packets import frame
from testbed.router import Graph, Router
from testbed.run import Run, wait_until
from testbed.traffic import TTL, Receiver, Sender

ROUTE_BLOCK = """Source: {source} Group: {group}
Iif: Ethernet1
IifFrr: {frr}
Notify: {notify}
Fastdrop: {fastdrop}
ToCpu: {cpu}
IifRegister: 0
OifRegister: 0
Oifs: {oifs}
OifGates: {gates}
"""


@pytest.fixture
def own_run():
    with Run("life") as made:
        yield made


@pytest.fixture
def daemon(own_run):
    network = Namespace(f"{own_run.name}-solo")
    own_run.keep(network)
    return own_run.keep(Daemon(own_run, network, options=["--publish-period", "100"]))


def shared_memory(run):
    return sorted(entry.name for entry in Path("/dev/shm").iterdir() if run.name in entry.name)


def build(daemon):
    """A graph without hosts."""
    graph = Graph(daemon)
    graph.build()
    graph.start_instance_tasks()
    return graph


def state_file(daemon, name, timeout=12):
    """The file's text, once the file system is mounted: that is 5 s after the first task registration."""
    return wait_until(lambda: daemon.state_file(name) is not None and [daemon.state_file(name)], timeout)[0]


def block(**values):
    return ROUTE_BLOCK.format(**{"frr": "", "notify": "", "fastdrop": "", "cpu": 0, "oifs": "", "gates": "", **values})


def test_state_files_show_the_routes_while_the_instance_lives(daemon):
    graph = build(daemon)
    assert state_file(daemon, "Mroute4_default") == ""
    graph.add_route("10.1.0.2", "239.1.1.1", "Ethernet1", ["Ethernet3", "Vlan100:7"])
    graph.add_route("2001:db8:1::2", "ff15::1", "Ethernet1", [], "--to-cpu", "--iif-frr", "Ethernet2",
                    "--notify", "Loopback0", "--fastdrop", "Tunnel5")
    assert daemon.state_file("Mroute4_default") == block(source="10.1.0.2", group="239.1.1.1",
                                                         oifs="Ethernet3 Vlan100", gates="1 7")
    assert daemon.state_file("Mroute6_default") == block(
        source="2001:0db8:0001:0000:0000:0000:0000:0002", group="ff15:0000:0000:0000:0000:0000:0000:0001",
        frr="Ethernet2", notify="Loopback0", fastdrop="Tunnel5", cpu=1)
    # An instance without routes shows nothing; an instance that is gone has no file.
    graph.add_route("*", "239.1.1.2", "Ethernet1", ["Ethernet3"])
    daemon.sfectl("mroute", "del", "10.1.0.2", "239.1.1.1")
    assert daemon.state_file("Mroute4_default") == block(source="0.0.0.0", group="239.1.1.2", oifs="Ethernet3",
                                                         gates="1")
    daemon.sfectl("module", "del", "mfib6")
    assert daemon.state_file("Mroute6_default") is None
    assert daemon.state_file("Mroute4_default") is not None


def test_removing_an_instance_leaves_its_shared_tables_empty(own_run, daemon):
    graph = build(daemon)
    graph.add_route("10.1.0.2", "239.1.1.1", "Ethernet1", ["Ethernet3"])
    assert wait_until(lambda: daemon.json("counters", "--af", "4")["routes"], 5)
    assert shared_memory(own_run)
    daemon.sfectl("module", "del", "mfib4")
    assert not any(daemon.json("counters", "--af", "4").values())
    assert daemon.stop() == 0
    assert shared_memory(own_run) == []


def test_plug_in_stays_while_it_is_used_and_can_come_back(daemon):
    graph = build(daemon)
    library = str(PLUGINS[1])
    refused = daemon.attempt("plugin", "unload", library)
    assert refused.returncode == 1
    assert "Mfib" in refused.stderr
    for module in graph.INSTANCES:
        daemon.sfectl("module", "del", module)
    for _ in range(2):
        daemon.sfectl("plugin", "unload", library)
        missing = daemon.attempt("module", "add", "Mfib", "again")
        assert missing.returncode == 1
        assert "Mfib" in missing.stderr
        daemon.sfectl("plugin", "load", library)
    daemon.sfectl("module", "add", "Mfib", "again", "--arg", '{"af": 1}')


def test_socket_is_its_owners_alone(daemon):
    mode = os.stat(daemon.socket.removeprefix("unix:")).st_mode
    assert stat.S_ISSOCK(mode)
    assert stat.S_IMODE(mode) & 0o077 == 0


def test_second_daemon_does_not_take_the_socket_of_the_first(daemon):
    result = subprocess.run([str(BESSD), "--socket", daemon.socket, "--memory", "128"], env=daemon.environment,
                            capture_output=True, text=True, timeout=60)
    assert result.returncode == 1
    assert daemon.socket.removeprefix("unix:") in result.stderr
    assert daemon.json("version")


def test_killed_daemon_is_followed_by_one_that_starts_clean(own_run, daemon):
    graph = build(daemon)
    graph.add_route("10.1.0.2", "239.1.1.1", "Ethernet1", ["Ethernet3"])
    assert wait_until(lambda: daemon.json("counters", "--af", "4")["routes"], 5)
    daemon.process.send_signal(signal.SIGKILL)
    daemon.process.wait(10)
    assert shared_memory(own_run) != []
    with Run("heir") as run:
        # The same socket and the same system name: what the dead one left is in the way of both.
        run.name, run.directory, own = own_run.name, own_run.directory, (run.name, run.directory)
        try:
            (own_run.directory / "root").rmdir()
            heir = Daemon(run, daemon.namespace, options=["--publish-period", "100"])
            try:
                build(heir)
                assert heir.json("counters", "--af", "4")["routes"] == []
                assert heir.stop() == 0
            finally:
                heir.close()
            assert shared_memory(own_run) == []
        finally:
            run.name, run.directory = own


def test_stops_in_the_middle_of_traffic(own_run):
    router = Router(own_run, ["source", "left"])
    for group in ("239.1.1.1", "ff15::1"):
        source = "10.1.0.2" if "." in group else "2001:db8:1::2"
        router.graph.add_route(source, group, "Ethernet1", ["Ethernet2"])
    router.daemon.sfectl("module", "add", "Source", "flood", "--arg",
                         '{"packet": "AQBeAQEBAgAAAKoBCAA=", "rate": 100000}')
    router.daemon.sfectl("module", "add", "Sink", "drain")
    router.daemon.sfectl("connect", "flood", "drain")
    router.daemon.sfectl("task", "attach", "flood", "--worker", 0)
    assert wait_until(lambda: router.daemon.json("stats")["workers"][0]["packets"] > 1000, 10)
    assert router.daemon.stop() == 0
    assert shared_memory(own_run) == []


def test_instance_of_a_vrf_reports_into_its_namespace(own_run):
    vrf = own_run.name
    own_run.keep(Namespace(f"ns-{vrf}"))
    router = Router(own_run, ["source", "left"])
    daemon, graph = router.daemon, router.graph
    # The VRF's instance takes the place of the default one behind the interfaces.
    daemon.sfectl("module", "del", "mfib4")
    graph.add_instance("mfib4", 1, {"vrfname": vrf, "vrfid": 7})
    daemon.sfectl("connect", "in:0", "mfib4")
    daemon.sfectl("connect", "mfib4:1", "out")
    daemon.sfectl("command", "mfib4", "addMulticastIntfs", f'{{"intf_ids": [{intf_id(daemon, "Ethernet1")}]}}')
    daemon.json("command", "mfib4", "regMfibTasks")
    monitor = own_run.keep(daemon.monitor("--namespace", f"ns-{vrf}"))
    elsewhere = own_run.keep(daemon.monitor())
    receiver = own_run.keep(Receiver(router.hosts["left"], "eth0", ["239.1.1.1", "239.1.1.2"]))
    unknown = own_run.keep(Sender(router.hosts["source"], "eth0", "10.1.0.2", "239.1.1.2", 1))
    unknown.send(1)
    assert len(monitor.wait_for(1, "nocache (10.1.0.2,239.1.1.2)")) == 1
    assert elsewhere.lines("nocache") == []
    daemon.sfectl("mroute", "add", "10.1.0.2", "239.1.1.1", "--iif", "Ethernet1", "--oif", "Ethernet2", "--vrf", vrf)
    known = own_run.keep(Sender(router.hosts["source"], "eth0", "10.1.0.2", "239.1.1.1", 2))
    known.send(3)
    assert receiver.wait_for(2, 3, timeout=10)
    assert receiver.problems(2, 3, TTL - 1) == []
    counted = wait_until(lambda: daemon.json("counters", "--vrf", vrf, "--af", "4")["routes"], 5)
    assert [row["dst"] for row in counted if row["dst"] == "239.1.1.1"] == ["239.1.1.1"]
    assert state_file(daemon, f"Mroute4_ns-{vrf}").startswith("Source: 10.1.0.2 Group: 239.1.1.1\n")


def intf_id(daemon, name):
    return next(row["id"] for row in daemon.json("intf", "show")["interfaces"] if row["intf"] == name)


def test_interface_of_a_vlan_is_tagged_on_the_wire(own_run):
    router = Router(own_run, ["source", "trunk"])
    daemon, graph = router.daemon, router.graph
    daemon.sfectl("intf", "add", "Vlan100", "--port", "port2", "--vlan", "100", "--mcast")
    graph.add_route("10.1.0.2", "239.1.1.1", "Ethernet1", ["Vlan100"])
    graph.add_route("10.1.0.2", "239.1.1.2", "Vlan100", ["Ethernet1"])
    seen = {host: own_run.keep(Capture(router.hosts[host], "eth0")) for host in router.hosts}
    wires = {host: own_run.keep(raw_socket(router.hosts[host], "eth0")) for host in router.hosts}
    wires["source"].send(frame("10.1.0.2", "239.1.1.1", 1, 0))

    tag = b"\x81\x00\x00\x64"
    assert seen["trunk"].wait_for(lambda data: is_to("239.1.1.1")(data[:12] + data[16:]), 1, timeout=10)
    (tagged,) = seen["trunk"].frames(lambda data: is_to("239.1.1.1")(data[:12] + data[16:]))
    assert tagged[12:16] == tag
    inside = frame("10.1.0.2", "239.1.1.2", 2, 0)
    wires["trunk"].send(inside[:12] + tag + inside[12:])
    assert seen["source"].wait_for(is_to("239.1.1.2"), 1, timeout=10)
    # Another VLAN of the port is nobody's.
    wires["trunk"].send(inside[:12] + b"\x81\x00\x00\x65" + inside[12:])
    wires["trunk"].send(inside[:12] + tag + inside[12:])
    assert seen["source"].wait_for(is_to("239.1.1.2"), 2, timeout=10)
    assert len(seen["source"].frames(is_to("239.1.1.2"))) == 2
