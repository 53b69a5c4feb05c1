"""Charts as SVG without a background, in colours that can be read on white and on black."""

import math
from html import escape

from rows import count, duration

TEXT = "#7d7d7d"
OURS = ("#e07b00", "#c8551b", "#d9a300", "#b8860b", "#e05a5a")
PEERS = ("#7f96b2", "#5b9aa0", "#8f86c0")
WIDTH = 720


def drawing(height, parts):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
            f'viewBox="0 0 {WIDTH} {height}" font-family="sans-serif" font-size="12" '
            f'fill="{TEXT}">\n' + "\n".join(parts) + "\n</svg>\n")


def text(x, y, content, more=""):
    return f'<text x="{x:.0f}" y="{y:.0f}"{more}>{escape(content, quote=False)}</text>'


def line(x1, y1, x2, y2, colour, opacity):
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-opacity="{opacity}"/>')


def bars(groups):
    """Horizontal bars with their values; each group is scaled to its own longest bar. A group is a
    label and its bars; a bar is a label, nanoseconds and whether it is ours."""
    labels, head, step = 170, 24, 18
    longest = WIDTH - labels - 90
    y = 0
    parts = []
    for label, group in groups:
        y += head
        parts.append(text(8, y - 7, label, ' font-weight="bold"'))
        most = max(nanoseconds for _, nanoseconds, _ in group)
        for name, nanoseconds, ours in group:
            length = max(1, longest * nanoseconds / most)
            parts += [text(labels - 8, y + 13, name, ' text-anchor="end"'),
                      f'<rect x="{labels}" y="{y + 2}" width="{length:.1f}" height="{step - 4}" '
                      f'fill="{OURS[0] if ours else PEERS[0]}"/>',
                      text(labels + length + 6, y + 13, duration(nanoseconds))]
            y += step
    return drawing(y + 8, parts)


def lines(curves):
    """Cost against size, both logarithmic. A curve is a label, pairs of size and nanoseconds, and
    whether it is ours."""
    left, right, top, bottom, apart = 70, 500, 14, 360, 15
    points = [[(math.log10(size), math.log10(cost)) for size, cost in pairs]
              for _, pairs, _ in curves]
    last_size = math.ceil(max(1, *(x for curve in points for x, _ in curve)))
    costs = [y for curve in points for _, y in curve]
    first_cost, last_cost = math.floor(min(costs)), math.ceil(max(costs))

    def place(point):
        return (left + (right - left) * point[0] / last_size,
                bottom - (bottom - top) * (point[1] - first_cost) / (last_cost - first_cost))

    parts = []
    for power in range(last_size + 1):
        x, _ = place((power, 0))
        parts += [line(x, top, x, bottom, TEXT, 0.35),
                  text(x, bottom + 16, count(10**power), ' text-anchor="middle"')]
    for power in range(first_cost, last_cost + 1):
        _, y = place((0, power))
        parts += [line(left, y, right, y, TEXT, 0.35),
                  text(left - 6, y + 4, duration(10.0**power), ' text-anchor="end"')]
    # The names stand at the ends of the curves, in their order but far enough apart, so that each
    # that is still to come has its room above the bottom.
    ends = [place(curve[-1]) for curve in points]
    heights = {}
    following = top
    for rank, k in enumerate(sorted(range(len(ends)), key=lambda k: ends[k][1])):
        room = bottom + 4 - apart * (len(ends) - 1 - rank)
        heights[k] = max(following, min(ends[k][1] + 4, room))
        following = heights[k] + apart
    used = {True: 0, False: 0}
    for k, (label, _, ours) in enumerate(curves):
        colours = OURS if ours else PEERS
        colour = colours[used[ours] % len(colours)]
        used[ours] += 1
        path = " ".join("{:.1f},{:.1f}".format(*place(point)) for point in points[k])
        dashes = "" if ours else ' stroke-dasharray="6 3"'
        parts += [f'<polyline points="{path}" fill="none" stroke="{colour}" '
                  f'stroke-width="2"{dashes}/>',
                  line(*ends[k], right + 14, heights[k] - 4, colour, 0.5),
                  text(right + 18, heights[k], label, f' fill="{colour}"')]
    return drawing(bottom + 30, parts)
