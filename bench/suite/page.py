"""The page of the last results: the machine, the tables, the plots, and what the figures mean."""

from .marks import judged

_INTRODUCTION = """<!-- Made by bench/run --page; what the figures mean is in bench/suite/page.py. -->
# What forwarding costs

The last results of `./run bench`. Run it on the machine that matters to you: figures of another one, or of another
day, say little. Each is the median of its runs, with the smallest and the largest beside it.

"""

_FLOORS = """
A packet's cost has a part that nobody can save: each copy has to be allocated, filled and freed again. The *floor* of a
forwarding row is exactly that, in bulk, for the same size and number of copies, measured in turn with the row; *ratio*
says how many times the floor a copy costs in the whole graph, from the source to the sink: the median of the ratios of
the single runs, since a virtual machine may change its speed between two of them. Times are processor time of the
worker, so other load on the machine does not count as cost, but for the caches that it takes.

"""

_READING = {
    "forwarding": "A source with flows in random order, the multicast module, a sink, on one worker that spins. "
                  "`ipv4-bare` packets come without an Ethernet header.",
    "tables": "64-byte packets to one interface; each flow has its route, and flows come in random order.",
    "scenarios": "64-byte packets. *Beside the flood*: two sources take turns on one worker; installed traffic keeps "
                 "its share when it reaches half of what it reaches alone. The rows of two workers say how many times "
                 "one worker's rate both reach together, to four interfaces each.",
    "engine": "DPDK's own application between two ports of driver `net_null`, on one core. The row `PortInc -> "
              "PortOut` above is this framework between the same ports; the difference is what the graph costs.",
    "control": "Commands over the daemon's Unix socket, and what the tables take.",
    "kernel": "Hosts are network namespaces, cables are veth pairs, the source sends 64-byte packets as fast as the "
              "rate asks; loss-free is the highest rate of which no receiver misses more than one packet of a "
              "thousand. The kernel forwards on the sender's core, inside of its system call; the daemon takes the "
              "frames from packet sockets and works on the other core. *Ratio*: the daemon's rate over the kernel's.",
}
_TITLES = {"forwarding": "The multicast module", "tables": "Large tables", "scenarios": "Beside plain forwarding",
           "engine": "The engine below", "control": "The control plane", "kernel": "Beside the kernel"}
_PLOTS = """
![cost of a copy over fan-out](../pictures/bench-fan-out.svg)

![cost of a packet over table size](../pictures/bench-table-size.svg)

"""


def _cell(text):
    return text.replace("|", "\\|").replace("<", "&lt;")


def _table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "|" + "---|" * len(heads)]
    return "\n".join([*lines, *("| " + " | ".join(map(_cell, row)) + " |" for row in rows)]) + "\n"


def _marks(results):
    rows = [row for part in results.values() for row in part["rows"] if judged(row) is not None]
    missed = [row["name"] for row in rows if not judged(row)]
    text = f"Of {len(rows)} marks {len(rows) - len(missed)} are reached."
    if missed:
        text += " Missed: " + "; ".join(missed) + "."
    return text + "\n"


def _machine(part):
    return ", ".join(f"{name} {value}" for name, value in part["machine"].items()) + "."


def text(results, heads, columns):
    """The page. `columns` makes the fields of one row."""
    parts = [_INTRODUCTION, _marks(results), _FLOORS]
    for name, part in results.items():
        if name not in _TITLES:
            continue
        parts.append(f"## {_TITLES[name]}\n\n{_READING[name]}\n\nMeasured: {_machine(part)}\n\n")
        parts.append(_table(heads, [columns(row) for row in part["rows"]]))
        parts.append(_PLOTS if name == "forwarding" else "\n")
    return "".join(parts).rstrip() + "\n"
