"""The plot: memory over the number of programs, and gaps as bars, as one SVG file."""

import math
from html import escape

from contenders import BY_NAME
from report import KILL, MEMORY, QUICK, number
from results import median

COLOURS = {"floor-exec": "#9a9a9a", "floor-system": "#5c5c5c", "keelmond": "#c8102e",
           "runit": "#1f77b4", "s6": "#2a9d50", "daemontools": "#b8860b", "supervisor": "#7b4ab0",
           "monit": "#8c6d5a"}
OTHER_COLOURS = ("#e0812f", "#17a2b8", "#d65f9b", "#7f6a50")
HEIGHT = 420
TOP = 56
BOTTOM = 330


def _colour(contender):
    if contender not in COLOURS:
        COLOURS[contender] = OTHER_COLOURS[len(COLOURS) % len(OTHER_COLOURS)]
    return COLOURS[contender]


class Drawing:
    """Collects the elements of an SVG file."""

    def __init__(self, width, height):
        self._elements = [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
            f'width="{width}" height="{height}" font-family="sans-serif" font-size="12">',
            f'<rect width="{width}" height="{height}" fill="white"/>']

    def line(self, x1, y1, x2, y2, colour="#333", width=1.0):
        self._elements.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
                              f'stroke="{colour}" stroke-width="{width}"/>')

    def text(self, x, y, text, anchor="middle", extra=""):
        self._elements.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {extra}>'
                              f'{escape(text)}</text>')

    def bar(self, x, y, width, height, colour, opacity=1.0):
        self._elements.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" '
                              f'height="{height:.1f}" fill="{colour}" fill-opacity="{opacity}"/>')

    def curve(self, points, colour):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self._elements.append(f'<polyline points="{path}" fill="none" stroke="{colour}" '
                              'stroke-width="2"/>')
        for x, y in points:
            self._elements.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="{colour}"/>')

    def __str__(self):
        return "\n".join([*self._elements, "</svg>", ""])


class LogScale:
    """Maps a range of positive numbers, widened to whole powers of ten, to a range of pixels."""

    def __init__(self, values, first, last):
        self._low = math.floor(math.log10(min(values)))
        self._high = max(math.ceil(math.log10(max(values))), self._low + 1)
        self._first, self._last = first, last

    def __call__(self, value):
        share = (math.log10(value) - self._low) / (self._high - self._low)
        return self._first + share * (self._last - self._first)

    def powers(self):
        return [10.0 ** power for power in range(self._low, self._high + 1)]


def _tick(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def _value_axis(drawing, scale, left, right, title):
    for power in scale.powers():
        drawing.line(left, scale(power), right, scale(power), "#ddd")
        drawing.text(left - 6, scale(power) + 4, _tick(power), "end")
    drawing.line(left, TOP, left, BOTTOM)
    drawing.line(left, BOTTOM, right, BOTTOM)
    middle = (TOP + BOTTOM) / 2
    drawing.text(left - 52, middle, title, extra=f'transform="rotate(-90 {left - 52} {middle})"')


def _middles(results, metric, counts):
    """{contender: [(count, median over the runs)]}, without what is not known or not positive."""
    found = {}
    for contender in results.contenders:
        values = [(count, median(results.values(metric, contender, count))) for count in counts]
        found[contender] = [(count, value) for count, value in values if value]
    return {contender: points for contender, points in found.items() if points}


def _draw_memory(drawing, results, left, right):
    drawing.text((left + right) / 2, 28, "Memory of all supervising processes", extra=
                 'font-size="15"')
    lines = _middles(results, MEMORY, results.counts)
    if not lines:
        return
    values = [value for points in lines.values() for _, value in points]
    vertical = LogScale(values, BOTTOM, TOP)
    horizontal = LogScale(results.counts, left + 16, right - 16)
    _value_axis(drawing, vertical, left, right, "kB (PSS and page tables) per program")
    for count in results.counts:
        drawing.line(horizontal(count), BOTTOM, horizontal(count), BOTTOM + 5)
        drawing.text(horizontal(count), BOTTOM + 20, f"{count:,}")
    drawing.text((left + right) / 2, BOTTOM + 38, "programs")
    for contender, points in lines.items():
        drawing.curve([(horizontal(count), vertical(value)) for count, value in points],
                      _colour(contender))


def _draw_gaps(drawing, results, left, right):
    many = results.counts[-1]
    drawing.text((left + right) / 2, 28,
                 f"Time until a program is back, {many:,} programs (median)",
                 extra='font-size="15"')
    quick, kill = (_middles(results, metric, [many]) for metric in (QUICK, KILL))
    shown = [name for name in results.contenders if name in quick or name in kill]
    if not shown:
        return
    values = [points[0][1] for bars in (quick, kill) for points in bars.values()]
    vertical = LogScale([min(values) / 1.5, *values], BOTTOM, TOP)
    _value_axis(drawing, vertical, left, right, "milliseconds")
    slot = (right - left) / len(shown)
    for i, contender in enumerate(shown):
        for j, bars in enumerate((quick, kill)):
            if contender not in bars:
                continue
            value = bars[contender][0][1]
            x, width = left + slot * (i + 0.1 + 0.4 * j), slot * 0.38
            y = vertical(value)
            drawing.bar(x, y, width, BOTTOM - y, _colour(contender), 1.0 if j == 0 else 0.5)
            drawing.text(x + width / 2, y - 4, number(value), extra='font-size="9"')
    drawing.text((left + right) / 2, BOTTOM + 20,
                 "full colour: ends at once; light: killed after a while")


def _draw_legend(drawing, results, width):
    slot = (width - 40) / len(results.contenders)
    for i, contender in enumerate(results.contenders):
        x = 20 + slot * i
        drawing.bar(x, HEIGHT - 32, 12, 12, _colour(contender))
        drawing.text(x + 18, HEIGHT - 22, BY_NAME[contender].title, "start")


def svg(results):
    width = 1040
    drawing = Drawing(width, HEIGHT)
    _draw_memory(drawing, results, 80, 500)
    _draw_gaps(drawing, results, 600, 1020)
    _draw_legend(drawing, results, width)
    return str(drawing)
