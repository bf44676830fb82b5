"""The engine floor: DPDK's own test application moves packets from one software port to another."""

import os
import re
import select
import shutil
import subprocess
import time
from pathlib import Path

from .marks import Failed, Skipped, row

PROGRAM = "dpdk-testpmd"
_PATIENCE = 30  # seconds
_READY = re.compile(r"testpmd> ")
_TOTAL = re.compile(r"Accumulated forward statistics.*?TX-packets: (\d+)\s.*?\+{40}", re.S)


class Application:
    """The application on its command line, one forwarding core, two ports of driver net_null."""

    def __init__(self, huge):
        memory = ["--in-memory", "-m", str(huge)] if huge else ["--no-huge", "-m", "512", "--no-shconf",
                                                                "--iova-mode=va"]
        # Line by line also into a pipe.
        argv = ["stdbuf", "-oL", PROGRAM, *memory, "--no-pci", "--no-telemetry", "-l", "0,1", "--vdev", "net_null0",
                "--vdev", "net_null1", "--", "-i", "--forward-mode=io", "--nb-cores=1", "--total-num-mbufs=16384"]
        self.process = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT)
        try:
            self._read_until(_READY)
        except BaseException:  # nobody else knows of the process yet
            self.close()
            raise

    def _read_until(self, pattern):
        """What the application says up to the pattern, as a match of it."""
        text = ""
        while not (found := pattern.search(text)):
            if not select.select([self.process.stdout], [], [], _PATIENCE)[0]:
                raise Failed(f"{PROGRAM} hangs: {text[-1000:]}")
            data = os.read(self.process.stdout.fileno(), 65536)
            if not data:
                raise Failed(f"{PROGRAM} ended: {text[-1000:]}")
            text += data.decode(errors="replace")
        return found

    def _command(self, text):
        self.process.stdin.write(f"{text}\n".encode())
        self.process.stdin.flush()

    def busy_ns(self):
        """Processor time of the forwarding thread."""
        for task in Path(f"/proc/{self.process.pid}/task").iterdir():
            if (task / "comm").read_text().startswith(("lcore-worker", "rte-worker")):
                return int((task / "schedstat").read_text().split()[0])
        raise Failed(f"{PROGRAM} has no forwarding thread")

    def ns_per_packet(self, seconds):
        before = self.busy_ns()
        self._command("start")
        time.sleep(seconds)
        self._command("stop")
        packets = int(self._read_until(_TOTAL).group(1))
        if packets == 0:
            raise Failed(f"{PROGRAM} forwarded nothing")
        return (self.busy_ns() - before) / packets

    def close(self):
        if self.process.poll() is None:
            try:
                self._command("quit")
                self.process.communicate(timeout=10)
            except (OSError, subprocess.TimeoutExpired):
                self.process.kill()
        self.process.wait()
        self.process.stdout.close()


def measure(options):
    if shutil.which(PROGRAM) is None:
        raise Skipped(f"{PROGRAM} is not installed")
    application = Application(options.huge)
    try:
        runs, seconds = (1, 0.05) if options.short else (5, 0.5)
        application.ns_per_packet(seconds)  # warm
        samples = [application.ns_per_packet(seconds) for _ in range(runs)]
    finally:
        application.close()
    return [row("DPDK's test application, net_null", "ns/packet", samples, group="engine")]
