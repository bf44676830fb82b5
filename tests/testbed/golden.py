"""Expected outputs in tests/golden, and what a program prints on a terminal.

SFE_GOLDEN=write makes the files anew from what the programs print now; the difference is for a person to read.
"""

import json
import os
import pty
import re
import select
import subprocess
import time
from pathlib import Path

DIRECTORY = Path(__file__).resolve().parents[1] / "golden"
ESCAPE = "\x1b"


def masked(text, numbers=False):
    """Without what differs from run to run: hardware addresses, and all numbers, with their padding, if asked for."""
    text = re.sub(r"\b(?:[0-9a-f]{2}:){5}[0-9a-f]{2}\b", "MM:MM:MM:MM:MM:MM", text)
    if numbers:
        text = re.sub(r" {2,}", "  ", re.sub(r"(?<![\w.:-])\d+(?:\.\d+)?[kMG]?(?![\w.:-])", "N", text))
    return text


def problems(name, text):
    """The difference between a text and the golden file of that name, as unified lines; empty when there is none."""
    path = DIRECTORY / name
    if os.environ.get("SFE_GOLDEN") == "write":
        path.write_text(text)
    result = subprocess.run(["diff", "-u", str(path), "-"], input=text, capture_output=True, text=True)
    return "" if result.returncode == 0 else result.stdout + result.stderr


class OnTerminal:
    """A program with a terminal as its input and output; what it prints has line ends as in a pipe."""

    def __init__(self, argv, environment):
        self.master, slave = pty.openpty()
        try:
            self.process = subprocess.Popen(argv, env=environment, stdin=slave, stdout=slave, stderr=slave)
        except BaseException:
            os.close(self.master)
            raise
        finally:
            os.close(slave)
        self._bytes = b""

    def text(self):
        return self._bytes.decode(errors="replace").replace("\r\n", "\n")

    def _read(self, deadline, enough=lambda text: False):
        """Reads until the program is gone, its text is enough or time is up."""
        while not enough(self.text()) and time.monotonic() < deadline:
            if not select.select([self.master], [], [], 0.2)[0]:
                continue
            try:
                chunk = os.read(self.master, 65536)
            except OSError:  # the last holder of the other end is gone
                return
            self._bytes += chunk

    def wait_for(self, words, timeout=10):
        self._read(time.monotonic() + timeout, lambda text: words in text)
        return words in self.text()

    def finish(self, timeout=30):
        """Returns exit code and text of a program that ends by itself, or is killed when it does not."""
        try:
            self._read(time.monotonic() + timeout)
        finally:
            self.close(timeout=1)
        return self.process.returncode, self.text()

    def close(self, timeout=0):
        if self.master is None:
            return
        try:
            self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        os.close(self.master)
        self.master = None


def on_terminal(argv, environment, timeout=30):
    """Runs a program with a terminal as its output. Returns exit code and text, with line ends as in a pipe."""
    return OnTerminal(argv, environment).finish(timeout)


def shape(value, numbers):
    """JSON with one member a line, moving numbers and hardware addresses masked."""
    def mask(node):
        if isinstance(node, dict):
            return {key: mask(item) for key, item in node.items()}
        if isinstance(node, list):
            return [mask(item) for item in node]
        return 0 if isinstance(node, (int, float)) and not isinstance(node, bool) else node
    return masked(json.dumps(mask(value) if numbers else value, indent=1)) + "\n"
