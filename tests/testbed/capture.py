"""Sees every frame on an interface, writes capture files, and asks an independent decoder about them."""

import ipaddress
import select
import socket
import struct
import subprocess
import threading
import time

from .traffic import PORT, SO_RCVBUFFORCE

ETH_P_ALL = 3
PACKET_OUTGOING = 4
SOL_PACKET = 263
PACKET_AUXDATA = 8
TP_STATUS_VLAN_VALID = 0x10
ETHERTYPE_IPV4 = 0x0800
ETHERTYPE_IPV6 = 0x86DD
ETHERTYPE_VLAN = 0x8100


def _with_tag(frame, ancillary):
    """The frame as on the wire: the kernel takes a VLAN tag off and tells of it beside the frame."""
    for level, kind, data in ancillary:
        if (level, kind) == (SOL_PACKET, PACKET_AUXDATA):
            status, _, _, _, _, tci, _ = struct.unpack("=IIIHHHH", data[:20])
            if status & TP_STATUS_VLAN_VALID:
                return frame[:12] + struct.pack("!HH", ETHERTYPE_VLAN, tci) + frame[12:]
    return frame


class Capture:
    """Collects the frames that arrive on one interface of a namespace (incoming only), from now until close()."""

    def __init__(self, namespace, interface, outgoing=False):
        self._condition = threading.Condition()
        self._frames = []  # (time, bytes)
        self._outgoing = outgoing
        self._stop_reader, self._stop_writer = socket.socketpair()
        with namespace.entered():
            self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
            self._socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
            self._socket.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
            self._socket.bind((interface, ETH_P_ALL))
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while True:
            ready, _, _ = select.select([self._stop_reader, self._socket], [], [])
            if self._stop_reader in ready:
                return
            try:
                frame, ancillary, _, address = self._socket.recvmsg(65536, 256)
            except OSError:  # the interface is gone; what came before it went stays
                return
            if (address[2] == PACKET_OUTGOING) != self._outgoing:
                continue
            frame = _with_tag(frame, ancillary)
            with self._condition:
                self._frames.append((time.time(), frame))
                self._condition.notify_all()

    def frames(self, predicate=lambda frame: True):
        with self._condition:
            return [frame for _, frame in self._frames if predicate(frame)]

    def wait_for(self, predicate, count, timeout):
        """Waits until `count` frames satisfy the predicate. Returns whether they came in time."""
        with self._condition:
            return self._condition.wait_for(
                lambda: sum(1 for _, frame in self._frames if predicate(frame)) >= count, timeout)

    def close(self):
        self._stop_writer.send(b"x")
        self._thread.join()
        for sock in (self._socket, self._stop_reader, self._stop_writer):
            sock.close()


def raw_socket(namespace, interface):
    """A socket that puts whole frames on an interface: send(bytes)."""
    with namespace.entered():
        sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        sock.bind((interface, 0))
    return sock


def ethertype(frame):
    kind = struct.unpack_from("!H", frame, 12)[0] if len(frame) >= 14 else 0
    return struct.unpack_from("!H", frame, 16)[0] if kind == ETHERTYPE_VLAN and len(frame) >= 18 else kind


def destination(frame):
    """The IP destination as text; None for a frame without one. An untagged frame is expected."""
    if ethertype(frame) == ETHERTYPE_IPV4 and len(frame) >= 34:
        return str(ipaddress.IPv4Address(frame[30:34]))
    if ethertype(frame) == ETHERTYPE_IPV6 and len(frame) >= 54:
        return str(ipaddress.IPv6Address(frame[38:54]))
    return None


def is_to(group):
    wanted = str(ipaddress.ip_address(group))
    return lambda frame: destination(frame) == wanted


def group_mac(group):
    """RFC 1112 section 6.4, RFC 2464 section 7."""
    address = ipaddress.ip_address(group)
    if address.version == 4:
        low = int(address) & 0x7FFFFF
        return bytes([0x01, 0x00, 0x5E, low >> 16, low >> 8 & 0xFF, low & 0xFF])
    return b"\x33\x33" + address.packed[12:]


def mac_text(mac):
    return ":".join(f"{byte:02x}" for byte in mac)


def frame_problems(frames, group, bridge_mac, ttl):
    """What is wrong with forwarded frames of a group: addresses of the Ethernet header and TTL."""
    found = set()
    offset = 22 if ipaddress.ip_address(group).version == 4 else 21
    for frame in frames:
        if frame[0:6] != group_mac(group):
            found.add(f"destination {mac_text(frame[0:6])} instead of {mac_text(group_mac(group))}")
        if frame[6:12] != bridge_mac:
            found.add(f"source {mac_text(frame[6:12])} instead of {mac_text(bridge_mac)}")
        if frame[offset] != ttl:
            found.add(f"TTL {frame[offset]} instead of {ttl}")
    return sorted(found)


def write_pcap(path, frames):
    """Frames, as bytes, in the classic format with microseconds, link type Ethernet."""
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for number, frame in enumerate(frames):
            out.write(struct.pack("<IIII", 1, number % 1000000, len(frame), len(frame)) + frame)


def read_pcap(path):
    with open(path, "rb") as source:
        data = source.read()
    if len(data) < 24:
        return []
    order = "<" if data[:4] in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
    frames, at = [], 24
    while at + 16 <= len(data):
        length = struct.unpack_from(order + "I", data, at + 8)[0]
        frames.append(data[at + 16:at + 16 + length])
        at += 16 + length
    return frames


# "Good" is what the decoder says of a checksum that it has computed again. IPv6 has none of its own.
_GOOD = ('!_ws.malformed && !(_ws.expert.severity >= "Error") && udp.checksum.status == "Good"'
         ' && (ip.checksum.status == "Good" || ipv6)')


def decodes_well(path):
    """(frames that an independent decoder takes without complaint, frames in the file); checksums are computed."""
    base = ["tshark", "-n", "-r", str(path), "-o", "ip.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE",
            "-d", f"udp.port=={PORT},data", "-T", "fields", "-e", "frame.number"]
    total = subprocess.run(base, check=True, capture_output=True, text=True).stdout.split()
    good = subprocess.run([*base, "-Y", _GOOD], check=True, capture_output=True, text=True).stdout.split()
    return len(good), len(total)
