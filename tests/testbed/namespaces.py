"""Network namespaces as hosts, veth pairs as cables. Needs root; everything made here is removed again by close().

A socket belongs to the namespace in which it was opened, for good. So hosts need no processes of their own: this
process enters a namespace, opens a socket and comes back.
"""

import contextlib
import ctypes
import os
import subprocess
from pathlib import Path

CLONE_NEWNET = 0x40000000
NAMESPACE_DIR = Path("/run/netns")
_libc = ctypes.CDLL(None, use_errno=True)


def _setns(fd):
    if _libc.setns(fd, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def available():
    """Whether this process may make network namespaces; if not, why."""
    if os.geteuid() != 0:
        return False, "not root"
    result = subprocess.run(["unshare", "--net", "--mount", "true"], capture_output=True, text=True)
    return result.returncode == 0, result.stderr.strip()


def ip(*args):
    subprocess.run(["ip", *args], check=True, capture_output=True, text=True)


class Namespace:
    """One network namespace with a name in /run/netns."""

    def __init__(self, name):
        self.name = name
        self.extra = set()  # addresses that a test has added
        self.fd = -1
        try:
            self._make()
        except BaseException:  # Ctrl-C among them: nobody else knows of the namespace yet
            self.close()
            raise

    def _make(self):
        ip("netns", "add", self.name)
        self.fd = os.open(NAMESPACE_DIR / self.name, os.O_RDONLY | os.O_CLOEXEC)
        self.sysctl({"net/ipv4/conf/all/rp_filter": 0, "net/ipv4/conf/default/rp_filter": 0,
                     "net/ipv6/conf/default/accept_dad": 0, "net/ipv6/conf/default/dad_transmits": 0,
                     "net/ipv6/conf/default/accept_ra": 0, "net/ipv6/conf/default/router_solicitations": 0})
        ip("-n", self.name, "link", "set", "lo", "up")

    @contextlib.contextmanager
    def entered(self):
        """The calling thread is inside the namespace while the block runs."""
        home = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        try:
            _setns(self.fd)
            yield self
        finally:
            _setns(home)
            os.close(home)

    def sysctl(self, values):
        with self.entered():
            for key, value in values.items():
                path = Path("/proc/sys") / key
                if path.exists():
                    path.write_text(str(value))

    def command(self, *argv):
        """The command line that runs argv inside the namespace."""
        return ["nsenter", f"--net={NAMESPACE_DIR / self.name}", *argv]

    def address(self, interface, *addresses):
        for address in addresses:
            ip("-n", self.name, "addr", "add", address, "dev", interface, *(["nodad"] if ":" in address else []))

    def close(self):
        if self.fd >= 0:
            os.close(self.fd)
            self.fd = -1
        subprocess.run(["ip", "netns", "del", self.name], capture_output=True)


class Network:
    """The namespaces and cables of one run. `run` makes their names unique on this machine."""

    def __init__(self, run):
        self.run = run
        self.namespaces = {}

    def namespace(self, name):
        made = self.namespaces[name] = Namespace(f"{self.run}-{name}")
        return made

    def cable(self, first, first_interface, second, second_interface):
        """A veth pair between two namespaces, both ends up, with checksums finished by the sender's kernel."""
        ip("-n", first.name, "link", "add", first_interface, "type", "veth",
           "peer", "name", second_interface, "netns", second.name)
        for namespace, interface in ((first, first_interface), (second, second_interface)):
            # A veth end leaves UDP checksums to a card that does not exist.
            with namespace.entered():
                subprocess.run(["ethtool", "-K", interface, "tx", "off", "gro", "off", "gso", "off", "tso", "off"],
                               check=True, capture_output=True)
            # Multicast needs no neighbours; without them the hosts say nothing that a test did not ask for.
            ip("-n", namespace.name, "link", "set", interface, "arp", "off", "up")

    def close(self):
        for namespace in self.namespaces.values():
            namespace.close()
        self.namespaces.clear()
