"""Expected outputs in tests/golden, and what a program prints on a terminal.

SFE_GOLDEN=write makes the files anew from what the programs print now; the difference is for a person to read.
"""

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


def on_terminal(argv, environment, timeout=30):
    """Runs a program with a terminal as its output. Returns exit code and text, with line ends as in a pipe."""
    master, slave = pty.openpty()
    try:
        process = subprocess.Popen(argv, env=environment, stdin=slave, stdout=slave, stderr=slave)
    finally:
        os.close(slave)
    chunks = []
    deadline = time.monotonic() + timeout
    try:
        while time.monotonic() < deadline:
            if not select.select([master], [], [], 0.2)[0]:
                continue
            try:
                chunk = os.read(master, 65536)
            except OSError:  # the last holder of the other end is gone
                break
            chunks.append(chunk)
    finally:
        if process.poll() is None and time.monotonic() >= deadline:
            process.kill()
        process.wait()
        os.close(master)
    return process.returncode, b"".join(chunks).decode(errors="replace").replace("\r\n", "\n")
