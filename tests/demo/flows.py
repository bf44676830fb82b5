"""The flows of the demo, and what their counters and their text in the state files must be."""

import ipaddress
from collections import Counter
from dataclasses import dataclass

IPV4 = 0  # which of two flows
PAYLOAD = 64
UDP_HEADER = 8
ETHERNET_HEADER = 14


@dataclass(frozen=True)
class Flow:
    number: int
    source: str
    group: str

    @property
    def version(self):
        return ipaddress.ip_address(self.group).version

    @property
    def frame_bytes(self):
        """Length of one of its packets as the forwarder counts it, Ethernet header included."""
        return ETHERNET_HEADER + (20 if self.version == 4 else 40) + UDP_HEADER + PAYLOAD


MAIN = (Flow(1, "10.1.0.2", "239.1.1.1"), Flow(2, "2001:db8:1::2", "ff15::1"))
FRESH = (Flow(3, "10.1.0.2", "239.1.1.2"), Flow(4, "2001:db8:1::2", "ff15::2"))


def route_row(counted, flow):
    """A route's counters; all zero when there is no such row."""
    for row in counted["routes"]:
        if row["src"] == flow.source and row["dst"] == flow.group:
            return row
    return dict.fromkeys(("packets", "bytes", "wrong_if", "queued", "dropped"), 0)


def intf_row(counted, name):
    for row in counted["interfaces"]:
        if row["intf"] == name:
            return row
    return dict.fromkeys(("rx_packets", "rx_bytes", "tx_packets", "tx_bytes", "queued", "dropped"), 0)


def _compare(label, row, wanted):
    return [f"{label}: {field} is {row[field]} instead of {value}" for field, value in wanted.items()
            if row[field] != value]


def counter_problems(counted, flow, fresh, packets, fresh_packets, stray_packets, oifs, fresh_iif="Ethernet1"):
    """What does not add up in the counters of one family after the whole play."""
    size = flow.frame_bytes
    arrived = Counter({"Ethernet1": packets})
    arrived[fresh_iif] += fresh_packets
    problems = _compare(f"route to {flow.group}", route_row(counted, flow), {
        "packets": packets + stray_packets, "bytes": (packets + stray_packets) * size,
        "wrong_if": 1, "dropped": stray_packets})
    problems += _compare(f"route to {fresh.group}", route_row(counted, fresh), {
        "packets": fresh_packets, "bytes": fresh_packets * size, "wrong_if": 0, "dropped": 0})
    for name, count in arrived.items():
        problems += _compare(name, intf_row(counted, name), {
            "rx_packets": count, "rx_bytes": count * size, "tx_packets": 0, "dropped": 0})
    problems += _compare("Ethernet2", intf_row(counted, "Ethernet2"), {
        "rx_packets": stray_packets, "rx_bytes": stray_packets * size, "tx_packets": 0, "dropped": stray_packets})
    for name in oifs:
        problems += _compare(name, intf_row(counted, name), {
            "tx_packets": packets + fresh_packets, "tx_bytes": (packets + fresh_packets) * size})
    problems += _compare("Ethernet6", intf_row(counted, "Ethernet6"), {"tx_packets": 0, "tx_bytes": 0})
    return problems


def dump_problems(text, flows, iif, oifs):
    """What is missing in a state file's text."""
    if text is None:
        return ["there is no such file"]
    problems = []
    for flow in flows:
        source, group = (ipaddress.ip_address(a).exploded for a in (flow.source, flow.group))
        block = "\n".join([f"Source: {source} Group: {group}", f"Iif: {iif}", "IifFrr: ", "Notify: ", "Fastdrop: ",
                           "ToCpu: 0", "IifRegister: 0", "OifRegister: 0", f"Oifs: {' '.join(oifs)}",
                           f"OifGates: {' '.join('1' for _ in oifs)}", ""])
        if block not in text:
            problems.append(f"no block of the route ({flow.source}, {flow.group})")
    if text.count("Source: ") != len(flows):
        problems.append(f"{text.count('Source: ')} routes instead of {len(flows)}")
    return problems
