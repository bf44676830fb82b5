"""The parts of the benchmarks: each runs its programs and returns their rows.

A row is what the programs write: name, unit, median, min, max, runs, mark, and further fields of its own.
"""

import json
import subprocess
import tempfile
from pathlib import Path

from testbed.namespaces import available
from testbed.run import BUILD, ROOT, start

from . import kernel, testpmd
from .marks import Failed, Skipped

BIN = BUILD / "bin"
RUNS = 11  # of each row in memory: a virtual machine may change its speed in between


def program(path, *arguments):
    """Runs a program that writes its rows with --json FILE."""
    if not Path(path).exists():
        raise Skipped(f"{Path(path).name} is not built")
    with tempfile.TemporaryDirectory(prefix="sfebench") as directory:
        file = Path(directory) / "rows.json"
        process = start([str(path), *map(str, arguments), "--json", str(file)], {}, stdout=subprocess.DEVNULL,
                        cwd=ROOT)
        try:
            process.wait()
        finally:
            process.terminate()
            process.wait()
            # A program that was interrupted leaves its counter tables.
            for table in Path("/dev/shm").glob(f"sfe.bench{process.pid}.*"):
                table.unlink()
        if process.returncode != 0 or not file.exists():
            raise Failed(f"{Path(path).name} ended with {process.returncode}")
        return json.loads(file.read_text())


def in_memory(part, options, *lists):
    extent = ["--short"] if options.short else [*(["--full"] if options.full else []), "--runs", RUNS]
    huge = ["--huge", options.huge] if options.huge else []
    return program(BIN / "forwarding_bench", *extent, *huge, "--only", part, *lists)


def forwarding(options):
    return in_memory("matrix", options)


def tables(options):
    """Flows in random order over ever larger tables."""
    routes = "1,1000" if options.short else "1,1000,100000,1000000"
    return in_memory("matrix", options, "--modes", "ipv4", "--sizes", "64", "--fan-outs", "1", "--routes", routes)


def scenarios(options):
    return in_memory("scenarios", options)


def engine(options):
    return testpmd.measure(options)


def control(options):
    few = ["--runs", 1, "--routes", 1000] if options.short else []
    rows = []
    found = False
    for path, arguments in ((ROOT / "bench" / "control.py", [*few, *(["--idle", 0.2] if options.short else [])]),
                            (BIN / "route_bench", few)):
        if path.exists():
            found = True
            rows += program(path, *arguments)
    if not found:
        raise Skipped("its programs are not built")
    return rows


def kernel_routing(options):
    allowed, reason = available()
    if not allowed:
        raise Skipped(f"it needs network namespaces: {reason}")
    return kernel.measure(options)


def units(options):
    """Prints what the units' own benchmarks print; they have no rows."""
    for path in sorted(BIN.glob("*Benchmark")):
        print(f"-- {path.name}", flush=True)
        few = ["--benchmark_min_time=0.01"] if options.short else []
        if subprocess.run([str(path), *few]).returncode != 0:
            raise Failed(f"{path.name} failed")
    return []


PARTS = {"forwarding": forwarding, "tables": tables, "scenarios": scenarios, "engine": engine,
         "control": control, "kernel": kernel_routing, "units": units}
