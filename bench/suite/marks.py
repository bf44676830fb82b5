"""What parts report besides rows, and rows themselves."""

import statistics


class Skipped(Exception):
    """This machine cannot run the part."""


class Failed(Exception):
    """The part did not do what it was to be measured with."""


def row(name, unit, samples, **fields):
    return {"name": name, "unit": unit, "median": statistics.median(samples), "min": min(samples),
            "max": max(samples), "runs": len(samples), "mark": None, **fields}


def judged(found):
    """Whether a row reached its mark; None for a row without one. A mark begins with <= or >=."""
    if "reached" in found:
        return found["reached"]
    words = (found.get("mark") or "").replace("≤", "<= ").replace("≥", ">= ").split()
    if len(words) < 2 or words[0] not in ("<=", ">="):
        return None
    limit = float(words[1].replace(",", ""))
    return found["median"] <= limit if words[0] == "<=" else found["median"] >= limit
