"""Real UDP multicast senders and receivers: kernel sockets, opened inside a host's namespace."""

import select
import socket
import struct
import threading
import time
from collections import Counter

PORT = 5000
TTL = 16
PAYLOAD_BYTES = 64
_HEADER = struct.Struct("!4sII")  # mark, flow number, sequence number
_MARK = b"MCST"
# Linux numbers that Python does not name.
IP_RECVTTL = 12
SO_RCVBUFFORCE = 33


def payload(flow, sequence):
    return _HEADER.pack(_MARK, flow, sequence).ljust(PAYLOAD_BYTES, b".")


def read_payload(data):
    """(flow, sequence), or None for what no Sender sent."""
    if len(data) < _HEADER.size or not data.startswith(_MARK):
        return None
    _, flow, sequence = _HEADER.unpack_from(data)
    return flow, sequence


def family_of(address):
    return socket.AF_INET6 if ":" in address else socket.AF_INET


class Sender:
    """Sends numbered packets of one flow from one interface of a namespace."""

    def __init__(self, namespace, interface, source, group, flow, ttl=TTL, port=PORT):
        family = family_of(group)
        with namespace.entered():
            self.socket = socket.socket(family, socket.SOCK_DGRAM)
            index = socket.if_nametoindex(interface)
        if family == socket.AF_INET:
            self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, ttl)
            self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                                   struct.pack("=4s4si", bytes(4), bytes(4), index))
        else:
            self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, ttl)
            self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, index)
        self.socket.bind((source, 0))
        self.target = (group, port)
        self.flow = flow
        self.sent = 0

    def send(self, count=1):
        for _ in range(count):
            self.socket.sendto(payload(self.flow, self.sent), self.target)
            self.sent += 1

    def close(self):
        self.socket.close()


def send_paced(senders, count, packets_per_second):
    """`count` packets from each sender, in turn, at most this many in a second altogether."""
    start = time.monotonic()
    sent = 0
    for _ in range(count):
        for sender in senders:
            sender.send()
            sent += 1
        ahead = start + sent / packets_per_second - time.monotonic()
        if ahead > 0:
            time.sleep(ahead)


class Receiver:
    """Joins groups on one interface of a namespace and remembers every packet of a Sender that its socket got.

    A thread of its own reads the sockets; every question takes the same lock as the thread.
    """

    def __init__(self, namespace, interface, groups, port=PORT):
        self._condition = threading.Condition()
        self._packets = []  # (flow, sequence, ttl)
        self._stop_reader, self._stop_writer = socket.socketpair()
        self._sockets = []
        with namespace.entered():
            index = socket.if_nametoindex(interface)
            for family in sorted({family_of(group) for group in groups}):
                self._sockets.append(self._open(family, index, [g for g in groups if family_of(g) == family], port))
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    @staticmethod
    def _open(family, index, groups, port):
        sock = socket.socket(family, socket.SOCK_DGRAM)
        sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 16 << 20)  # nothing is lost for want of room
        if family == socket.AF_INET:
            sock.setsockopt(socket.IPPROTO_IP, IP_RECVTTL, 1)
            sock.bind(("", port))
            for group in groups:
                request = struct.pack("=4s4si", socket.inet_aton(group), bytes(4), index)
                sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, request)
        else:
            sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
            sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVHOPLIMIT, 1)
            sock.bind(("::", port))
            for group in groups:
                request = struct.pack("=16si", socket.inet_pton(family, group), index)
                sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, request)
        return sock

    def _run(self):
        while True:
            ready, _, _ = select.select([self._stop_reader, *self._sockets], [], [])
            for sock in ready:
                if sock is self._stop_reader:
                    return
                data, ancillary, _, _ = sock.recvmsg(2048, 64)
                numbers = read_payload(data)
                if numbers is None:
                    continue
                ttl = struct.unpack("=i", ancillary[0][2])[0] if ancillary else None
                with self._condition:
                    self._packets.append((*numbers, ttl))
                    self._condition.notify_all()

    def packets(self, flow):
        """(sequence, ttl) of every packet of the flow, in the order of arrival."""
        with self._condition:
            return [(sequence, ttl) for f, sequence, ttl in self._packets if f == flow]

    def wait_for(self, flow, count, timeout):
        """Waits until `count` packets of the flow are here. Returns whether they came in time."""
        def enough():
            return sum(1 for packet in self._packets if packet[0] == flow) >= count
        with self._condition:
            return self._condition.wait_for(enough, timeout)

    def problems(self, flow, count, ttl):
        """What is wrong with what arrived of a flow whose numbers 0 .. count-1 were sent; empty when nothing is."""
        packets = self.packets(flow)
        seen = Counter(sequence for sequence, _ in packets)
        found = []
        missing = [n for n in range(count) if n not in seen]
        twice = sorted(n for n, times in seen.items() if times > 1)
        strange = sorted(n for n in seen if n >= count)
        ttls = sorted({t for _, t in packets if t != ttl}, key=str)
        if missing:
            found.append(f"{len(missing)} lost, the first is number {missing[0]}")
        if twice:
            found.append(f"{len(twice)} more than once, the first is number {twice[0]}")
        if strange:
            found.append(f"{len(strange)} that were never sent")
        if ttls:
            found.append(f"TTL {ttls} instead of {ttl}")
        return found

    def close(self):
        self._stop_writer.send(b"x")
        self._thread.join()
        for sock in (*self._sockets, self._stop_reader, self._stop_writer):
            sock.close()
