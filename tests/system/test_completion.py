"""Completion, typed into a real interactive bash."""

import re
import time

import pexpect
import pytest

from testbed.daemon import Daemon
from testbed.namespaces import Namespace
from testbed.router import Graph
from testbed.run import BUILD, Run

PROMPT = "shell> "
COMPLETIONS = BUILD / "packaging" / "completion"


class Shell:
    """bash with the completion files loaded and the programs in its path."""

    def __init__(self, environment):
        self._bash = pexpect.spawn("bash", ["--norc", "--noprofile", "-i"], encoding="utf-8", timeout=10,
                                   dimensions=(50, 400),
                                   env={"PATH": f"{BUILD}/bin:/usr/sbin:/usr/bin:/sbin:/bin", "TERM": "dumb",
                                        "LC_ALL": "C.UTF-8", "HOME": "/nonexistent", **environment})
        for line in (f"PS1='{PROMPT}'", "bind 'set enable-bracketed-paste off'", "bind 'set bell-style none'",
                     "bind 'set completion-query-items 0'", "bind 'set page-completions off'",
                     ". /usr/share/bash-completion/bash_completion", f". {COMPLETIONS}/sfectl",
                     f". {COMPLETIONS}/bessd", "echo re''ady"):
            self._bash.sendline(line)
        self._bash.expect("ready\r\n" + PROMPT)

    def complete(self, line):
        """Types the line and two tabs. Returns the line as it stands then, and the words that are offered."""
        self._bash.send(line + "\t\t")
        # What bash answers to a third key stands behind what the tabs brought.
        self._bash.send("\x01echo '<\x05>'\n")
        self._bash.expect(r"(?s)(.*?)\r\n<(.*?)>\r\n" + re.escape(PROMPT))
        shown, stands = self._bash.match.groups()
        offered = shown.replace("\r", "").split("\n")[1:]
        words = [word for row in offered if not row.startswith(PROMPT) for word in row.split()]
        return stands, words

    def close(self):
        self._bash.close(force=True)


@pytest.fixture(scope="module")
def daemon(run):
    daemon = run.keep(Daemon(run, run.keep(Namespace(f"{run.name}-net"))))
    Graph(daemon).build()
    daemon.sfectl("port", "add", "left0", "net_null0")
    daemon.sfectl("port", "add", "right0", "net_null1")
    daemon.sfectl("intf", "add", "Ethernet7", "--port", "left0", "--mcast")
    return daemon


@pytest.fixture
def shell(run, daemon):
    shell = Shell(daemon.environment)
    yield shell
    shell.close()


@pytest.mark.parametrize("typed, stands", [
    ("sfectl conn", "sfectl connect"),
    ("sfectl module sh", "sfectl module show "),
    ("sfectl --js", "sfectl --json "),
    ("sfectl mroute add --to", "sfectl mroute add --to-cpu "),
    ("sfectl module show mf", "sfectl module show mfib"),
    ("sfectl port del le", "sfectl port del left0 "),
    ("sfectl port add x net_null5 --allm", "sfectl port add x net_null5 --allmulti o"),
    ("sfectl intf add Ethernet8 --port ri", "sfectl intf add Ethernet8 --port right0 "),
    ("sfectl intf del Eth", "sfectl intf del Ethernet7 "),
    ("sfectl mroute add 10.0.0.1 239.1.1.1 --iif E", "sfectl mroute add 10.0.0.1 239.1.1.1 --iif Ethernet7 "),
    ("sfectl mroute del 10.0.0.1 239.1.1.1 --vrf d", "sfectl mroute del 10.0.0.1 239.1.1.1 --vrf default "),
    ("sfectl task attach mfib4 0 --worker ", "sfectl task attach mfib4 0 --worker 0 "),
    ("sfectl disconnect mfib4:", "sfectl disconnect mfib4:"),
    ("sfectl hook add tr", "sfectl hook add track "),
    ("bessd --mem", "bessd --memory "),
])
def test_a_beginning_is_completed(shell, typed, stands):
    assert shell.complete(typed)[0] == stands


@pytest.mark.parametrize("typed, offered", [
    ("sfectl port ", {"add", "del", "show"}),
    ("sfectl port show ", {"left0", "right0"}),
    ("sfectl command ", {"in", "out", "sink", "mfib4", "mfib6"}),
    ("sfectl counters --af ", {"4", "6"}),
    ("bessd --log-level ", {"0", "1", "2"}),
])
def test_the_possible_words_are_offered(shell, typed, offered):
    assert set(shell.complete(typed)[1]) == offered


def test_every_command_is_offered(shell):
    assert {"module", "port", "mroute", "monitor", "version"} <= set(shell.complete("sfectl ")[1])


def test_without_a_daemon_it_is_silent_and_quick(run):
    shell = Shell({"SFE_SOCKET": f"unix:{run.directory}/nobody.sock"})
    try:
        begin = time.monotonic()
        assert shell.complete("sfectl port show ") == ("sfectl port show ", [])
        assert time.monotonic() - begin < 10
        assert shell.complete("sfectl module sh")[0] == "sfectl module show "
    finally:
        shell.close()
