#!/usr/bin/python3
"""The control plane of a real daemon: commands per second over its socket, a dump and a listing of many routes, memory
for each route, and what an idle daemon takes.

    bench/control.py [--runs N] [--routes N] [--json FILE]
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests"))

from testbed.daemon import Daemon  # noqa: E402
from testbed.run import BUILD, Run, exit_on_signals, wait_until  # noqa: E402

CONFIG = """
workers: 2
ports:
  p1: net_ring0
  p2: net_ring1
interfaces:
  Ethernet1: {port: p1, mac: "02:00:00:00:00:01"}
  Ethernet2: {port: p2, mac: "02:00:00:00:00:02"}
"""
DUMP = "Mroute4_default"
TICKS = os.sysconf("SC_CLK_TCK")


class Figure:
    def __init__(self, name, unit, mark):
        self.name, self.unit, self.mark, self.samples = name, unit, mark, []

    def row(self):
        return {"name": self.name, "unit": self.unit, "median": statistics.median(self.samples),
                "min": min(self.samples), "max": max(self.samples), "runs": len(self.samples), "mark": self.mark}


def start_daemon(run):
    daemon = run.keep(Daemon(run, options=["--publish-period", "1000", "--plugin-dir", str(BUILD / "lib")]))
    config = run.directory / "bench.yaml"
    config.write_text(CONFIG)
    daemon.sfectl("apply", config)
    return daemon


def commands(daemon, options, *more):
    """Runs the client's side of the benchmark. Returns its rows."""
    file = daemon.run.directory / "commands.json"
    subprocess.run([str(BUILD / "bin" / "control_bench"), "--socket", daemon.socket, "--routes", str(options.routes),
                    "--json", str(file), *more], check=True, stdout=subprocess.DEVNULL)
    return json.loads(file.read_text())


def resident(daemon):
    """Bytes that the daemon has in memory, shared memory included."""
    text = Path(f"/proc/{daemon.process.pid}/smaps_rollup").read_text()
    return next(int(line.split()[1]) * 1024 for line in text.splitlines() if line.startswith("Rss:"))


def processor_seconds(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def seconds(work):
    start = time.monotonic()
    work()
    return time.monotonic() - start


def one_daemon(options, figures, number):
    with Run("bench") as run:
        daemon = start_daemon(run)
        pid = daemon.process.pid
        spent = processor_seconds(pid)
        idle = seconds(lambda: time.sleep(options.idle))
        figures["idle"].samples.append(100 * (processor_seconds(pid) - spent) / idle)
        before = resident(daemon)
        commands(daemon, options, "--only-add")
        figures["memory"].samples.append((resident(daemon) - before) / options.routes)
        out = run.directory / "out"
        figures["show"].samples.append(seconds(lambda: out.write_text(daemon.sfectl("show", "mroute"))))
        dump = wait_until(lambda: daemon.state_file(DUMP), 15)
        if dump is not None:
            figures["dump"].samples.append(seconds(lambda: daemon.state_file(DUMP)))
        return commands(daemon, options, "--runs", str(options.runs)) if number == 0 else []


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--routes", type=int, default=100_000)
    parser.add_argument("--idle", type=float, default=3.0, help="seconds that the idle daemon is watched")
    parser.add_argument("--json", type=Path)
    options = parser.parse_args()
    count = f"{options.routes:,} routes"
    figures = {
        "show": Figure(f"sfectl show mroute, {count}", "s", "<= 0.5"),
        "dump": Figure(f"cat of the state file, {count}", "s", "<= 4"),
        "memory": Figure(f"memory for a route with 4 outgoing interfaces, of {count}", "bytes", "<= 640"),
        "idle": Figure("idle daemon, 2 workers and 2 ports, of a core", "%", "<= 3"),
    }
    rows = []
    for number in range(options.runs):
        rows += one_daemon(options, figures, number)
    rows += [figure.row() for figure in figures.values() if figure.samples]
    for row in rows:
        print(f"{row['name']:<66} {row['median']:12.2f} {row['unit']:<6} {row['min']:12.2f}..{row['max']:<12.2f} "
              f"{row['mark']}")
    if options.json:
        options.json.write_text(json.dumps(rows, indent=2) + "\n")


if __name__ == "__main__":
    exit_on_signals()
    main()
