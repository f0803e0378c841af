#!/usr/bin/env python3
"""Draws the ratios to the peers in the tables of a page: bench_plot.py PAGE SVG

A row of each table that has both a ratio and a goal becomes a dot on a logarithmic scale, with a mark where its goal lies.
Curves over how many there are come from bench_report.py.
"""

import html
import math
import pathlib
import re
import sys

LEFT, WIDTH, ROW, HEAD = 430, 480, 17, 30  # room for names, the scale, a row, a table's heading
STYLE = """
  text { font: 12px sans-serif; fill: #24292f } .head { font-weight: bold } .small { font-size: 11px }
  .grid { stroke: #d0d7de } .one { stroke: #57606a; stroke-width: 1.5 } .bar { stroke: #8c959f; stroke-width: 2 }
  .met { fill: #1a7f37 } .missed { fill: #cf222e } .goal { stroke: #0969da; stroke-width: 2 }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3 } .grid { stroke: #3d444d } .one { stroke: #9198a1 } .bar { stroke: #656c76 }
    .met { fill: #3fb950 } .missed { fill: #f85149 } .goal { stroke: #58a6ff }
  }
"""


def groups_of(page):
    """[(heading of the table, [(name, ratio, goal, sign, whether it is met)])]"""
    groups = []
    for block in re.finditer(r"<!-- [\w-]+ -->\n((?:\|.*\n)+)<!-- end -->", page):
        headings, _, *rows = ([cell.strip() for cell in line.strip("|").split("|")] for line in block[1].splitlines())
        ratio = next((i for i, heading in enumerate(headings) if heading.startswith("ratio")), None)
        if ratio is None or "goal" not in headings:
            continue
        dots = []
        for cells in rows:
            found = re.fullmatch(r"([≤≥]) ([\d.]+)", cells[headings.index("goal")])
            if found and float(cells[ratio]) > 0:
                dots.append((cells[0], float(cells[ratio]), float(found[2]), found[1], cells[headings.index("goal") + 1] == "met"))
        if dots:
            section = re.findall(r"^## (.*)", page[:block.start()], flags=re.M)[-1]
            what = "memory" if headings[0] == "document" else "time" if dots[0][3] == "≤" else "throughput"
            groups.append((f"{section}: {what}, {'less' if dots[0][3] == '≤' else 'more'} is better", dots))
    return groups


def drawing(groups):
    values = [number for _, dots in groups for _, ratio, goal, *_ in dots for number in (ratio, goal)]
    low, high = min(values + [0.5]) / 1.1, max(values + [2]) * 1.1

    def x(ratio):
        return round(LEFT + WIDTH * math.log(ratio / low) / math.log(high / low), 1)

    height = sum(HEAD + ROW * len(dots) for _, dots in groups) + 60
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {LEFT + WIDTH + 70} {height}" role="img">',
             "<title>Ratios to the peers</title>", f"<style>{STYLE}</style>"]
    for tick in (0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 20):
        if low <= tick <= high:
            parts.append(f'<line class="{"one" if tick == 1 else "grid"}" x1="{x(tick)}" x2="{x(tick)}" y1="30" y2="{height - 20}"/>'
                         f'<text class="small" text-anchor="middle" x="{x(tick)}" y="{height - 6}">{tick:g}</text>')
    parts.append('<circle class="met" cx="16" cy="14" r="4"/><text x="26" y="18">goal met</text>'
                 '<circle class="missed" cx="106" cy="14" r="4"/><text x="116" y="18">missed</text>'
                 '<line class="goal" x1="186" x2="186" y1="7" y2="21"/><text x="194" y="18">goal</text>'
                 f'<text x="{LEFT}" y="18">QELNetworkKit / peer; 1 is as the peer</text>')
    y = 30
    for title, dots in groups:
        y += HEAD
        parts.append(f'<text class="head" x="10" y="{y - 6}">{html.escape(title)}</text>')
        for name, ratio, goal, sign, is_met in dots:
            middle = y + ROW / 2
            parts.append(f'<text class="small" text-anchor="end" x="{LEFT - 10}" y="{middle + 4}">{html.escape(name)}</text>'
                         f'<line class="bar" x1="{x(1)}" x2="{x(ratio)}" y1="{middle}" y2="{middle}"/>'
                         f'<line class="goal" x1="{x(goal)}" x2="{x(goal)}" y1="{middle - 6}" y2="{middle + 6}"/>'
                         f'<circle class="{"met" if is_met else "missed"}" cx="{x(ratio)}" cy="{middle}" r="4"><title>{html.escape(name)}: {ratio:g}, goal {sign} '
                         f'{goal:g}</title></circle><text class="small" x="{LEFT + WIDTH + 12}" y="{middle + 4}">{ratio:.2f}</text>')
            y += ROW
    return "\n".join(parts) + "\n</svg>\n"


