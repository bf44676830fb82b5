"""The Debian package: made, judged, installed into a root that has nothing but its dependencies, used, and purged."""

import hashlib
import json
import os
import re
import subprocess
import sys
from contextlib import closing
from pathlib import Path

import pytest

from testbed.clean_root import CleanRoot
from testbed.daemon import STATE_FILES, CommandFailed
from testbed.namespaces import Network
from testbed.notify import NotifySocket
from testbed.run import BUILD, ROOT, Run, start, wait_until
from testbed.traffic import TTL, Receiver, Sender

# Kept by the package system and by the C library for all packages together.
SHARED = re.compile(r"/(var/lib/(dpkg|systemd/deb-systemd-helper-\w+)|var/(log|cache)|etc/ld\.so\.cache"
                    r"|etc/(group|gshadow|passwd|shadow)-|etc/\.pwd\.lock|proc|sys|dev|tmp)(/|$)")
STREAM = 100
CONFIG, EXAMPLES = "/etc/sfe/sfe.yaml", "/usr/share/doc/sfe/examples"
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
    """The installed daemon, started and reloaded as its unit says, and the installed client."""

    def __init__(self, run, root, namespace):
        self.root = root
        self.namespace = namespace
        self.manager = run.keep(NotifySocket(run))
        inside = root.outside("/run/notify")
        subprocess.run(root.command("touch", "/run/notify"), check=True)
        subprocess.run(["nsenter", f"--mount=/proc/{root.holder.pid}/ns/mnt", "mount", "--bind",
                        str(self.manager.path), f"{root.path}/run/notify"], check=True)
        assert inside.is_socket()
        self.variables = {"SYSNAME": run.name}
        self.log = run.directory / "service.log"
        with open(self.log, "wb") as log:
            self.process = start(self.command("ExecStart"), {**self.variables, "NOTIFY_SOCKET": "/run/notify"},
                                 stdout=log, stderr=log)
        run.keep(self)

    def command(self, setting):
        """The command line that runs the program of a setting of the unit under the unit's restrictions."""
        return self.namespace.command("nsenter", f"--mount=/proc/{self.root.holder.pid}/ns/mnt", sys.executable, "-B",
                                      SANDBOX, f"{self.root.path}/lib/systemd/system/sfe.service", self.root.path,
                                      setting)

    def reload(self):
        """What `systemctl reload` runs."""
        return subprocess.run(list(map(str, self.command("ExecReload"))), env={**os.environ, **self.variables},
                              capture_output=True, text=True, timeout=60)

    def sfectl(self, *args):
        result = self.root.attempt("sfectl", *args, **self.variables)
        if result.returncode != 0:
            raise CommandFailed(["sfectl", *map(str, args)], result)
        return result.stdout

    def group_of(self, path):
        """The name of the group that a file belongs to, inside."""
        return self.root.check("stat", "-c", "%G %a", path).split()

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


def hosts_around(run, network):
    """Two hosts, cabled to the devices that the examples name."""
    hosts = {name: network.namespace(name) for name in ("source", "sink")}
    for number, host in enumerate(hosts.values(), 1):
        network.cable(host, "eth0", network.namespaces["fwd"], f"eth{number}")
        host.address("eth0", f"10.{number}.0.2/24")
    return hosts


def check_stream(hosts, group, flow):
    """Every packet of the one host reaches the other."""
    with (closing(Receiver(hosts["sink"], "eth0", [group])) as receiver,
          closing(Sender(hosts["source"], "eth0", "10.1.0.2", group, flow)) as sender):
        sender.send(STREAM)
        assert receiver.wait_for(flow, STREAM, 15)
        assert receiver.problems(flow, STREAM, TTL - 1) == []


def check_reload(root, service, hosts):
    """A reload adds what the file says now, refuses a broken file as a whole, and leaves the rest running."""
    file = root.outside(CONFIG)
    good = file.read_text()
    assert "239.1.1.1" in good and "239.1.1.2" not in good
    more = good + "  - {source: 10.1.0.2, group: 239.1.1.2, iif: Ethernet1, oifs: [Ethernet2]}\n"
    file.write_text(more)
    reloaded = service.reload()
    assert reloaded.returncode == 0, reloaded.stderr
    check_stream(hosts, "239.1.1.2", 2)
    file.write_text(good + "colour: red\n")
    refused = service.reload()
    assert refused.returncode == 1 and "colour" in refused.stderr, refused
    check_stream(hosts, "239.1.1.2", 3)
    file.write_text(more)
    assert service.reload().stdout == "nothing to change\n"


def check_documents(root):
    """What the manual pages and documents promise is there, and the documents' links lead somewhere."""
    top = root.outside("/usr/share/doc/sfe")
    assert json.loads(root.outside("/usr/share/sfe/sfe.schema.json").read_text())["$id"]
    assert json.loads(root.outside("/usr/share/sfe/grafana/sfe.json").read_text())["panels"]
    assert {path.name for path in (top / "examples").iterdir()} == {path.name for path in (ROOT / "examples").iterdir()}
    for example in (top / "examples").iterdir():
        root.check("sfectl", "apply", "--check", f"{EXAMPLES}/{example.name}")
    pages = list(top.rglob("*.md"))
    links = [(page, target) for page in pages for target in re.findall(r"\]\(([^)#]+)[^)]*\)", page.read_text())]
    assert len(links) > 20
    assert [(page.name, to) for page, to in links if "://" not in to and not (page.parent / to).exists()] == []


def test_it_is_installed_started_used_and_purged(package):
    with Run("package") as run:
        root = CleanRoot(run, field(package, "Depends"))
        before = files(root)
        (root.outside("/tmp") / package.name).write_bytes(package.read_bytes())
        root.check("dpkg", "--install", f"/tmp/{package.name}")
        assert {"/usr/sbin/bessd", "/usr/bin/sfectl", CONFIG, "/BessProc"} <= set(files(root))
        assert re.search(r"^sfe:", root.outside("/etc/group").read_text(), re.M)
        assert root.check("sfectl", "--version") == root.check("bessd", "--version").replace("bessd", "sfectl")
        check_documents(root)

        network = run.keep(Network(run.name))
        forwarder = network.namespace("fwd")
        hosts = hosts_around(run, network)
        root.check("cp", f"{EXAMPLES}/minimal.yaml", CONFIG)
        service = Service(run, root, forwarder)
        assert service.manager.wait_for("READY=1", timeout=60), service.log.read_text()
        status = service.status()
        assert status["NoNewPrivs"] == "1" and status["Seccomp"] == "2" and status["CapBnd"] == status["CapPrm"]
        assert service.group_of("/run/sfe/bessd.sock") == ["sfe", "660"]
        assert service.group_of("/run/sfe/read.sock") == ["sfe-view", "660"]
        assert service.sfectl("version").startswith("sfectl ")
        check_stream(hosts, "239.1.1.1", 1)
        check_reload(root, service, hosts)
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
