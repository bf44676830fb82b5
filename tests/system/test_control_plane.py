"""What the control plane hears, and what it can do about it: new flows, wrong interfaces, registers, (*,G) routes."""

import time

import pytest

from testbed.capture import frame_problems, is_to, raw_socket
from testbed.packets import PIM_NULL_REGISTER, ip_packet, register
from testbed.router import BRIDGE_MAC
from testbed.run import wait_until
from testbed.traffic import TTL, Receiver, Sender

VERSIONS = [4, 6]
HELD = 8


@pytest.fixture(scope="module", autouse=True)
def room_for_held_packets(router):
    for module in router.graph.INSTANCES:
        router.graph.set_size(module, "setMaxUnresolvedPktBuffers", HELD)


@pytest.mark.parametrize("version", VERSIONS)
def test_first_packets_of_a_flow_wait_for_their_route(scope, version):
    flow = scope.flow(version)
    monitor = scope.monitor()
    receivers = [scope.receiver(host, flow) for host in ("left", "right")]
    scope.sender("source", flow).send(HELD)
    lines = monitor.wait_for(HELD, *scope.event("nocache", flow))
    assert len(lines) == HELD
    assert all(scope.router.interface("source") in line for line in lines)
    time.sleep(0.2)  # the control plane takes its time
    assert receivers[0].packets(flow.number) == []
    scope.add_route(flow)
    for receiver in receivers:
        assert receiver.wait_for(flow.number, HELD, timeout=10)
    # Once the cache is empty nothing more can come.
    assert wait_until(lambda: (row := scope.route_counters(flow)) and (row["packets"], row["queued"]) == (HELD, 0), 10)
    for receiver in receivers:
        assert receiver.problems(flow.number, HELD, TTL - 1) == []


def test_holds_no_more_packets_than_it_was_told(scope):
    flow = scope.flow(4)
    monitor = scope.monitor()
    receiver = scope.receiver("left", flow)
    scope.sender("source", flow).send(HELD + 5)
    monitor.wait_for(HELD, *scope.event("nocache", flow))
    scope.add_route(flow)
    assert receiver.wait_for(flow.number, HELD, timeout=10)
    assert wait_until(lambda: (row := scope.route_counters(flow)) and (row["packets"], row["queued"]) == (HELD, 0), 10)
    assert receiver.problems(flow.number, HELD, TTL - 1) == []
    assert len(monitor.lines(*scope.event("nocache", flow))) == HELD


def test_forgets_packets_whose_route_does_not_come(scope):
    flow = scope.flow(4)
    monitor = scope.monitor()
    receiver = scope.receiver("left", flow)
    scope.router.graph.set_size("mfib4", "setCacheExpiryTimer", 2)
    try:
        sender = scope.sender("source", flow)
        sender.send(3)
        assert len(monitor.wait_for(3, *scope.event("nocache", flow))) == 3
        assert wait_until(lambda: (row := scope.route_counters(flow)) and row["queued"] == 3, 5)
        # With the last of them the route's counters go as well.
        assert wait_until(lambda: (row := scope.route_counters(flow)) is None or row["queued"] == 0, 10)
        scope.add_route(flow)
        sender.send(2)
        assert receiver.wait_for(flow.number, 2, timeout=10)
        assert [sequence for sequence, _ in receiver.packets(flow.number)] == [3, 4]
    finally:
        scope.router.graph.set_size("mfib4", "setCacheExpiryTimer", 10)


@pytest.mark.parametrize("version", VERSIONS)
def test_wrong_interface_is_reported_once_and_not_forwarded(scope, version):
    flow, last = scope.flow(version), scope.flow(version)
    scope.add_route(flow)
    scope.add_route(last, iif="stray")
    monitor = scope.monitor()
    receiver = scope.receiver("left", flow, last)
    scope.sender("stray", flow).send(20)
    scope.sender("stray", last).send(1)
    assert receiver.wait_for(last.number, 1, timeout=10)
    assert receiver.packets(flow.number) == []
    assert wait_until(lambda: (row := scope.route_counters(flow)) and row["dropped"] == 20, 10)
    assert scope.route_counters(flow)["wrong_if"] == 1
    lines = monitor.wait_for(1, *scope.event("wrongvif", flow))
    assert len(lines) == 1
    assert scope.router.interface("stray") in lines[0]


@pytest.mark.parametrize("version", VERSIONS)
def test_route_of_any_source_serves_until_there_is_a_better_one(scope, version):
    flow = scope.flow(version)
    scope.add_route(flow, source="*", oifs=["left"])
    monitor = scope.monitor()
    left, right = scope.receiver("left", flow), scope.receiver("right", flow)
    sender = scope.sender("source", flow)
    sender.send(4)
    assert left.wait_for(flow.number, 4, timeout=10)
    # The control plane hears of the source, at most once in the suppression time.
    assert len(monitor.wait_for(1, *scope.event("nocache", flow))) == 1
    scope.add_route(flow, oifs=["right"])
    sender.send(4)
    assert right.wait_for(flow.number, 4, timeout=10)
    assert [sequence for sequence, _ in right.packets(flow.number)] == [4, 5, 6, 7]
    assert left.problems(flow.number, 4, TTL - 1) == []
    scope.daemon.sfectl("mroute", "del", flow.source, flow.group)
    sender.send(1)
    assert left.wait_for(flow.number, 5, timeout=10)