CHART, BETWEEN = (380, 170), (110, 70)  # a chart and the room around it
CURVE_STYLE = """
  .ours { stroke: #0969da; fill: none; stroke-width: 2 } .peer { stroke: #8c959f; fill: none; stroke-width: 2 }
  .at-ours { fill: #0969da } .at-peer { fill: #8c959f }
  @media (prefers-color-scheme: dark) {
    .ours { stroke: #58a6ff } .peer { stroke: #9198a1 } .at-ours { fill: #58a6ff } .at-peer { fill: #9198a1 }
  }
"""


def unit(value, names):
    """A number with one of `names`, each a thousand times the one before."""
    for name in names:
        if value < 1000 or name == names[-1]:
            return f"{value:g}{name}"
        value /= 1000
    return ""


def chart(left, top, title, peers):
    """What one costs over how many there are, both logarithmic, a line for each peer with its slope."""
    (width, height), each = CHART, {peer: [(n, cost / n) for n, cost in points] for peer, (points, _) in peers.items()}
    counts = [n for points in each.values() for n, _ in points]
    costs = [cost for points in each.values() for _, cost in points]
    low, high = (10 ** f(math.log10(v)) for f, v in ((math.floor, min(costs)), (math.ceil, max(costs))))
    if low == high:
        high *= 10

    def x(n):
        return round(left + width * math.log(n / min(counts)) / math.log(max(counts) / min(counts)), 1)

    def y(cost):
        return round(top + height * math.log(high / cost) / math.log(high / low), 1)

    parts = [f'<text class="head" x="{left}" y="{top - 24}">{html.escape(title)}</text>']
    for power in range(round(math.log10(low)), round(math.log10(high)) + 1):
        at = 10.0 ** power
        parts.append(f'<line class="grid" x1="{left}" x2="{left + width}" y1="{y(at)}" y2="{y(at)}"/><text class="small" text-anchor="end" '
                     f'x="{left - 6}" y="{y(at) + 4}">{unit(round(at * 1e6), (" ps", " ns", " µs", " ms", " s"))}</text>')
    for n in dict.fromkeys(counts):
        parts.append(f'<line class="grid" x1="{x(n)}" x2="{x(n)}" y1="{top}" y2="{top + height}"/><text class="small" text-anchor="middle" '
                     f'x="{x(n)}" y="{top + height + 16}">{n:,}</text>')
    for i, (peer, points) in enumerate(sorted(each.items(), key=lambda item: item[0] == "qelnk")):
        style = "ours" if peer == "qelnk" else "peer"
        line = " ".join(f"{x(n)},{y(cost)}" for n, cost in points)
        dots = "".join(f'<circle class="at-{style}" cx="{x(n)}" cy="{y(cost)}" r="3"/>' for n, cost in points)
        name = "QELNetworkKit" if peer == "qelnk" else "by hand"
        parts.append(f'<polyline class="{style}" points="{line}"/>{dots}<circle class="at-{style}" cx="{left + 4 + 200 * i}" cy="{top - 11}" r="4"/>'
                     f'<text class="small" x="{left + 12 + 200 * i}" y="{top - 7}">{name}, slope {peers[peer][1]:.2f}</text>')
    return "".join(parts)


def curves(titled):
    """{title: {peer: ([(how many, microseconds for all)], slope of these)}} as a picture of charts, two beside each other."""
    rows = (len(titled) + 1) // 2
    width, height = 2 * (CHART[0] + BETWEEN[0]), rows * (CHART[1] + BETWEEN[1]) + 20
    charts = [chart(70 + (i % 2) * (CHART[0] + BETWEEN[0]), 50 + (i // 2) * (CHART[1] + BETWEEN[1]), title, peers)
              for i, (title, peers) in enumerate(titled.items())]
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" role="img"><title>What one costs, over how many there are'
            f"</title><style>{STYLE}{CURVE_STYLE}</style>\n" + "\n".join(charts) + "\n</svg>\n")


def main(page, svg):
    pathlib.Path(svg).write_text(drawing(groups_of(pathlib.Path(page).read_text())))


if __name__ == "__main__":
    main(*sys.argv[1:])
