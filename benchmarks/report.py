"""Rows of the benchmark table, the table as Markdown, and the picture of cost by services."""

import math
import platform
import statistics
import subprocess


def row(name, samples, goal=None, unit="x"):
    """A goal is the most that the median may be; ("least", n) is the least."""
    figure = statistics.median(samples)
    reached = None
    if goal is not None:
        reached = figure >= goal[1] if isinstance(goal, tuple) else figure <= goal
    return {"name": name, "figure": figure, "low": min(samples), "high": max(samples),
            "samples": len(samples), "goal": goal, "unit": unit, "reached": reached}


def number(value):
    return f"{value:.0f}" if value >= 100 or value == int(value) else f"{value:.2f}"


def goal_text(goal):
    if goal is None:
        return ""
    return f"≥ {goal[1]}" if isinstance(goal, tuple) else f"≤ {goal}"


def cells(one):
    unit = "" if one["unit"] == "x" else " " + one["unit"]
    return (one["name"], number(one["figure"]) + unit, goal_text(one["goal"]),
            f"{number(one['low'])} to {number(one['high'])}", str(one["samples"]),
            {None: "", True: "yes", False: "NO"}[one["reached"]])


def table(rows):
    lines = [("measurement", "figure", "goal", "min to max", "rounds", "reached"), *map(cells, rows)]
    widths = [max(map(len, column)) for column in zip(*lines)]
    lines.insert(1, ["-" * width for width in widths])
    return "\n".join(
        "| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |"
        for line in lines)


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True).stdout.strip()


def machine():
    with open("/proc/cpuinfo") as info:
        models = [line.split(":", 1)[1].strip() for line in info if line.startswith("model name")]
    return {"processor": models[0] if models else platform.machine(), "cores": len(models),
            "kernel": platform.release(), "compiler": output_of("g++", "--version").split("\n")[0],
            "libcurl": output_of("pkg-config", "--modversion", "libcurl")
            or output_of("curl-config", "--version")}


STEPS = {"registration": "#1b6ca8", "check": "#2e8b57", "recovery": "#b8432f",
         "withdrawal": "#8a5fb0"}
LEFT, RIGHT, TOP, BOTTOM = 60, 560, 50, 330


def picture(costs):
    """`costs[step][services]` is a list of multiples of a bare request; returns SVG."""
    counts = sorted(next(iter(costs.values())))
    highest = math.ceil(max(max(s) for by in costs.values() for s in by.values())) + 1

    def x(count):
        first, last = math.log(counts[0]), math.log(counts[-1])
        return LEFT + (RIGHT - LEFT) * (math.log(count) - first) / max(last - first, 1e-9)

    def y(cost):
        return BOTTOM - (BOTTOM - TOP) * cost / highest

    parts = ['<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 700 390" '
             'font-family="sans-serif" font-size="13">',
             '<rect width="700" height="390" fill="white"/>',
             '<text x="60" y="25" font-size="15">Processor time for one service, by the number of '
             'services</text>',
             f'<text x="{(LEFT + RIGHT) / 2}" y="378" text-anchor="middle">services in one process'
             '</text>',
             '<text transform="translate(20 190) rotate(-90)" text-anchor="middle">multiples of a '
             'bare libcurl request</text>']
    for cost in range(highest + 1):
        parts.append(f'<path d="M{LEFT} {y(cost):.1f}H{RIGHT}" stroke="#ddd"/><text x="{LEFT - 8}" '
                     f'y="{y(cost) + 4:.1f}" text-anchor="end">{cost}</text>')
    for count in counts:
        parts.append(f'<text x="{x(count):.1f}" y="{BOTTOM + 20}" text-anchor="middle">{count:,}'
                     '</text>')
    lowest_label = BOTTOM
    for step, by in sorted(costs.items(), key=lambda item: statistics.median(item[1][counts[-1]])):
        color = STEPS[step]
        middle = {count: statistics.median(by[count]) for count in counts}
        points = " ".join(f"{x(c):.1f},{y(middle[c]):.1f}" for c in counts)
        parts.append(f'<polyline points="{points}" fill="none" stroke="{color}" stroke-width="2"/>')
        for count in counts:
            least, most = y(min(by[count])), y(max(by[count]))
            parts.append(f'<path d="M{x(count):.1f} {least:.1f}V{most:.1f}" stroke="{color}"/>'
                         f'<circle cx="{x(count):.1f}" cy="{y(middle[count]):.1f}" r="3" '
                         f'fill="{color}"/>')
        lowest_label = min(y(middle[counts[-1]]) + 4, lowest_label - 16)
        parts.append(f'<text x="{RIGHT + 10}" y="{lowest_label:.1f}" fill="{color}">{step}</text>')
    return "\n".join(parts + ["</svg>"]) + "\n"
