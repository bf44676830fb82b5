"""The Debian package: made, judged, installed into a root that has nothing but its dependencies, used, and purged."""

import hashlib
import json
import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

from testbed.clean_root import CleanRoot
from testbed.daemon import STATE_FILES, CommandFailed
from testbed.namespaces import Network
from testbed.notify import NotifySocket
from testbed.router import Graph, Interface
from testbed.run import BUILD, ROOT, Run, start, wait_until
from testbed.traffic import TTL, Receiver, Sender

# Kept by the package system and by the C library for all packages together.
SHARED = re.compile(r"/(var/lib/(dpkg|systemd/deb-systemd-helper-\w+)|var/(log|cache)|etc/ld\.so\.cache"
                    r"|etc/(group|gshadow|passwd|shadow)-|etc/\.pwd\.lock|proc|sys|dev|tmp)(/|$)")
FLOW, STREAM = 1, 100
SANDBOX = ROOT / "tests" / "testbed" / "sandbox.py"


@pytest.fixture(scope="module")
def package():
    made = subprocess.run([str(ROOT / "tools" / "package"), str(BUILD)], capture_output=True, text=True, timeout=280)
    assert made.returncode == 0, made.stdout + made.stderr
    return next(path for path in (ROOT / "build" / "package").glob("sfe_*.deb"))


def field(package, name):
    return subprocess.run(["dpkg-deb", "-f", str(package), name], check=True, capture_output=True,
                          text=True).stdout.strip()


def test_lintian_has_no_complaint(package):
    changes = next(package.parent.glob("*.changes"))
    judged = subprocess.run(["lintian", "--allow-root", "-EvIL", "+pedantic", "--fail-on", "error,warning",
                             str(changes)], capture_output=True, text=True, timeout=280)
    assert judged.returncode == 0, judged.stdout
    assert not re.search(r"^[EW]: ", judged.stdout, re.M), judged.stdout


def test_the_tree_stays_clean(package):
    made = [name for name in ("debian/sfe", "debian/.debhelper", "debian/files") if (ROOT / name).exists()]
    assert made == []


def test_it_has_the_version_of_the_programs(package):
    said = subprocess.run([str(BUILD / "bin" / "sfectl"), "--version"], capture_output=True, text=True).stdout
    assert said == f"sfectl {field(package, 'Version')}\n"


def files(root):
    """Every file of a clean root with its kind and, below /etc, its contents."""
    found = {}
    top = str(root.outside("/"))
    for directory, names, others in os.walk(top):
        names[:] = [name for name in names if not SHARED.match(f"{directory}/{name}"[len(top) - 1:])]
        for name in [*names, *others]:
            path = f"{directory}/{name}"
            shown = "/" + path[len(top):].lstrip("/")
            if SHARED.match(shown):
                continue
            content = os.readlink(path) if os.path.islink(path) else ""
            if shown.startswith("/etc/") and not content and os.path.isfile(path):
                content = hashlib.sha256(Path(path).read_bytes()).hexdigest()
            found[shown] = (os.lstat(path).st_mode, content)
    return found


