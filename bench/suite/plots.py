"""Plots of the figures as SVG: lines over a logarithmic axis, without any library."""

import math
from html import escape

WIDTH, HEIGHT = 640, 400
LEFT, RIGHT, TOP, BOTTOM = 70, 170, 40, 50
COLOURS = ["#1b6ca8", "#c8553d", "#3a7d44", "#7d4f9e", "#b08900", "#555555"]


def _steps(most):
    """About five round values from 0 to `most`."""
    rough = max(most, 1e-9) / 5
    unit = 10 ** math.floor(math.log10(rough))
    step = next(unit * factor for factor in (1, 2, 5, 10) if unit * factor >= rough)
    return [step * i for i in range(int(most / step) + 2)]


class Plot:
    def __init__(self, title, x_label, y_label, lines):
        """lines: {name: {"points": [(x, y)], "dashed": bool}}; every x > 0."""
        self.lines = {name: line for name, line in lines.items() if line["points"]}
        points = [point for line in self.lines.values() for point in line["points"]] or [(1, 1)]
        self.xs = sorted({x for x, _ in points})
        self.steps = _steps(max(y for _, y in points))
        self.title, self.x_label, self.y_label = title, x_label, y_label

    def x(self, value):
        low, high = math.log(self.xs[0]), math.log(self.xs[-1])
        share = (math.log(value) - low) / (high - low) if high > low else 0.5
        return LEFT + share * (WIDTH - LEFT - RIGHT)

    def y(self, value):
        return HEIGHT - BOTTOM - value / self.steps[-1] * (HEIGHT - TOP - BOTTOM)

    def _axes(self):
        right, bottom = WIDTH - RIGHT, HEIGHT - BOTTOM
        for step in self.steps:
            y = self.y(step)
            yield f'<line x1="{LEFT}" y1="{y:.1f}" x2="{right}" y2="{y:.1f}" stroke="#dddddd"/>'
            yield f'<text x="{LEFT - 8}" y="{y + 4:.1f}" text-anchor="end">{step:g}</text>'
        for value in self.xs:
            yield f'<text x="{self.x(value):.1f}" y="{bottom + 18}" text-anchor="middle">{value:,.0f}</text>'
        yield f'<line x1="{LEFT}" y1="{bottom}" x2="{right}" y2="{bottom}" stroke="#333333"/>'
        yield f'<text x="{(LEFT + right) / 2}" y="{HEIGHT - 10}" text-anchor="middle">{escape(self.x_label)}</text>'
        yield (f'<text transform="translate(16 {(TOP + bottom) / 2}) rotate(-90)" text-anchor="middle">'
               f'{escape(self.y_label)}</text>')
        yield f'<text x="{LEFT}" y="22" font-weight="bold">{escape(self.title)}</text>'

    def _lines(self):
        for number, (name, line) in enumerate(self.lines.items()):
            colour = COLOURS[number % len(COLOURS)]
            dash = ' stroke-dasharray="5 4"' if line["dashed"] else ""
            path = " ".join(f"{self.x(x):.1f},{self.y(y):.1f}" for x, y in line["points"])
            yield f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"{dash}/>'
            for x, y in line["points"]:
                yield f'<circle cx="{self.x(x):.1f}" cy="{self.y(y):.1f}" r="3" fill="{colour}"/>'
            at, key = TOP + 18 * number, WIDTH - RIGHT + 12
            yield f'<line x1="{key}" y1="{at}" x2="{key + 22}" y2="{at}" stroke="{colour}" stroke-width="2"{dash}/>'
            yield f'<text x="{key + 28}" y="{at + 4}">{escape(name)}</text>'

    def svg(self):
        body = "\n".join([*self._axes(), *self._lines()])
        return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" width="{WIDTH}" '
                f'height="{HEIGHT}" font-family="sans-serif" font-size="12">\n'
                f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#ffffff"/>\n{body}\n</svg>\n')


def _line(points, dashed=False):
    return {"points": sorted(points), "dashed": dashed}


def cost_over_fan_out(rows):
    """IPv4 in Ethernet frames, the table size of which there are the most rows."""
    rows = [row for row in rows if row.get("group") == "forwarding" and row["mode"] == "ipv4"]
    tables = [row["routes"] for row in rows]
    if tables:
        usual = max(set(tables), key=lambda routes: (tables.count(routes), routes))
        rows = [row for row in rows if row["routes"] == usual]
    lines = {}
    for size in sorted({row["bytes"] for row in rows}):
        of_size = [row for row in rows if row["bytes"] == size]
        lines[f"{size:.0f} bytes"] = _line([(row["fan_out"], row["median"]) for row in of_size])
        lines[f"{size:.0f} bytes, copy alone"] = _line([(row["fan_out"], row["floor"]) for row in of_size], True)
    return Plot("Cost of a copy over fan-out", "outgoing interfaces", "ns per copy", lines).svg()


def cost_over_routes(rows):
    """64 bytes, IPv4 in Ethernet frames."""
    rows = [row for row in rows
            if row.get("group") == "forwarding" and row["mode"] == "ipv4" and row["bytes"] == 64]
    lines = {}
    for fan_out in sorted({row["fan_out"] for row in rows}):
        points = {row["routes"]: row["ns_per_packet"] for row in rows if row["fan_out"] == fan_out}.items()
        if len(points) > 1:
            name = "interface" if fan_out == 1 else "interfaces"
            lines[f"to {fan_out:.0f} {name}"] = _line(points)
    return Plot("Cost of a packet over table size", "routes, in random order", "ns per packet", lines).svg()
