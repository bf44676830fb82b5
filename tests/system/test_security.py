"""Who may talk to the daemon: groups of its Unix sockets, certificates over TCP, and what everybody else is told."""

import contextlib
import grp
import os
import pwd
import re
import resource
import shutil
import socket
import stat
import subprocess
from pathlib import Path

import pytest

from testbed.certificates import Authority
from testbed.daemon import BESSD, SFECTL, Daemon
from testbed.namespaces import Namespace
from testbed.run import BUILD, Run, wait_until

# Groups that every Debian system has and that mean nothing to us.
OPERATORS, WATCHERS = "games", "uucp"
ADDRESS, PORT = "192.0.2.1", 10514


class Person:
    """Somebody without rights who is a member of these groups."""

    def __init__(self, daemon, *groups):
        nobody = pwd.getpwnam("nobody")
        numbers = [str(grp.getgrnam(name).gr_gid) for name in groups]
        who = ["--groups", ",".join(numbers)] if numbers else ["--clear-groups"]
        self.argv = ["setpriv", f"--reuid={nobody.pw_uid}", f"--regid={nobody.pw_gid}", *who]
        self.daemon = daemon

    def sfectl(self, *args):
        client = self.daemon.client
        return subprocess.run([*self.argv, str(client / SFECTL.name), *args], capture_output=True, text=True,
                              timeout=60, stdin=subprocess.DEVNULL,
                              env={**os.environ, **self.daemon.environment, "LD_LIBRARY_PATH": str(client)})


def client_for_everybody(directory):
    """A copy of the client and its libraries: this tree may be in a place where others may not look."""
    directory.mkdir()
    shutil.copy(SFECTL, directory)
    for word in subprocess.run(["ldd", str(SFECTL)], capture_output=True, text=True, check=True).stdout.split():
        if word.startswith(f"{BUILD}/"):
            shutil.copy(word, directory)
    return directory


@pytest.fixture(scope="module")
def authority(run):
    return Authority(run.directory, "ours")


@pytest.fixture(scope="module")
def daemon(run, authority):
    run.directory.chmod(0o711)
    namespace = run.keep(Namespace(f"{run.name}-secure"))
    namespace.address("lo", f"{ADDRESS}/32")
    cert, key = authority.certificate("router", f"IP:{ADDRESS}")
    daemon = run.keep(Daemon(run, namespace, [
        "--group", OPERATORS, "--read-socket", f"{run.directory}/read.sock", "--read-group", WATCHERS,
        "--listen", f"{ADDRESS}:{PORT}", "--tls-cert", cert, "--tls-key", key, "--tls-ca", authority.cert,
        "--tls-read-only", "watcher"]))
    daemon.read_socket = f"unix:{run.directory}/read.sock"
    daemon.client = client_for_everybody(run.directory / "client")
    return daemon


def test_sockets_belong_to_their_groups(daemon):
    for path, group in ((daemon.socket, OPERATORS), (daemon.read_socket, WATCHERS)):
        found = os.stat(path.removeprefix("unix:"))
        assert stat.S_IMODE(found.st_mode) == 0o660
        assert (found.st_uid, found.st_gid) == (os.geteuid(), grp.getgrnam(group).gr_gid)


def test_operators_do_everything(daemon):
    operator = Person(daemon, OPERATORS)
    assert operator.sfectl("version").returncode == 0
    result = operator.sfectl("module", "add", "Sink", "of-the-operator")
    assert result.returncode == 0, result
    assert operator.sfectl("module", "del", "of-the-operator").returncode == 0


def test_watchers_only_read(daemon):
    watcher = Person(daemon, WATCHERS)
    for words in (["version"], ["stats"], ["module", "show"], ["port", "show"]):
        result = watcher.sfectl("--socket", daemon.read_socket, *words)
        assert result.returncode == 0, result
    before = daemon.json("module", "show")
    for words, call in ((["module", "add", "Sink", "s"], "CreateModule"), (["pause"], "PauseAll"),
                        (["shutdown"], "Shutdown"), (["port", "add", "p", "net_null0"], "CreatePort")):
        result = watcher.sfectl("--socket", daemon.read_socket, *words)
        assert result.returncode == 1
        assert "may only read" in result.stderr and call in result.stderr, result.stderr
        assert wait_until(lambda call=call: f"refused {call} to a client of the read-only socket"
                          in daemon.log_text(), 10), daemon.log_text()
    assert daemon.json("module", "show") == before


@pytest.mark.parametrize("groups, where, needed", [
    ((), "socket", OPERATORS), ((WATCHERS,), "socket", OPERATORS), ((OPERATORS,), "read_socket", WATCHERS)])
def test_others_are_told_which_group_they_need(daemon, groups, where, needed):
    result = Person(daemon, *groups).sfectl("--socket", getattr(daemon, where), "version")
    assert result.returncode == 1
    assert f"members of group '{needed}' may" in result.stderr, result.stderr


def over_tcp(daemon, *args, cert=None, ca=None):
    options = ["--socket", f"{ADDRESS}:{PORT}"]
    if cert:
        options += ["--tls-cert", cert[0], "--tls-key", cert[1], "--tls-ca", ca]
    return subprocess.run(daemon.namespace.command(str(SFECTL), *map(str, options), *args), capture_output=True,
                          text=True, timeout=60, stdin=subprocess.DEVNULL, env={**os.environ, **daemon.environment})


