"""The machine that figures belong to."""

import os
import re
import subprocess
import time
from pathlib import Path

from testbed.run import ROOT

HUGE_PAGES = Path("/proc/sys/vm/nr_hugepages")
HUGE_PAGE_MB = 2


def _output(*argv):
    try:
        result = subprocess.run(argv, capture_output=True, text=True, cwd=ROOT)
    except OSError:
        return ""
    return result.stdout.strip() if result.returncode == 0 else ""


def _field(path, name):
    match = re.search(rf"^{name}\s*:\s*(.*)$", Path(path).read_text(), re.M)
    return match.group(1) if match else "unknown"


def describe():
    """Names and versions of what figures depend on, as text."""
    memory = int(_field("/proc/meminfo", "MemTotal").split()[0]) / 2**20
    return {
        "date": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()),
        "processor": f"{_field('/proc/cpuinfo', 'model name')}, {os.cpu_count()} cores",
        "memory": f"{memory:.0f} GB",
        "kernel": os.uname().release,
        "compiler": _output("g++-12", "-dumpfullversion"),
        "DPDK": _output("pkg-config", "--modversion", "libdpdk"),
        "revision": _output("git", "describe", "--always", "--dirty", "--abbrev=12"),
    }


class HugePages:
    """Reserves huge pages while the block runs. Nothing happens for 0 megabytes."""

    def __init__(self, megabytes):
        self._pages = -(-megabytes // HUGE_PAGE_MB)
        self._before = None

    def __enter__(self):
        if self._pages == 0:
            return self
        self._before = HUGE_PAGES.read_text()
        HUGE_PAGES.write_text(str(int(self._before) + self._pages))
        reserved = int(HUGE_PAGES.read_text()) - int(self._before)
        if reserved < self._pages:
            self.__exit__()
            raise SystemExit(f"run bench: this machine has memory for {reserved} huge pages of {self._pages}")
        return self

    def __exit__(self, *error):
        if self._before is not None:
            HUGE_PAGES.write_text(self._before)
        return False
