"""What is made of the rows: files in a directory, a table, plots, and the page of the last results."""

import json

from testbed.run import ROOT

from . import page, plots
from .machine import describe
from .marks import judged

ORDER = ["forwarding", "tables", "scenarios", "engine", "control", "kernel", "units"]
PAGE = ROOT / "docs" / "explanation" / "benchmarks.md"
PICTURES = ROOT / "docs" / "pictures"


def store(directory, part, rows, options):
    """Keeps a part's rows beside the machine that they belong to. A part without rows keeps what it had."""
    if not rows:
        return
    machine = {**describe(), "huge pages": f"{options.huge} MB" if options.huge else "none",
               "extent": "short" if options.short else "full" if options.full else "usual"}
    (directory / f"part-{part}.json").write_text(json.dumps({"machine": machine, "rows": rows}, indent=1) + "\n")


def load(directory):
    """The last rows of each part: {part: {"machine": ..., "rows": [...]}}."""
    found = {}
    for part in ORDER:
        file = directory / f"part-{part}.json"
        if file.exists():
            found[part] = json.loads(file.read_text())
    return found


def number(value):
    """Four digits that count, with thousands apart."""
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.1f}" if abs(value) >= 100 else f"{value:.2f}"


def verdict(row):
    reached = judged(row)
    if reached is None:
        return ""
    shown = f" ({number(row['mark_value'])})" if "mark_value" in row else ""
    return f"{row['mark']}{shown}: {'reached' if reached else 'MISSED'}"


def columns(row):
    """The fields of a row as the table shows them."""
    ratio = row.get("ratio") or 0
    return [row["name"], number(row["median"]), f"{number(row['min'])} .. {number(row['max'])}", row["unit"],
            number(row["floor"]) if ratio else "", f"{ratio:.2f}" if ratio else "", verdict(row)]


HEADS = ["", "median", "min .. max", "", "floor", "ratio", "mark"]


def table(results):
    """One table of all parts, for a terminal."""
    lines = [HEADS, *(columns(row) for part in results.values() for row in part["rows"])]
    widths = [max(len(line[i]) for line in lines) for i in range(len(HEADS))]
    text = []
    for line in lines:
        cells = [field.ljust(width) if i in (0, 3, 6) else field.rjust(width)
                 for i, (field, width) in enumerate(zip(line, widths))]
        text.append("  ".join(cells).rstrip())
    marked = [judged(row) for part in results.values() for row in part["rows"]]
    reached, missed = marked.count(True), marked.count(False)
    return "\n".join([*text, "", f"{reached} marks reached, {missed} missed"])


def pictures(results):
    plain = results.get("forwarding", {}).get("rows", [])
    tables = results.get("tables", {}).get("rows", [])
    return {"bench-fan-out.svg": plots.cost_over_fan_out(plain),
            "bench-table-size.svg": plots.cost_over_routes([*plain, *tables])}


def write(directory, results):
    (directory / "results.json").write_text(json.dumps(results, indent=1) + "\n")
    (directory / "results.txt").write_text(table(results) + "\n")
    for name, text in pictures(results).items():
        (directory / name).write_text(text)
    print(f"written: {directory}/results.json, results.txt, {', '.join(pictures(results))}")


def write_page(results):
    for name, text in pictures(results).items():
        (PICTURES / name).write_text(text)
    PAGE.write_text(page.text(results, HEADS, columns))
    print(f"written: {PAGE.relative_to(ROOT)}")
