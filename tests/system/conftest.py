"""One daemon with its hosts for the tests of a file; every test has flows of its own, so that order does not matter."""

import itertools
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from testbed.capture import Capture  # noqa: E402 (the path comes first)
from testbed.namespaces import available  # noqa: E402
from testbed.router import Router  # noqa: E402
from testbed.run import Run, exit_on_signals  # noqa: E402
from testbed.traffic import Receiver, Sender  # noqa: E402

HOSTS = ["source", "stray", "left", "right", "idle"]
_flows = itertools.count(1)

exit_on_signals()


@pytest.fixture(scope="session", autouse=True)
def namespaces_allowed():
    allowed, reason = available()
    if not allowed:
        pytest.exit(f"system tests need network namespaces: {reason}", returncode=1)


@pytest.fixture(scope="module")
def run():
    """A run that proves, when its tests are over, that nothing of it is left on the machine."""
    with Run("test") as made:
        yield made


@pytest.fixture(scope="module")
def router(run):
    return Router(run, HOSTS, options=["--publish-period", "200"])


@pytest.fixture
def scope(router):
    """What one test opens is closed with it."""
    with Scope(router) as made:
        yield made
    assert router.daemon.alive(), router.daemon.log_text()[-4000:]


class Flow:
    """A flow that no other test uses."""

    def __init__(self, version, host=1):
        self.number = next(_flows)
        self.version = version
        self.source = f"10.{host}.0.2" if version == 4 else f"2001:db8:{host}::2"
        self.group = f"239.2.{self.number >> 8}.{self.number & 255}" if version == 4 else f"ff15::2:{self.number:x}"
        self.module = "mfib4" if version == 4 else "mfib6"

    def __str__(self):
        return f"({self.source},{self.group})"


class Scope:
    """The words in which the tests of this folder speak."""

    def __init__(self, router):
        self.router = router
        self.daemon = router.daemon
        self._open = []

    def __enter__(self):
        return self

    def __exit__(self, *error):
        for thing in reversed(self._open):
            thing.close()

    def keep(self, thing):
        self._open.append(thing)
        return thing

    def flow(self, version):
        return Flow(version)

    def sender(self, host, flow, **options):
        if host != "source":
            namespace = self.router.hosts[host]
            have = f"{flow.source}/{32 if flow.version == 4 else 128}"
            if have not in namespace.extra:
                namespace.address("eth0", have)
                namespace.extra.add(have)
        return self.keep(Sender(self.router.hosts[host], "eth0", flow.source, flow.group, flow.number, **options))

    def receiver(self, host, *flows):
        return self.keep(Receiver(self.router.hosts[host], "eth0", [flow.group for flow in flows]))

    def capture(self, host):
        return self.keep(Capture(self.router.hosts[host], "eth0"))

    def monitor(self, *options):
        return self.keep(self.daemon.monitor(*options))

    def add_route(self, flow, oifs=("left", "right"), iif="source", options=(), source=None):
        self.router.graph.add_route(source or flow.source, flow.group, self.router.interface(iif),
                                    [self.router.interface(oif) for oif in oifs], *options)

    def event(self, name, flow):
        """The words of a monitor's line about a flow."""
        return (f"{name} ", f"({flow.source},{flow.group})")

    def route_counters(self, flow, source=None):
        for row in self.router.counters(flow.version)["routes"]:
            if row["dst"] == flow.group and row["src"] == (source or flow.source):
                return row
        return None
