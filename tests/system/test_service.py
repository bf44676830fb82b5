"""The daemon under a service manager: what it tells, when the watchdog is fed, and what the unit allows."""

import ctypes
import os
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest

from testbed.daemon import Daemon
from testbed.namespaces import Namespace
from testbed.notify import NotifySocket
from testbed.router import Graph
from testbed.run import BUILD, ROOT, Run, wait_until

WATCHDOG_SECONDS = 0.6
PTRACE_DETACH, PTRACE_SEIZE, PTRACE_INTERRUPT = 17, 0x4206, 0x4207
WALL = 0x40000000  # __WALL: wait for threads, too
UNIT = BUILD / "packaging" / "sfe.service"
STRICT = BUILD / "packaging" / "strict.conf"
# Each of these gives a service mounts of its own, into which its state files would vanish. See systemd.exec(5).
OWN_MOUNTS = ("ProtectSystem ProtectHome ProtectKernelTunables ProtectKernelModules ProtectKernelLogs "
              "ProtectControlGroups ProtectProc ProcSubset PrivateTmp PrivateDevices PrivateMounts PrivateUsers "
              "ReadWritePaths ReadOnlyPaths InaccessiblePaths ExecPaths NoExecPaths TemporaryFileSystem BindPaths "
              "BindReadOnlyPaths MountFlags MountImages RootDirectory RootImage DynamicUser PrivateIPC "
              "StateDirectory CacheDirectory").split()


@pytest.fixture
def service():
    with Run("service") as run:
        manager = run.keep(NotifySocket(run))
        network = run.keep(Namespace(f"{run.name}-net"))
        environment = {"NOTIFY_SOCKET": str(manager.path), "WATCHDOG_USEC": str(int(WATCHDOG_SECONDS * 1e6))}
        daemon = run.keep(Daemon(run, network, environment=environment))
        yield manager, daemon


class StoppedThread:
    """Holds one thread of a process still, and no other."""

    _libc = ctypes.CDLL(None, use_errno=True)

    def __init__(self, tid):
        self.tid = tid

    def _ptrace(self, request):
        if self._libc.ptrace(request, self.tid, None, None) != 0:
            raise OSError(ctypes.get_errno(), f"ptrace {request:#x}")

    def __enter__(self):
        self._ptrace(PTRACE_SEIZE)
        self._ptrace(PTRACE_INTERRUPT)
        os.waitpid(self.tid, WALL)
        return self

    def __exit__(self, *error):
        self._ptrace(PTRACE_DETACH)


def thread(daemon, name):
    """The daemon's thread with that name."""
    for task in Path(f"/proc/{daemon.process.pid}/task").iterdir():
        if (task / "comm").read_text().strip() == name:
            return int(task.name)
    raise LookupError(name)


def fed(manager, times=2):
    """Waits until the watchdog was fed so many times from now on."""
    for _ in range(times):
        assert manager.wait_for("WATCHDOG=1", since=time.monotonic()), manager.messages()
    return True


def run_tasks(daemon):
    graph = Graph(daemon)
    graph.build()
    graph.start_instance_tasks()


def test_it_says_when_it_is_ready_reloads_and_stops(service):
    manager, daemon = service
    assert manager.wait_for("READY=1\nSTATUS=")
    before = time.monotonic()
    daemon.process.send_signal(signal.SIGHUP)
    assert re.match(r"RELOADING=1\nMONOTONIC_USEC=\d+", manager.wait_for("RELOADING=1", since=before))
    assert manager.wait_for("READY=1", since=before)
    assert daemon.stop() == 0
    assert manager.wait_for("STOPPING=1")


def test_the_watchdog_is_fed_by_a_daemon_without_work(service):
    manager, daemon = service
    assert fed(manager)
    daemon.sfectl("worker", "add", 0)
    assert manager.wait_for("STATUS=1 worker, 0 tasks") and fed(manager)


