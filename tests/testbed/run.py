"""One run of a test or of the demo: its name, its directory, and the proof that it left nothing behind."""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from contextlib import ExitStack
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("SFE_BUILD", ROOT / "build" / "release"))


class Leftovers(Exception):
    """Something of a run outlived it."""


def leftovers(name, directory):
    """What is left on this machine of the run with this name, as text; empty when nothing is."""
    found = []
    namespaces = Path("/run/netns")
    if namespaces.is_dir():
        found += [f"namespace {entry.name}" for entry in namespaces.iterdir()
                  if re.search(rf"\b{re.escape(name)}\b", entry.name)]
    found += [f"shared memory {entry.name}" for entry in Path("/dev/shm").iterdir()
              if re.search(rf"\b{re.escape(name)}\b", entry.name)]
    for process in Path("/proc").iterdir():
        if not process.name.isdigit():
            continue
        try:
            if f"SYSNAME={name}".encode() in (process / "environ").read_bytes().split(b"\0"):
                found.append(f"process {process.name} {(process / 'comm').read_text().strip()}")
        except OSError:  # it ended while we looked
            continue
    found += [f"mount {line.split()[4]}" for line in Path("/proc/self/mountinfo").read_text().splitlines()
              if str(directory) in line]
    if directory.exists():
        found.append(f"directory {directory}")
    return found


class Run:
    """A context: what defer() was given is undone at its end, last thing first, also when it is interrupted."""

    _count = 0

    def __init__(self, purpose):
        Run._count += 1
        self.name = f"sfe{purpose}{os.getpid()}x{Run._count}"
        self.directory = Path(tempfile.mkdtemp(prefix=self.name + "-"))
        self._stack = ExitStack()

    def defer(self, function, *args):
        self._stack.callback(function, *args)

    def keep(self, closeable):
        """Calls close() of the object at the end. Returns the object."""
        self._stack.callback(closeable.close)
        return closeable

    def __enter__(self):
        return self

    def __exit__(self, *error):
        # A second Ctrl-C must not stop the clean-up that the first one asked for.
        handlers = {number: signal.signal(number, signal.SIG_IGN) for number in (signal.SIGINT, signal.SIGTERM)}
        try:
            self._stack.close()
        finally:
            shutil.rmtree(self.directory, ignore_errors=True)
            for number, handler in handlers.items():
                signal.signal(number, handler)
        # A process that was just told to end may need a moment; what is still there after it is a leftover.
        deadline = time.monotonic() + 5
        while (left := leftovers(self.name, self.directory)) and time.monotonic() < deadline:
            time.sleep(0.05)
        if left:
            raise Leftovers("left behind: " + ", ".join(left))
        return False


def exit_on_signals():
    """SIGTERM and SIGHUP end the program the way Ctrl-C does, so that every context is left in order."""
    def stop(number, _frame):
        sys.exit(128 + number)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop)


def wait_until(condition, timeout, pause=0.05):
    """Asks until the condition gives something true, and returns that; the last answer when time is up."""
    deadline = time.monotonic() + timeout
    while True:
        answer = condition()
        if answer or time.monotonic() > deadline:
            return answer
        time.sleep(pause)


def start(argv, environment, **pipes):
    """A child in a session of its own: Ctrl-C reaches it through its parent's clean-up only, and it dies with us."""
    return subprocess.Popen(["setpriv", "--pdeathsig", "TERM", *argv], env={**os.environ, **environment},
                            start_new_session=True, stdin=subprocess.DEVNULL, **pipes)
