"""The benchmarks in their short form: every part runs and says what it measured. The figures mean nothing."""

import json
import subprocess

import pytest

from testbed.run import ROOT

FIELDS = {"name": str, "unit": str, "median": (int, float), "min": (int, float), "max": (int, float), "runs": int}


@pytest.fixture(scope="module")
def results(tmp_path_factory):
    output = tmp_path_factory.mktemp("bench")
    parts = "forwarding,tables,scenarios,engine,kernel"
    ended = subprocess.run([str(ROOT / "bench" / "run"), "--short", "--only", parts, "--output", str(output)],
                           capture_output=True, text=True, timeout=120)
    assert ended.returncode == 0, ended.stderr[-4000:] + ended.stdout[-1000:]
    return output


@pytest.fixture(scope="module")
def rows(results):
    return {part: found["rows"] for part, found in json.loads((results / "results.json").read_text()).items()}


def test_each_part_has_rows_of_one_form(rows):
    assert set(rows) == {"forwarding", "tables", "scenarios", "engine", "kernel"}
    for found in rows.values():
        names = [row["name"] for row in found]
        assert names and len(names) == len(set(names))
        for row in found:
            for field, kind in FIELDS.items():
                assert isinstance(row[field], kind), row
            # On a busy machine no rate between hosts may be without loss.
            assert row["unit"] == "packets/s" or row["min"] > 0, row
            assert row["min"] <= row["median"] <= row["max"], row
            assert row["mark"] is None or row["reached"] in (True, False), row


def test_forwarding_is_measured_against_its_floors(rows):
    forwarding = rows["forwarding"]
    cases = {(row["mode"], row["bytes"], row["fan_out"], row["routes"]) for row in forwarding}
    assert cases == {(mode, 64, fan_out, routes) for mode in ("ipv4", "ipv4-bare", "ipv6")
                     for fan_out in (1, 4) for routes in (1, 100)}
    for row in forwarding:
        assert row["floor"] > 0 and row["graph_floor"] > 0, row
        assert row["ratio"] > 1, row
        assert row["ns_per_packet"] == pytest.approx(row["median"] * row["fan_out"], rel=0.01)


def test_scenarios_and_hosts_are_measured(rows):
    names = " / ".join(row["name"] for found in rows.values() for row in found)
    for what in ("wrong-interface flood", "unknown-flow flood", "beside the flood", "(*,G)", "Register", "re-injection",
                 "net_null", "kernel routing", "this daemon"):
        assert what in names


def test_results_are_written_as_table_and_plots(results, rows):
    table = (results / "results.txt").read_text()
    for found in rows.values():
        for row in found:
            assert row["name"] in table
    for name in ("bench-fan-out.svg", "bench-table-size.svg"):
        text = (results / name).read_text()
        assert text.startswith("<svg ") and "<polyline" in text and "nan" not in text


def test_refuses_what_it_does_not_know():
    for arguments in (["--only", "nothing"], ["--no-such"]):
        ended = subprocess.run([str(ROOT / "bench" / "run"), *arguments], capture_output=True, text=True)
        assert ended.returncode == 2
        assert ended.stderr