def test_the_watchdog_is_fed_while_workers_run_idle_or_are_paused(service):
    manager, daemon = service
    run_tasks(daemon)
    assert manager.wait_for("STATUS=1 worker, 4 tasks") and fed(manager)
    daemon.sfectl("pause")
    assert manager.wait_for("(paused)") and fed(manager, 4)
    daemon.sfectl("resume")
    assert fed(manager)


@pytest.mark.parametrize("name, complaint", [("bess-w0", "worker 0 has made no progress"),
                                             ("bess-control", "the control thread does not answer")])
def test_a_stuck_thread_lets_the_watchdog_fire(service, name, complaint):
    manager, daemon = service
    run_tasks(daemon)
    assert fed(manager)
    with StoppedThread(thread(daemon, name)):
        stopped = time.monotonic()
        assert manager.wait_for(complaint, since=stopped), manager.messages(stopped)
        noticed = time.monotonic()
        # The complaint is repeated with each message that is not sent: a service manager would have ended it by now.
        assert wait_until(lambda: len(manager.messages(noticed)) >= 3, 20)
        assert not [text for text in manager.messages(noticed) if "WATCHDOG=1" in text]
    assert fed(manager)


def test_a_configuration_that_cannot_be_applied_fails_the_start():
    with Run("service") as run:
        manager = run.keep(NotifySocket(run))
        broken = run.directory / "sfe.yaml"
        broken.write_text("ports: [\n")
        with pytest.raises(RuntimeError, match="is not applied: sfectl apply ended with code"):
            Daemon(run, run.keep(Namespace(f"{run.name}-net")), options=["--config", str(broken)],
                   environment={"NOTIFY_SOCKET": str(manager.path)})
        assert not manager.wait_for("READY=1", timeout=0)


def settings(path):
    """The assignments of a unit's [Service] section."""
    lines = path.read_text().split("[Service]")[1].split("[Install]")[0].splitlines()
    return [line.split("=", 1)[0] for line in lines if "=" in line and not line.startswith("#")]


def analyze(*argv):
    return subprocess.run(["systemd-analyze", *argv], capture_output=True, text=True, timeout=60)


def test_the_unit_leaves_the_state_files_visible_outside():
    assert not set(OWN_MOUNTS) & set(settings(UNIT))
    assert set(OWN_MOUNTS) & set(settings(STRICT)), "the list above knows no option of the strict form"


@pytest.fixture
def installed(tmp_path):
    """The tree as it is installed, so that every path in the unit is there."""
    subprocess.run(["cmake", "--install", str(BUILD)], check=True, env={**os.environ, "DESTDIR": str(tmp_path)},
                   capture_output=True)
    return tmp_path


@pytest.mark.parametrize("drop_in, limit", [(None, 5.2), (STRICT, 3.8)])
def test_the_unit_is_right_and_exposes_no_more_than_it_did(installed, drop_in, limit):
    unit = next(installed.rglob("sfe.service"))
    if drop_in:
        directory = unit.with_name("sfe.service.d")
        directory.mkdir()
        (directory / "strict.conf").write_text(drop_in.read_text())
    # --root would want a whole system; the paths of the programs are made those of the installed tree instead.
    text = unit.read_text()
    for program in ("/usr/sbin/bessd", "/usr/bin/sfectl"):
        text = text.replace(f"={program}", f"={installed}{program}")
    unit.write_text(text)
    verified = analyze("verify", "--man=no", "--recursive-errors=no", str(unit))
    assert (verified.returncode, verified.stderr.strip()) == (0, "")
    judged = analyze("security", "--offline=yes", "--no-pager", f"--threshold={int(limit * 10)}", str(unit))
    assert judged.returncode == 0, judged.stdout


def test_the_version_comes_from_one_place():
    version = subprocess.run(["dpkg-parsechangelog", "-l", str(ROOT / "debian/changelog"), "-S", "Version"], check=True,
                             capture_output=True, text=True).stdout.strip()
    for program in ("bessd", "sfectl"):
        said = subprocess.run([str(BUILD / "bin" / program), "--version"], check=True, capture_output=True, text=True)
        assert said.stdout == f"{program} {version}\n"
