"""Curves as SVG, readable on light and on dark ground."""

import math
from html import escape

WIDTH, HEIGHT = 720, 430
LEFT, RIGHT, TOP, BOTTOM = 70, 20, 90, 55  # above the axes are the title and the names of six curves
COLOURS = ["#2f7ed8", "#d9622b", "#3a9a4a", "#9a5fc0", "#b08a00", "#888888"]
STYLE = """<style>
  text { font: 12px sans-serif; fill: #333 } .title { font-size: 14px; font-weight: bold }
  .axis { stroke: #777 } .grid { stroke: #999; stroke-opacity: .3 } .mark { stroke: #777; stroke-dasharray: 4 4 }
  path { fill: none; stroke-width: 2 }
  @media (prefers-color-scheme: dark) { text { fill: #ddd } }
</style>"""


class Axis:
    """From numbers to pixels, linear or logarithmic."""

    def __init__(self, numbers, first, last, logarithmic=False, from_zero=False):
        self.logarithmic = logarithmic
        if logarithmic:
            numbers = [n for n in numbers if n > 0]
        low, high = min(numbers), max(numbers)
        if from_zero:
            low = min(low, 0)
        if low == high:
            low, high = low - abs(low) / 2 - (not low), high + abs(high) / 2 + (not high)
        self.low, self.high, self.first, self.last = low, high, first, last

    def at(self, number):
        scale = math.log10 if self.logarithmic else float
        part = (scale(number) - scale(self.low)) / (scale(self.high) - scale(self.low))
        return self.first + part * (self.last - self.first)

    def ticks(self):
        if self.logarithmic:
            decades = range(math.floor(math.log10(self.low)), math.ceil(math.log10(self.high)) + 1)
            steps = (1,) if self.high / self.low >= 1000 else (1, 2, 5)
            return [s * 10.0**d for d in decades for s in steps if self.low <= s * 10.0**d <= self.high]
        step = 10 ** math.floor(math.log10((self.high - self.low) / 4))
        step *= next(s for s in (1, 2, 5, 10) if (self.high - self.low) / (s * step) <= 6)
        return [i * step for i in range(math.ceil(self.low / step), math.floor(self.high / step) + 1)]


def text(x, y, what, anchor="middle", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{extra}>{escape(what)}</text>'


def frame(title, x_label, y_label, x_axis, y_axis):
    bottom, right = HEIGHT - BOTTOM, WIDTH - RIGHT
    parts = [text(LEFT, 20, title, "start", ' class="title"'),
             text((LEFT + right) / 2, HEIGHT - 12, x_label),
             text(16, (TOP + bottom) / 2, y_label, "middle", f' transform="rotate(-90 16 {(TOP + bottom) / 2:.0f})"')]
    for tick in x_axis.ticks():
        x = x_axis.at(tick)
        parts += [f'<line class="grid" x1="{x:.1f}" y1="{TOP}" x2="{x:.1f}" y2="{bottom}"/>',
                  text(x, bottom + 18, f"{tick:,.10g}")]
    for tick in y_axis.ticks():
        y = y_axis.at(tick)
        parts += [f'<line class="grid" x1="{LEFT}" y1="{y:.1f}" x2="{right}" y2="{y:.1f}"/>',
                  text(LEFT - 6, y + 4, f"{tick:,.10g}", "end")]
    parts.append(f'<path class="axis" d="M{LEFT} {TOP}V{bottom}H{right}"/>')
    return parts


def draw(title, x_label, y_label, series, log_x=False, log_y=False, marks=()):
    """series: (name, xs, ys) each; marks: (name, y) each, lines across."""
    series = [(name, [(x, y) for x, y in zip(xs, ys) if (x > 0 or not log_x) and (y > 0 or not log_y)])
              for name, xs, ys in series]
    x_axis = Axis([x for _, points in series for x, _ in points], LEFT, WIDTH - RIGHT, log_x)
    y_axis = Axis([y for _, points in series for _, y in points] + [y for _, y in marks],
                  HEIGHT - BOTTOM, TOP, log_y, not log_y)
    parts = frame(title, x_label, y_label, x_axis, y_axis)
    for name, y in marks:
        at = y_axis.at(y)
        parts += [f'<line class="mark" x1="{LEFT}" y1="{at:.1f}" x2="{WIDTH - RIGHT}" y2="{at:.1f}"/>',
                  text(WIDTH - RIGHT - 4, at - 4, name, "end")]
    for number, (name, points) in enumerate(series):
        colour = COLOURS[number % len(COLOURS)]
        line = "L".join(f"{x_axis.at(x):.1f} {y_axis.at(y):.1f}" for x, y in points)
        parts.append(f'<path stroke="{colour}" d="M{line}"/>')
        x, y = LEFT + 320 * (number % 2), 42 + 17 * (number // 2)
        parts += [f'<path stroke="{colour}" d="M{x} {y - 4}h22"/>', text(x + 28, y, name, "start")]
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" role="img">\n'
            f"<title>{escape(title)}</title>\n{STYLE}\n" + "\n".join(parts) + "\n</svg>\n")
