"""The demo tells the truth when it is stopped in the middle: it ends at once and leaves nothing behind."""

import os
import signal
import subprocess
from pathlib import Path

import pytest

from testbed.run import BUILD, ROOT, leftovers, wait_until


def of_demo(demo):
    """What is there of a demo, directory included."""
    name = f"sfedemo{demo.pid}x1"
    directories = [entry.name for entry in Path("/tmp").iterdir() if entry.name.startswith(name)]
    return leftovers(name, Path("/none")) + directories


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
@pytest.mark.parametrize("moment", ["A daemon with", "packets to three receivers"])
def test_interrupted_demo_leaves_nothing_behind(number, moment):
    demo = subprocess.Popen(["/usr/bin/python3", "-B", "-u", str(ROOT / "tests" / "demo")], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, env={**os.environ, "SFE_BUILD": str(BUILD)})
    for line in demo.stdout:
        if moment in line:
            break
    if moment == "A daemon with":
        # In the middle of the start: the daemon's process is there, its answer is not.
        assert wait_until(lambda: any("process" in left for left in of_demo(demo)), 20)
    demo.send_signal(number)
    output, _ = demo.communicate(timeout=60)
    assert demo.returncode == 128 + number, output
    assert of_demo(demo) == []
