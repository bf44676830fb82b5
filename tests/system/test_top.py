"""`sfectl top` in a real terminal: what it shows, its keys, other sizes, and the terminal as it was when it is over."""

import os
import re
import signal
import threading
from pathlib import Path

import pytest

from testbed.daemon import SFECTL
from testbed.golden import ESCAPE, masked, problems
from testbed.run import wait_until
from testbed.terminal import Terminal

RED = f"{ESCAPE}[31m"


class Stream:
    """Packets at a steady pace until it is closed."""

    def __init__(self, senders, pause=0.01):
        self._senders = senders
        self._pause = pause
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._end.wait(self._pause):
            for sender in self._senders:
                sender.send()

    def close(self):
        self._end.set()
        self._thread.join()


@pytest.fixture(scope="module")
def streams(router):
    """Two flows: one that is forwarded, one whose route leads nowhere and loses every packet."""
    from conftest import Scope
    with Scope(router) as scope:
        good, lost = scope.flow(4), scope.flow(4)
        good.group, lost.group = "239.1.1.1", "239.1.1.2"
        scope.add_route(good)
        scope.add_route(lost, oifs=[])
        scope.keep(Stream([scope.sender("source", flow) for flow in (good, lost)]))
        yield scope


@pytest.fixture
def terminal(run, router):
    made = Terminal(run, router.daemon.environment)
    yield made
    made.close()


def settings(terminal, run):
    """What the terminal is set to, after whatever ran in it."""
    path = run.directory / "stty"
    path.unlink(missing_ok=True)
    terminal.type(f"stty -a > {path}.part && mv {path}.part {path}")
    terminal.key("Enter")
    assert wait_until(path.exists, 10), terminal.text()
    words = path.read_text().replace(";", " ").split()
    return {word: word in words and f"-{word}" not in words for word in ("echo", "icanon", "isig", "icrnl", "opost")}


NORMAL = {"echo": True, "icanon": True, "isig": True, "icrnl": True, "opost": True}


def rows(screen):
    """The addresses of the routes' groups, from top to bottom."""
    return re.findall(r"^10\.1\.0\.2 +(239\.1\.1\.\d+)", screen, re.MULTILINE)


def start(terminal, *options):
    terminal.command(SFECTL, "top", "-d", "0.3", *options)
    screen = terminal.wait_for("sorted by", "239.1.1.1", "q quit")
    assert screen, terminal.text()
    return screen


def test_screen_has_interfaces_and_routes(streams, terminal, run):
    start(terminal, "--sort", "name")
    # Rates need counters that were published while it looked.
    assert wait_until(lambda: re.search(r"239\.1\.1\.1 +default +Ethernet1 +2 +[1-9]", terminal.text()), 10)
    assert problems("top.screen", masked(terminal.text(), numbers=True)) == ""
    terminal.type("q")
    assert terminal.wait_for(Terminal.PROMPT.strip())
    # What was on the screen before is there again, and only that.
    assert "q quit" not in terminal.text()
    assert settings(terminal, run) == NORMAL


def test_keys_change_the_order(streams, terminal):
    start(terminal, "--sort", "name")
    assert rows(terminal.text()) == ["239.1.1.1", "239.1.1.2"]
    terminal.type("d")
    assert terminal.wait_for("sorted by drops")
    assert wait_until(lambda: rows(terminal.text()) == ["239.1.1.2", "239.1.1.1"], 10), terminal.text()
    terminal.type("s")
    assert terminal.wait_for("sorted by name")
    assert rows(terminal.text()) == ["239.1.1.1", "239.1.1.2"]
    terminal.key("Down")
    assert wait_until(lambda: rows(terminal.text()) == ["239.1.1.2"], 10), terminal.text()
    terminal.key("Up")
    assert wait_until(lambda: len(rows(terminal.text())) == 2, 10), terminal.text()
    terminal.type("q")


def test_screen_follows_the_size_of_the_terminal(streams, terminal):
    start(terminal)
    terminal.resize(60, 9)
    assert wait_until(lambda: (lines := terminal.text().splitlines()) and len(lines) == 9
                      and lines[-1].startswith("q quit"), 10), terminal.text()
    terminal.resize(140, 40)
    assert wait_until(lambda: (lines := terminal.text().splitlines()) and len(lines) == 40
                      and lines[-1].startswith("q quit") and "DROPPED/S" in terminal.text(), 10), terminal.text()
    terminal.type("q")
    assert terminal.wait_for(Terminal.PROMPT.strip())


def test_losses_stand_out_in_colour_unless_it_is_not_wanted(streams, terminal):
    start(terminal)
    assert terminal.wait_for(RED, escapes=True), terminal.text(escapes=True)
    terminal.type("q")
    assert terminal.wait_for(Terminal.PROMPT.strip())
    terminal.command("env", "NO_COLOR=1", SFECTL, "top", "-d", "0.3")
    assert terminal.wait_for("sorted by", "239.1.1.2")
    bold = f"{ESCAPE}[1m"
    assert terminal.wait_for(bold, escapes=True)
    assert not re.search(ESCAPE + r"\[[0-9;]*3[0-7]", terminal.text(escapes=True))
    terminal.type("q")


def top_process(run):
    """The process id of the `top` in the run's terminal."""
    for process in Path("/proc").iterdir():
        try:
            if (process.name.isdigit() and f"SYSNAME={run.name}".encode() in (process / "environ").read_bytes()
                    and b"\0top\0" in (process / "cmdline").read_bytes()):
                return int(process.name)
        except OSError:
            continue
    return None


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT])
def test_signal_gives_the_terminal_back(streams, terminal, run, number):
    start(terminal)
    os.kill(top_process(run), number)
    assert terminal.wait_for(Terminal.PROMPT.strip())
    assert settings(terminal, run) == NORMAL


def test_error_on_the_way_gives_the_terminal_back(streams, terminal, run):
    # The daemon that it asks goes away: here the system whose counters it reads is another one.
    terminal.command("env", "SYSNAME=nobody", SFECTL, "top")
    assert terminal.wait_for("sfectl:", "nobody")
    terminal.command("env", "TERM=unheard-of", SFECTL, "top")
    assert terminal.wait_for("unheard-of", "--batch")
    assert settings(terminal, run) == NORMAL


def test_batch_is_plain_text(streams):
    text = streams.daemon.sfectl("top", "-b", "-n", 2, "-d", 0.5, "--sort", "name")
    assert ESCAPE not in text
    assert text.count("INTERFACE") == 2
    assert problems("top.batch", masked(text.split("\n\nup ")[0] + "\n", numbers=True)) == ""
    # A pipe is no terminal: the same without the option.
    assert streams.daemon.sfectl("top", "-n", 1, "-d", 0.5).count("INTERFACE") == 1
