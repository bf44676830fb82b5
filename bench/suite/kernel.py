"""Loss-free rate between hosts: the kernel's multicast routing and this daemon on the same cables.

A source and its receivers are network namespaces, each with a veth pair to the forwarder. What arrived is what the
receivers' interfaces counted. A rate counts as loss-free when at most one packet of a thousand is missing.
"""

import json
import socket
import struct
import subprocess

from testbed.namespaces import Network
from testbed.router import Router
from testbed.run import BUILD, Run, wait_until

from .marks import Failed, row

GROUP = "239.3.0.1"
SOURCE = "10.1.0.2"
PAYLOAD = 22  # 64 bytes with UDP, IPv4 and Ethernet headers
MOST_LOSS = 0.001
STEPS = 6
# linux/mroute.h
MRT_INIT, MRT_ADD_VIF, MRT_ADD_MFC = 200, 202, 204
VIFF_USE_IFINDEX = 8
MAXVIFS = 32


class KernelRouter:
    """The same hosts and cables as testbed's Router, with the kernel between them."""

    def __init__(self, run, hosts):
        self.network = run.keep(Network(run.name))
        self.forwarder = self.network.namespace("fwd")
        self.forwarder.sysctl({"net/ipv4/ip_forward": 1})
        self.hosts = {}
        for number, name in enumerate(hosts, 1):
            host = self.network.namespace(name)
            self.network.cable(host, "eth0", self.forwarder, f"veth{number}")
            host.address("eth0", f"10.{number}.0.2/24")
            self.forwarder.address(f"veth{number}", f"10.{number}.0.1/24")
            self.hosts[name] = host
        with self.forwarder.entered():
            self.socket = run.keep(socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_IGMP))
            self.socket.setsockopt(socket.IPPROTO_IP, MRT_INIT, 1)
            for vif in range(len(hosts)):
                index = socket.if_nametoindex(f"veth{vif + 1}")
                # struct vifctl: vif, flags, threshold, rate limit, interface, remote address
                self.socket.setsockopt(socket.IPPROTO_IP, MRT_ADD_VIF,
                                       struct.pack("=HBBIi4s", vif, VIFF_USE_IFINDEX, 1, 0, index, bytes(4)))

    def route_to(self, receivers):
        # struct mfcctl: origin, group, parent, TTL thresholds by vif, four counters and times
        thresholds = bytes(1 if 1 <= vif <= receivers else 0 for vif in range(MAXVIFS))
        self.socket.setsockopt(socket.IPPROTO_IP, MRT_ADD_MFC,
                               struct.pack("=4s4sH32s2xIIIi", socket.inet_aton(SOURCE), socket.inet_aton(GROUP), 0,
                                           thresholds, 0, 0, 0, 0))


class DaemonRouter(Router):
    def route_to(self, receivers):
        names = list(self.hosts)
        self.graph.add_route(SOURCE, GROUP, self.interface(names[0]),
                             [self.interface(name) for name in names[1:receivers + 1]])


class Measurement:
    def __init__(self, router, receivers, seconds):
        self.hosts = list(router.hosts.values())
        self.receivers = self.hosts[1:receivers + 1]
        self.seconds = seconds
        router.route_to(receivers)

    @staticmethod
    def _packets(host):
        """What the interface of a host has received; its line in /proc/net/dev."""
        with host.entered(), open("/proc/thread-self/net/dev", encoding="ascii") as lines:
            return next(int(line.split(":")[1].split()[1]) for line in lines if line.strip().startswith("eth0:"))

    def attempt(self, rate):
        """(packets sent in a second, the share of them that one of the receivers missed)."""
        before = [self._packets(host) for host in self.receivers]
        sender = self.hosts[0].command(str(BUILD / "bin" / "mcast_send"), "eth0", GROUP, str(PAYLOAD), str(rate),
                                       str(self.seconds))
        result = subprocess.run(sender, capture_output=True, text=True)
        if result.returncode != 0:
            raise Failed(result.stderr.strip())
        sent = json.loads(result.stdout)

        def fewest():
            return min(self._packets(host) - start for host, start in zip(self.receivers, before))
        last = -1
        while (now := fewest()) < sent["sent"] and now != last:  # what is on its way still comes
            last = now
            wait_until(lambda: fewest() > last, 0.05, pause=0.01)
        return sent["sent"] / sent["seconds"], 1 - now / sent["sent"]

    def loss_free(self):
        """The highest rate that was sent without loss, in packets per second."""
        best, loss = self.attempt(0)
        if loss <= MOST_LOSS:
            return best
        low, high, best = 0, best, 0
        for _ in range(STEPS):
            rate = (low + high) / 2
            reached, loss = self.attempt(rate)
            if loss <= MOST_LOSS:
                low = rate
                best = max(best, reached)
            else:
                high = rate
        return best


def _measure(make, receivers, runs, seconds):
    rates = {}
    hosts = ["source", *(f"r{number}" for number in range(1, max(receivers) + 1))]
    with Run("bench") as run:
        router = make(run, hosts)
        for count in receivers:
            measurement = Measurement(router, count, seconds)
            measurement.attempt(1000)  # warm
            rates[count] = [measurement.loss_free() for _ in range(runs)]
    return rates


def measure(options):
    receivers, runs, seconds = ([1], 1, 0.02) if options.short else ([1, 4, 16], 5, 0.1)
    kernel = _measure(KernelRouter, receivers, runs, seconds)
    daemon = _measure(DaemonRouter, receivers, runs, seconds)
    rows = []
    for count in receivers:
        plural = "receiver" if count == 1 else "receivers"
        ours = row(f"this daemon, 64 B to {count} {plural}, loss-free", "packets/s", daemon[count], group="kernel",
                   receivers=count)
        theirs = row(f"kernel routing, 64 B to {count} {plural}, loss-free", "packets/s", kernel[count],
                     group="kernel", receivers=count)
        ours["ratio"] = ours["median"] / theirs["median"] if theirs["median"] else 0
        ours["floor"] = theirs["median"]
        rows += [theirs, ours]
    return rows
