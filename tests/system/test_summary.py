"""What the last lines of a test run say: also of tests that were skipped inside programs that passed."""

import os
import subprocess

import pytest

from testbed.run import BUILD, ROOT

PYTEST_FILE = """
import pytest

def test_runs():
    pass

def test_stays_behind():
    pytest.skip("the machine has no such thing")
"""


def summary(directory, names, failed=(), **environment):
    """tools/summary over CTest's report of tests of these names."""
    cases = "".join(f'<testcase name="{name}">{"<failure/>" if name in failed else ""}</testcase>' for name in names)
    (directory / "tests.xml").write_text(f"<testsuite>{cases}</testsuite>")
    return subprocess.run([str(ROOT / "tools" / "summary"), str(directory / "tests.xml")], capture_output=True,
                          text=True, timeout=30, env={**os.environ, "SFE_NO_SKIPS": "", **environment})


@pytest.fixture(scope="module")
def skipping(tmp_path_factory):
    """The reports of a GoogleTest program without the right that its tests need, and of pytest."""
    directory = tmp_path_factory.mktemp("run")
    reports = directory / "reports"
    program = subprocess.run(["setpriv", "--bounding-set=-sys_admin", str(BUILD / "bin" / "port_veth_test")],
                             env={**os.environ, "GTEST_OUTPUT": f"xml:{reports}/program.xml"},
                             capture_output=True, text=True, timeout=60)
    assert program.returncode == 0, program.stdout
    file = directory / "test_some.py"
    file.write_text(PYTEST_FILE)
    result = subprocess.run(["/usr/bin/python3", "-B", "-m", "pytest", "-q", "-p", "no:cacheprovider",
                             f"--junitxml={reports}/script.xml", str(file)],
                            capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stdout
    return directory


def test_skips_inside_programs_are_named_with_their_reason(skipping):
    result = summary(skipping, ["program", "script", "without_report"])
    lines = result.stdout.splitlines()
    assert result.returncode == 0
    assert any(line.startswith("skipped inside program: ") and "no right to make a network namespace" in line
               for line in lines), lines
    assert any(line.startswith("skipped inside script: ") and "test_stays_behind" in line
               and "no such thing" in line for line in lines), lines
    assert not any("test_runs" in line for line in lines)
    assert lines[-1].startswith("3 passed, 0 failed, ") and lines[-1].endswith(" skipped inside programs")


def test_skips_fail_a_run_that_forbids_them(skipping):
    assert summary(skipping, ["script"], SFE_NO_SKIPS="1").returncode == 1
    assert summary(skipping, ["without_report"], SFE_NO_SKIPS="1").returncode == 0


def test_failures_are_named(skipping):
    result = summary(skipping, ["without_report", "other"], failed=["other"])
    assert (result.returncode, result.stdout) == (1, "failed: other\n1 passed, 1 failed\n")
