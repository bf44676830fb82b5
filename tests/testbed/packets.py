"""Frames built by hand where no kernel would send them: for capture files, and for what goes wrong on purpose."""

import logging

logging.getLogger("scapy.runtime").setLevel(logging.ERROR)

from scapy.layers.inet import IP, UDP  # noqa: E402 (after its logger is quiet)
from scapy.layers.inet6 import IPv6, in6_chksum  # noqa: E402
from scapy.layers.l2 import Ether  # noqa: E402
from scapy.packet import Raw  # noqa: E402
from scapy.utils import checksum as scapy_checksum  # noqa: E402

from .capture import group_mac, mac_text  # noqa: E402
from .traffic import PORT, TTL, payload, read_payload  # noqa: E402

HOST_MAC = bytes.fromhex("02000000aa01")
PIM = 103
PIM_REGISTER = 0x21  # version 2, type 1
PIM_NULL_REGISTER = 0x40


def ip_packet(source, group, flow, sequence, ttl=TTL):
    """A UDP packet with a numbered payload, without an Ethernet header, as scapy layers."""
    network = IPv6(src=source, dst=group, hlim=ttl) if ":" in group else IP(src=source, dst=group, ttl=ttl)
    return network / UDP(sport=PORT, dport=PORT) / Raw(payload(flow, sequence))


def frame(source, group, flow, sequence, ttl=TTL):
    """The same as a whole frame, in bytes."""
    ethernet = Ether(src=mac_text(HOST_MAC), dst=mac_text(group_mac(group)))
    return bytes(ethernet / ip_packet(source, group, flow, sequence, ttl))


def register(mac, outer_source, outer_destination, inner, flags=0, kind=PIM_REGISTER):
    """A PIM Register message around an IP packet, as a whole frame; sent to the hardware address `mac`."""
    ethernet = Ether(src=mac_text(HOST_MAC), dst=mac)
    header = bytes([kind, 0, 0, 0, flags, 0, 0, 0])
    # The checksum of a Register covers the 8 bytes of the PIM header alone (RFC 7761 section 4.9).
    if ":" in outer_destination:
        network = IPv6(src=outer_source, dst=outer_destination, nh=PIM)
        checksum = in6_chksum(PIM, network, header)
    else:
        network = IP(src=outer_source, dst=outer_destination, proto=PIM)
        checksum = scapy_checksum(header)
    header = header[:2] + checksum.to_bytes(2, "big") + header[4:]
    return bytes(ethernet / network / Raw(header + bytes(inner)))


def numbers(data):
    """(flow, sequence) of a UDP frame made here or by a Sender; None for anything else."""
    layers = Ether(data)
    return read_payload(bytes(layers[UDP].payload)) if UDP in layers else None