def outer_header(scope, version):
    """A Register message is unicast: to the hardware address of the interface and to an address of the router."""
    interfaces = scope.daemon.json("intf", "show")["interfaces"]
    mac = next(row["mac"] for row in interfaces if row["intf"] == scope.router.interface("source"))
    return (mac, "10.1.0.2", "10.9.0.1") if version == 4 else (mac, "2001:db8:1::2", "2001:db8:9::1")


@pytest.mark.parametrize("version", VERSIONS)
def test_packet_of_a_register_message_is_forwarded_without_it(scope, version):
    flow, last = scope.flow(version), scope.flow(version)
    for each in (flow, last):
        scope.add_route(each, options=["--register-in"])
    capture = scope.capture("left")
    receiver = scope.receiver("left", flow, last)
    wire = scope.keep(raw_socket(scope.router.hosts["source"], "eth0"))
    outer = outer_header(scope, version)
    null = ip_packet(flow.source, flow.group, flow.number, 99)
    wire.send(register(*outer, null, flags=PIM_NULL_REGISTER))
    wire.send(register(*outer, null, kind=0x22))  # a Register-Stop, not a Register
    for sequence in range(5):
        wire.send(register(*outer, ip_packet(flow.source, flow.group, flow.number, sequence)))
    wire.send(register(*outer, ip_packet(last.source, last.group, last.number, 0)))
    assert receiver.wait_for(last.number, 1, timeout=10)
    # An IPv6 packet keeps its own hop limit less one; so does an IPv4 packet with its TTL.
    assert receiver.problems(flow.number, 5, TTL - 1) == []
    assert frame_problems(capture.frames(is_to(flow.group)), flow.group, BRIDGE_MAC, TTL - 1) == []


@pytest.mark.parametrize("version", VERSIONS)
def test_register_for_a_native_route_is_dropped(scope, version):
    flow, last = scope.flow(version), scope.flow(version)
    scope.add_route(flow)
    scope.add_route(last, options=["--register-in"])
    receiver = scope.receiver("left", flow, last)
    wire = scope.keep(raw_socket(scope.router.hosts["source"], "eth0"))
    outer = outer_header(scope, version)
    for each in (flow, last):
        wire.send(register(*outer, ip_packet(each.source, each.group, each.number, 0)))
    assert receiver.wait_for(last.number, 1, timeout=10)
    assert receiver.packets(flow.number) == []
    assert wait_until(lambda: (row := scope.route_counters(flow)) and row["dropped"] == 1, 10)


@pytest.mark.parametrize("version", VERSIONS)
def test_whole_packets_are_reported_with_their_length(scope, version):
    flow = scope.flow(version)
    scope.add_route(flow, options=["--register-out"])
    monitor = scope.monitor()
    receiver = scope.receiver("left", flow)
    scope.sender("source", flow).send(5)
    assert receiver.wait_for(flow.number, 5, timeout=10)
    lines = monitor.wait_for(5, *scope.event("wholepkt", flow))
    length = len(bytes(ip_packet(flow.source, flow.group, flow.number, 0)))
    assert len(lines) == 5
    assert all(line.endswith(f"Length: {length}") for line in lines), lines


def test_traffic_on_an_interface_without_multicast_is_counted_and_dropped(scope):
    flow = scope.flow(4)
    daemon, router = scope.daemon, scope.router
    scope.add_route(flow, iif="idle")
    intf = router.interface("idle")
    intf_id = next(row["id"] for row in daemon.json("intf", "show")["interfaces"] if row["intf"] == intf)
    daemon.sfectl("command", "mfib4", "deleteMulticastIntfs", f'{{"intf_ids": [{intf_id}]}}')
    try:
        receiver = scope.receiver("left", flow)
        router.hosts["idle"].address("eth0", f"{flow.source}/32")
        sender = scope.keep(Sender(router.hosts["idle"], "eth0", flow.source, flow.group, flow.number))

        def dropped():
            return sum(row["value"] for row in daemon.json("stats")["counters"]
                       if row["name"] == "mfib4.nonMcastIIFMessagesCounter_")
        before = dropped()
        sender.send(4)
        assert wait_until(lambda: dropped() - before == 4, 10)
        assert receiver.packets(flow.number) == []
    finally:
        daemon.sfectl("command", "mfib4", "addMulticastIntfs", f'{{"intf_ids": [{intf_id}]}}')
    sender.send(1)
    assert receiver.wait_for(flow.number, 1, timeout=10)


def test_two_receivers_on_one_host_share_the_wire(scope):
    first, second = scope.flow(4), scope.flow(4)
    for flow in (first, second):
        scope.add_route(flow, oifs=["left"])
    both = scope.keep(Receiver(scope.router.hosts["left"], "eth0", [first.group, second.group]))
    for flow in (first, second):
        scope.sender("source", flow).send(10)
    for flow in (first, second):
        assert both.wait_for(flow.number, 10, timeout=10)
        assert both.problems(flow.number, 10, TTL - 1) == []