class Service:
    """The installed daemon, started as its unit says, and the installed client."""

    def __init__(self, run, root, network):
        self.root = root
        self.manager = run.keep(NotifySocket(run))
        inside = root.outside("/run/notify")
        subprocess.run(root.command("touch", "/run/notify"), check=True)
        subprocess.run(["nsenter", f"--mount=/proc/{root.holder.pid}/ns/mnt", "mount", "--bind",
                        str(self.manager.path), f"{root.path}/run/notify"], check=True)
        assert inside.is_socket()
        self.variables = {"SYSNAME": run.name}
        self.log = run.directory / "service.log"
        with open(self.log, "wb") as log:
            self.process = start(
                network.command("nsenter", f"--mount=/proc/{root.holder.pid}/ns/mnt", sys.executable, "-B", SANDBOX,
                                f"{root.path}/lib/systemd/system/sfe.service", root.path),
                {**self.variables, "NOTIFY_SOCKET": "/run/notify"}, stdout=log, stderr=log)
        run.keep(self)

    def sfectl(self, *args):
        result = self.root.attempt("sfectl", *args, **self.variables)
        if result.returncode != 0:
            raise CommandFailed(["sfectl", *map(str, args)], result)
        return result.stdout

    def json(self, *args):
        text = self.sfectl("--json", *args)
        return json.loads(text) if text.strip() else None

    def load_plugins(self):
        """The unit has loaded them."""

    def status(self):
        """What /proc says of the process: name to value."""
        lines = Path(f"/proc/{self.process.pid}/status").read_text().splitlines()
        return dict(line.split(":\t", 1) for line in lines)

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
            self.process.wait(30)
        if self.root.outside("/run/notify").exists():
            subprocess.run(["nsenter", f"--mount=/proc/{self.root.holder.pid}/ns/mnt", "umount",
                            f"{self.root.path}/run/notify"], check=True)
            self.root.outside("/run/notify").unlink()


def forward_a_stream(run, network, service):
    """Two hosts with the service in between; every packet of the one reaches the other."""
    hosts = {name: network.namespace(name) for name in ("source", "sink")}
    graph = Graph(service)
    graph.build()
    for number, (name, host) in enumerate(hosts.items(), 1):
        network.cable(host, "eth0", network.namespaces["fwd"], f"veth{number}")
        host.address("eth0", f"10.{number}.0.2/24")
        graph.add_interface(Interface(number, f"net_af_packet{number},iface=veth{number}"))
    graph.start_instance_tasks()
    graph.start_receiving()
    graph.add_route("10.1.0.2", "239.1.1.1", "Ethernet1", ["Ethernet2"])
    receiver = run.keep(Receiver(hosts["sink"], "eth0", ["239.1.1.1"]))
    sender = run.keep(Sender(hosts["source"], "eth0", "10.1.0.2", "239.1.1.1", FLOW))
    return sender, receiver


def test_it_is_installed_started_used_and_purged(package):
    with Run("package") as run:
        root = CleanRoot(run, field(package, "Depends"))
        before = files(root)
        (root.outside("/tmp") / package.name).write_bytes(package.read_bytes())
        root.check("dpkg", "--install", f"/tmp/{package.name}")
        assert {"/usr/sbin/bessd", "/usr/bin/sfectl", "/etc/sfe/sfe.yaml", "/BessProc"} <= set(files(root))
        assert re.search(r"^sfe:", root.outside("/etc/group").read_text(), re.M)
        assert root.check("sfectl", "--version") == root.check("bessd", "--version").replace("bessd", "sfectl")

        network = run.keep(Network(run.name))
        service = Service(run, root, network.namespace("fwd"))
        assert service.manager.wait_for("READY=1", timeout=60), service.log.read_text()
        status = service.status()
        assert status["NoNewPrivs"] == "1" and status["Seccomp"] == "2" and status["CapBnd"] == status["CapPrm"]
        assert service.sfectl("version").startswith("sfectl ")
        sender, receiver = forward_a_stream(run, network, service)
        sender.send(STREAM)
        assert receiver.wait_for(FLOW, STREAM, 15)
        assert receiver.problems(FLOW, STREAM, TTL - 1) == []
        # Outside of the sandbox, where operators are.
        assert wait_until(lambda: "239.1.1.1" in root.attempt("cat", STATE_FILES / "Mroute4_default").stdout, 15)
        service.process.terminate()
        assert service.process.wait(30) == 0, service.log.read_text()
        service.close()

        root.check("dpkg", "--purge", "sfe")
        root.outside(f"/tmp/{package.name}").unlink()
        left = files(root)
        assert {name: (before.get(name), left.get(name)) for name in {*before, *left}
                if before.get(name) != left.get(name)} == {}
