"""Draws what a soak has measured: memory, threads, descriptors and latency over time, with the faults above."""

import html
import math

LEFT, WIDTH, HEIGHT, GAP, ROW = 90, 760, 110, 34, 11  # room for labels, a panel's size, between two, a peer's row of faults
STYLE = """
  text { font: 12px sans-serif; fill: #24292f } .head { font-weight: bold } .small { font-size: 11px }
  .grid { stroke: #d0d7de } .first { stroke: #0969da } .second { stroke: #bc4c00 } path { fill: none; stroke-width: 1.3 }
  .firstDot { fill: #0969da } .secondDot { fill: #bc4c00 } .kill { fill: #cf222e } .stop { fill: #8250df }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3 } .grid { stroke: #3d444d } .first { stroke: #58a6ff } .second { stroke: #f0883e }
    .firstDot { fill: #58a6ff } .secondDot { fill: #f0883e } .kill { fill: #f85149 } .stop { fill: #a371f7 }
  }
"""


def nice(value):
    """The next 1, 2 or 5 times a power of ten."""
    power = 10 ** math.floor(math.log10(max(value, 1e-9)))
    return next(step * power for step in (1, 2, 5, 10) if step * power >= value)


class Panel:
    def __init__(self, title, top, low, high, isLogarithmic=False):
        self.title, self.top, self.low, self.high, self.isLogarithmic = title, top, low, high, isLogarithmic

    def y(self, value):
        if self.isLogarithmic:
            share = math.log(max(value, self.low) / self.low) / math.log(self.high / self.low)
        else:
            share = (value - self.low) / (self.high - self.low)
        return round(self.top + HEIGHT * (1 - min(max(share, 0), 1)), 1)

    def frame(self, unit):
        if self.isLogarithmic:
            ticks = [10 ** power for power in range(round(math.log10(self.low)), round(math.log10(self.high)) + 1)]
        else:
            step = nice((self.high - self.low) / 4)
            ticks = [step * i for i in range(int(self.high / step) + 1) if step * i >= self.low]
        parts = [f'<text class="head" x="10" y="{self.top - 8}">{html.escape(self.title)}</text>']
        for tick in ticks:
            parts.append(f'<line class="grid" x1="{LEFT}" x2="{LEFT + WIDTH}" y1="{self.y(tick)}" y2="{self.y(tick)}"/>'
                         f'<text class="small" text-anchor="end" x="{LEFT - 8}" y="{self.y(tick) + 4}">{tick:g}{unit}</text>')
        return parts


def drawing(studio):
    """`studio` has samples, rests, faults, and the moment of its beginning."""
    samples, begin = studio.samples, studio.begin
    length = max([look["t"] - begin for look in (samples[-1], *studio.rests[-1:])])
    mortal = [*(peer.name for peer in studio.mortal), "launched"]

    def x(moment):
        return round(LEFT + WIDTH * (moment - begin) / length, 1)

    def line(panel, key, css, scale=1.0):
        points = [(s["t"], s[key] * scale) for s in samples if s[key] is not None]
        step = max(1, len(points) // 700)
        points = [(chunk[0][0], sorted(value for _, value in chunk)[len(chunk) // 2])
                  for chunk in (points[i:i + step] for i in range(0, len(points), step))]
        if not points:
            return ""
        # A line ends where nothing was measured for a while.
        moves = ["M" if i == 0 or t - points[i - 1][0] > 2 * step + 3 else "L" for i, (t, _) in enumerate(points)]
        return f'<path class="{css}" d="' + " ".join(f"{move}{x(t)},{panel.y(value)}" for move, (t, value) in zip(moves, points)) + '"/>'

    def dots(panel, key, css, scale):
        return "".join(f'<circle class="{css}" cx="{x(r["t"])}" cy="{panel.y(r[key] * scale)}" r="2"/>'
                       for r in studio.rests if r["peer"] == "host" and r[key])

    def top(key, scale=1.0):
        return max(s[key] * scale for s in samples) * 1.05

    y = 44
    parts = [f'<text class="head" x="10" y="{y - 8}">peers that were killed or stopped</text>'
             f'<rect class="kill" x="{LEFT + 200}" y="{y - 17}" width="8" height="8"/><text class="small" x="{LEFT + 214}" y="{y - 8}">killed, until started again</text>'
             f'<rect class="stop" x="{LEFT + 374}" y="{y - 17}" width="8" height="8"/><text class="small" x="{LEFT + 388}" y="{y - 8}">stopped, until continued</text>']
    for name in mortal:
        parts.append(f'<text class="small" text-anchor="end" x="{LEFT - 8}" y="{y + 9}">{name}</text>')
        for fault in studio.faults:
            if fault.peer == name:
                width = max(x(fault.end or samples[-1]["t"]) - x(fault.begin), 1.5)
                parts.append(f'<rect class="{"stop" if fault.kind == "stop" else "kill"}" x="{x(fault.begin)}" y="{y + 2}" width="{width:.1f}" height="{ROW - 3}"/>')
        y += ROW
    y += GAP
    mebi = 1 / 2**20
    panels = []
    for title, unit, high, draw in (
        ("memory of the host (RssAnon); at rest (dots)", " MiB", top("memory", mebi),
         lambda p: [line(p, "memory", "first", mebi), dots(p, "memory", "firstDot", mebi)]),
        ("heap of the host in use at rest", " KiB", max([r["heap"] / 1024 for r in studio.rests if r["peer"] == "host" and r["heap"]] + [1]) * 1.3,
         lambda p: [dots(p, "heap", "secondDot", 1 / 1024)]),
        ("threads of the host; at rest (dots)", "", top("threads"), lambda p: [line(p, "threads", "first"), dots(p, "threads", "firstDot", 1)]),
        ("descriptors of the host; at rest (dots)", "", top("descriptors"),
         lambda p: [line(p, "descriptors", "first"), dots(p, "descriptors", "firstDot", 1)]),
    ):
        panel = Panel(title, y, 0, high)
        panels.append(panel)
        parts += panel.frame(unit) + draw(panel)
        y += HEIGHT + GAP
    panel = Panel("latency of requests in each second: median (blue), 99th percentile (orange); the machine had other work as well", y, 0.1, 10**4, True)
    parts += panel.frame(" ms") + [line(panel, "p50", "first", 1e-3), line(panel, "p99", "second", 1e-3)]
    y += HEIGHT
    step = nice(length / 60 / 8)
    for i in range(int(length / 60 / step) + 1):
        parts.append(f'<text class="small" text-anchor="middle" x="{x(begin + i * step * 60)}" y="{y + 18}">{i * step:g} min</text>')
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {LEFT + WIDTH + 30} {y + 30}" role="img">',
                      "<title>Memory, threads, descriptors and latency of a soak</title>", f"<style>{STYLE}</style>", *parts]) + "\n</svg>\n"
