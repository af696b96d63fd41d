"""Bar and line charts as one SVG, with a background of its own that follows the viewer's light or dark theme."""

import dataclasses
import math
from html import escape

WIDTH, GAP = 880, 24
COLORS = ["#3b82c4", "#e08a1e", "#4a9d5b", "#a569bd", "#c9554d", "#5f7f95"]
STYLE = """
 text { font: 12px system-ui, sans-serif; fill: #24292f }
 text.small { font-size: 10px }
 text.title { font-size: 14px; font-weight: 600 }
 text.label { paint-order: stroke; stroke: #ffffff; stroke-width: 3px }
 .ground { fill: #ffffff }
 .grid { stroke: #d0d7de; stroke-width: 1 }
 .one { stroke: #24292f; stroke-width: 1.5; stroke-dasharray: 5 3 }
 .curve { fill: none; stroke-width: 2 }
 @media (prefers-color-scheme: dark) {
  text { fill: #e6edf3 }
  text.label { stroke: #0d1117 }
  .ground { fill: #0d1117 }
  .grid { stroke: #3d444d }
  .one { stroke: #e6edf3 }
 }
"""
TITLE, LEGEND, BELOW, LEFT, PLOT = 22, 22, 22, 52, 190  # heights, and the room for the numbers at the left


@dataclasses.dataclass
class Panel:
    """A part of the page; `body` has its origin at the panel's upper left corner."""

    width: int
    height: int
    body: str


@dataclasses.dataclass
class Scale:
    """Turns values into places; logarithmic where they differ a lot."""

    low: float
    high: float
    begin: float
    end: float
    logarithmic: bool = False

    def place(self, value):
        low, high, value = (math.log(x) if self.logarithmic else x for x in (self.low, self.high, value))
        return self.begin + (value - low) / (high - low or 1) * (self.end - self.begin)

    def ticks(self):
        if self.logarithmic:
            powers = (10.0 ** power for power in range(-6, 12))
            return [power for power in powers if self.low <= power <= self.high]
        step = 10 ** math.floor(math.log10(self.high))
        step = next(step * part for part in (0.1, 0.2, 0.5, 1, 2) if self.high / (step * part) <= 8)
        return [step * number for number in range(math.floor(self.high / step) + 1)]


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def text(x, y, content, anchor="start", kind=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" class="{kind}">{escape(content)}</text>\n'


def line(x1, y1, x2, y2, kind):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>\n'


def legend(names, y):
    """The names behind their colours, in one line."""
    parts, x = "", LEFT
    for name, color in zip(names, COLORS):
        parts += f'<rect x="{x}" y="{y - 10}" width="11" height="11" fill="{color}"/>\n' + text(x + 16, y, name)
        x += 34 + 7 * len(name)
    return parts


def grid(scale, width):
    """A line across and a number at the left for each of the scale's ticks."""
    return "".join(line(LEFT, scale.place(tick), width, scale.place(tick), "grid") +
                   text(LEFT - 6, scale.place(tick) + 4, number(tick), "end", "small") for tick in scale.ticks())


def bars(title, groups):
    """Bars for {group: {series: value}}, with a mark at 1; a value of None leaves its place empty."""
    names = list(dict.fromkeys(name for group in groups.values() for name in group))
    top = TITLE + LEGEND + 16
    highest = max((value or 0 for group in groups.values() for value in group.values()), default=0)
    scale = Scale(0, max(highest, 1.0), top + PLOT, top)
    body = text(0, 14, title, kind="title") + legend(names, TITLE + 14) + grid(scale, WIDTH)
    labels = ""
    room = (WIDTH - LEFT) / len(groups)
    width = min(44.0, room * 0.84 / len(names))
    for place, (group, values) in enumerate(groups.items()):
        middle = LEFT + room * (place + 0.5)
        body += text(middle, top + PLOT + 16, group, "middle")
        for position, name in enumerate(names):
            value = values.get(name)
            if value is None:
                continue
            x, y = middle + width * (position - len(names) / 2), scale.place(value)
            body += (f'<rect x="{x + 1:.1f}" y="{y:.1f}" width="{width - 2:.1f}" height="{top + PLOT - y:.1f}" '
                     f'fill="{COLORS[position]}"><title>{escape(group)}, {escape(name)}: {value:.3g}</title>'
                     "</rect>\n")
            labels += text(x + width / 2, y - 4, f"{value:#.3g}", "middle", "small label")
    body += line(LEFT, scale.place(1), WIDTH, scale.place(1), "one") + labels
    return Panel(WIDTH, top + PLOT + BELOW, body)


def scale_of(values, begin, end, from_zero):
    low, high = min(values), max(values)
    logarithmic = low > 0 and high / low > 20
    if logarithmic or not from_zero:
        return Scale(low, high, begin, end, logarithmic)
    return Scale(0, high * 1.1 or 1.0, begin, end)


def lines(title, series):
    """Curves for {name: [(x, y)]}, in half the page's width. An axis along which the values grow more than
    twentyfold is logarithmic."""
    width, top = (WIDTH - GAP) // 2, TITLE + LEGEND + 8
    points = [point for curve in series.values() for point in curve]
    across = scale_of([x for x, _ in points], LEFT + 14, width - 26, False)
    up = scale_of([y for _, y in points], top + PLOT, top, True)
    body = text(0, 14, title, kind="title") + legend(series, TITLE + 14)
    body += grid(up, width)
    for x in sorted({x for x, _ in points}):
        body += text(across.place(x), top + PLOT + 16, number(x), "middle", "small")
    for color, curve in zip(COLORS, series.values()):
        places = [(across.place(x), up.place(y)) for x, y in sorted(curve)]
        body += (f'<polyline class="curve" stroke="{color}" points="' +
                 " ".join(f"{x:.1f},{y:.1f}" for x, y in places) + '"/>\n')
        body += "".join(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{color}"/>\n' for x, y in places)
        last = max(curve)
        body += text(places[-1][0], places[-1][1] - 7, number(last[1]), "middle", "small")
    return Panel(width, top + PLOT + BELOW, body)


def page(panels):
    """The SVG of all panels, from left to right and from top to bottom."""
    body, x, y, height = "", GAP, GAP, 0
    for panel in panels:
        if x > GAP and x + panel.width > GAP + WIDTH:
            x, y = GAP, y + height + GAP
        body += f'<g transform="translate({x} {y})">\n{panel.body}</g>\n'
        x, height = x + panel.width + GAP, panel.height
    total = y + height + GAP
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH + 2 * GAP} {total}" role="img">\n'
            f"<title>Measurements</title>\n<style>{STYLE}</style>\n"
            f'<rect class="ground" width="100%" height="100%" rx="6"/>\n{body}</svg>\n')
