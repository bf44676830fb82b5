"""Routes with kernel senders and receivers: who gets what, how it looks on the wire, what is counted."""

import pytest

from testbed.capture import decodes_well, destination, frame_problems, is_to, raw_socket, write_pcap
from testbed.packets import frame, ip_packet
from testbed.router import BRIDGE_MAC
from testbed.run import wait_until
from testbed.traffic import TTL, send_paced

COUNT = 200
VERSIONS = [4, 6]


@pytest.mark.parametrize("version", VERSIONS)
def test_each_receiver_gets_each_packet_once(scope, run, version):
    flow = scope.flow(version)
    scope.add_route(flow)
    receivers = {host: scope.receiver(host, flow) for host in ("left", "right", "idle")}
    captures = {host: scope.capture(host) for host in receivers}
    send_paced([scope.sender("source", flow)], COUNT, 1000)
    for host in ("left", "right"):
        assert receivers[host].wait_for(flow.number, COUNT, timeout=10)
        assert receivers[host].problems(flow.number, COUNT, TTL - 1) == []
        assert captures[host].wait_for(is_to(flow.group), COUNT, timeout=10)
        frames = captures[host].frames(is_to(flow.group))
        assert frame_problems(frames, flow.group, BRIDGE_MAC, TTL - 1) == []
        path = run.directory / f"{host}{version}.pcap"
        write_pcap(path, frames)
        assert decodes_well(path) == (COUNT, COUNT)
    assert receivers["idle"].packets(flow.number) == []
    assert captures["idle"].frames(is_to(flow.group)) == []


@pytest.mark.parametrize("version", VERSIONS)
def test_counts_packets_and_bytes_of_route_and_interfaces(scope, version):
    flow = scope.flow(version)
    scope.add_route(flow)
    receiver = scope.receiver("left", flow)
    before = scope.router.counters(version)["interfaces"]
    scope.sender("source", flow).send(20)
    assert receiver.wait_for(flow.number, 20, timeout=10)
    size = len(frame(flow.source, flow.group, flow.number, 0))
    row = wait_until(lambda: (found := scope.route_counters(flow)) and found["packets"] == 20 and found, 5)
    assert row, scope.route_counters(flow)
    assert row["bytes"] == 20 * size
    assert row["wrong_if"] == row["dropped"] == row["queued"] == 0

    def grown(host, field):
        def value(rows):
            return next((r[field] for r in rows if r["intf"] == scope.router.interface(host)), 0)
        return value(scope.router.counters(version)["interfaces"]) - value(before)
    assert wait_until(lambda: grown("source", "rx_packets") == 20, 5)
    assert grown("source", "rx_bytes") == 20 * size
    for host in ("left", "right"):
        assert wait_until(lambda host=host: grown(host, "tx_packets") == 20, 5)
        assert grown(host, "tx_bytes") == 20 * size
    assert grown("idle", "tx_packets") == 0


@pytest.mark.parametrize("version", VERSIONS)
def test_forwards_ttl_two_and_drops_ttl_one(scope, version):
    dying, living = scope.flow(version), scope.flow(version)
    for flow in (dying, living):
        scope.add_route(flow)
    receiver = scope.receiver("left", dying, living)
    scope.sender("source", dying, ttl=1).send(5)
    scope.sender("source", living, ttl=2).send(5)
    assert receiver.wait_for(living.number, 5, timeout=10)
    assert receiver.problems(living.number, 5, 1) == []
    # The two flows took the same way in this order.
    assert receiver.packets(dying.number) == []


@pytest.mark.parametrize("version", VERSIONS)
def test_changed_route_leads_to_its_new_interfaces_only(scope, version):
    flow, last = scope.flow(version), scope.flow(version)
    scope.add_route(flow, oifs=["left"])
    scope.add_route(last)
    left, right = scope.receiver("left", flow, last), scope.receiver("right", flow, last)
    sender, marker = scope.sender("source", flow), scope.sender("source", last)
    sender.send(3)
    assert left.wait_for(flow.number, 3, timeout=10)
    scope.add_route(flow, oifs=["right"])
    sender.send(3)
    marker.send(1)
    for receiver in (left, right):
        assert receiver.wait_for(last.number, 1, timeout=10)
    assert [sequence for sequence, _ in left.packets(flow.number)] == [0, 1, 2]
    assert [sequence for sequence, _ in right.packets(flow.number)] == [3, 4, 5]


def test_never_forwards_link_local_groups(scope):
    flow = scope.flow(4)
    scope.add_route(flow)
    left = scope.capture("left")
    wire = raw_socket(scope.router.hosts["source"], "eth0")
    scope.keep(wire)
    wire.send(frame("10.1.0.2", "224.0.0.251", 0, 0))
    wire.send(frame("2001:db8:1::2", "ff02::fb", 0, 0))
    scope.sender("source", flow).send(1)
    assert left.wait_for(is_to(flow.group), 1, timeout=10)
    assert left.frames(lambda data: destination(data) in ("224.0.0.251", "ff02::fb")) == []


def cut_off(whole):
    return [whole[:length] for length in (14, 15, 20, 33, 34, 40, 53, 54, 60, len(whole) - 1)]


@pytest.mark.parametrize("version", VERSIONS)
def test_survives_frames_that_are_cut_off_or_lie(scope, version):
    flow, after = scope.flow(version), scope.flow(version)
    for each in (flow, after):
        scope.add_route(each)
    whole = frame(flow.source, flow.group, flow.number, 0)
    wire = scope.keep(raw_socket(scope.router.hosts["source"], "eth0"))
    lies = cut_off(whole)
    if version == 4:
        packet = ip_packet(flow.source, flow.group, flow.number, 0)
        for ihl, length in ((0, 92), (15, 92), (5, 0), (5, 65535), (5, 19)):
            packet.ihl, packet.len = ihl, length
            lies.append(whole[:14] + bytes(packet))
    else:
        lies += [whole[:18] + length.to_bytes(2, "big") + whole[20:] for length in (0, 1, 65535)]
    lies += [whole[:12] + b"\x81\x00\x00\x05" + whole[12:], whole[:12] + b"\x81\x00", whole[:12] + b"\xff\xff"]
    for lie in lies:
        wire.send(lie)
    receiver = scope.receiver("left", after)
    scope.sender("source", after).send(3)
    assert receiver.wait_for(after.number, 3, timeout=10)
    assert receiver.problems(after.number, 3, TTL - 1) == []