def test_certificates_of_our_authority_are_let_in(daemon, authority):
    admin = authority.certificate("admin", "DNS:admin.example")
    result = over_tcp(daemon, "version", cert=admin, ca=authority.cert)
    assert result.returncode == 0, result
    assert over_tcp(daemon, "pause", cert=admin, ca=authority.cert).returncode == 0
    assert over_tcp(daemon, "resume", cert=admin, ca=authority.cert).returncode == 0
    # The same from the environment.
    names = {"SFE_TLS_CERT": admin[0], "SFE_TLS_KEY": admin[1], "SFE_TLS_CA": authority.cert,
             "SFE_SOCKET": f"{ADDRESS}:{PORT}"}
    result = subprocess.run(daemon.namespace.command(str(SFECTL), "version"), capture_output=True, text=True,
                            timeout=60, env={**os.environ, **{name: str(value) for name, value in names.items()}})
    assert result.returncode == 0, result


def test_a_named_certificate_only_reads(daemon, authority):
    watcher = authority.certificate("watcher", "DNS:watcher.example")
    assert over_tcp(daemon, "stats", cert=watcher, ca=authority.cert).returncode == 0
    result = over_tcp(daemon, "pause", cert=watcher, ca=authority.cert)
    assert result.returncode == 1 and "may only read" in result.stderr, result
    assert wait_until(lambda: f"refused PauseAll to ipv4:{ADDRESS}" in daemon.log_text(), 10), daemon.log_text()
    assert "watcher.example watcher" in daemon.log_text()


def test_clients_without_our_certificate_are_refused_and_logged(daemon, authority):
    strangers = Authority(daemon.run.directory, "theirs")
    stranger = strangers.certificate("admin", "DNS:admin.example")
    for cert, ca, logged in ((stranger, authority.cert, "certificate verify failed"), (None, None, "control service")):
        result = over_tcp(daemon, "version", cert=cert, ca=ca)
        assert result.returncode == 1
        assert f"{ADDRESS}:{PORT}" in result.stderr
        assert wait_until(lambda logged=logged: logged in daemon.log_text(), 10), daemon.log_text()
    # And a client does not talk to a daemon of another authority.
    admin = authority.certificate("other", "DNS:other.example")
    assert over_tcp(daemon, "version", cert=admin, ca=strangers.cert).returncode == 1
    assert daemon.alive()


@pytest.mark.parametrize("options, code, words", [
    (["--group", "no-such-group"], 1, ["no-such-group"]),
    (["--read-group", OPERATORS], 2, ["--read-socket"]),
    (["--socket", "/run/x.sock", "--read-socket", "unix:/run/x.sock"], 2, ["--read-socket"]),
    (["--listen", "0.0.0.0:5000"], 2, ["neither encrypted nor authenticated", "--tls-cert"]),
    (["--listen", "0.0.0.0:5000", "--tls-cert", "/x"], 2, ["--tls-key"]),
    (["--tls-ca", "/x"], 2, ["--listen"]),
    (["--tls-read-only", "x"], 2, ["--tls-ca"]),
    (["--listen", "0.0.0.0:5000", "--tls-cert", "/no/c", "--tls-key", "/no/k", "--tls-ca", "/no/a"], 1, ["/no/c"]),
])
def test_daemon_refuses_to_start(run, options, code, words):
    own = [] if "--socket" in options else ["--socket", f"{run.directory}/refused.sock"]
    result = subprocess.run([str(BESSD), *own, "--memory", "128", *options], capture_output=True, text=True,
                            timeout=60, env={"SYSNAME": run.name})
    assert result.returncode == code, result
    for word in words:
        assert word in result.stderr, result.stderr


def test_more_connections_than_the_usual_limit_leave_the_daemon_listening():
    """Once it has run out of files, the transport would never listen again."""
    with Run("crowd") as crowd:
        namespace = crowd.keep(Namespace(f"{crowd.name}-crowd"))
        usual = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (1024, usual[1]))
        try:
            daemon = crowd.keep(Daemon(crowd, namespace))
        finally:
            resource.setrlimit(resource.RLIMIT_NOFILE, (max(usual[0], min(4096, usual[1])), usual[1]))
        limits = Path(f"/proc/{daemon.process.pid}/limits").read_text()
        soft, hard = re.search(r"Max open files\s+(\d+)\s+(\d+)", limits).groups()
        assert soft == hard
        with contextlib.ExitStack() as stack:
            for _ in range(1500):
                client = stack.enter_context(socket.socket(socket.AF_UNIX))
                client.connect(daemon.socket.removeprefix("unix:"))
                client.send(b"PRI * HT")
            assert daemon.attempt("version").returncode == 0
        assert daemon.attempt("version").returncode == 0


def test_client_names_the_tls_option_that_is_missing(daemon, authority):
    result = over_tcp(daemon, "--tls-cert", str(authority.cert), "version")
    assert result.returncode == 2 and "--tls-key" in result.stderr, result
