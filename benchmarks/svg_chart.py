"""Draws lines over two logarithmic axes into an SVG file."""

import html
import math

WIDTH, HEIGHT = 720, 420
LEFT, RIGHT, TOP, BOTTOM = 80, 150, 40, 60
COLOURS = ("#0b57d0", "#5f6368", "#188038", "#b06000", "#a50e0e", "#8430ce")


def _decades(values):
    low = math.floor(math.log10(min(values)))
    high = math.ceil(math.log10(max(values)))
    return low, max(high, low + 1)


def _number(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def write(path, title, x_title, y_title, series):
    """`series` is {name: [(x, y), ...]}; all values are above 0."""
    points = [point for line in series.values() for point in line]
    x_ticks = sorted({x for x, _ in points})
    x_low, x_high = math.log10(x_ticks[0]), math.log10(x_ticks[-1])
    y_low, y_high = _decades([y for _, y in points])
    right, bottom = WIDTH - RIGHT, HEIGHT - BOTTOM

    def place_x(x):
        return LEFT + (math.log10(x) - x_low) / (x_high - x_low) * (right - LEFT)

    def place_y(y):
        return bottom - (math.log10(y) - y_low) / (y_high - y_low) * (bottom - TOP)

    def text(x, y, words, extra=""):
        return f'<text x="{x:.1f}" y="{y:.1f}" {extra}>{html.escape(words)}</text>'

    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
        'font-family="sans-serif" font-size="13" fill="#202124">',
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#ffffff"/>',
        text(LEFT, 24, title, 'font-size="16" font-weight="bold"'),
        text((LEFT + right) / 2, HEIGHT - 16, x_title, 'text-anchor="middle"'),
        text(0, 0, y_title,
             f'text-anchor="middle" transform="translate(18 {(TOP + bottom) / 2:.1f}) rotate(-90)"'),
    ]
    for exponent in range(y_low, y_high + 1):
        y = place_y(10.0**exponent)
        parts.append(f'<path d="M{LEFT} {y:.1f}H{right}" stroke="#dadce0"/>')
        parts.append(text(LEFT - 8, y + 4, _number(10.0**exponent), 'text-anchor="end"'))
    for tick in x_ticks:
        x = place_x(tick)
        parts.append(f'<path d="M{x:.1f} {TOP}V{bottom}" stroke="#dadce0"/>')
        parts.append(text(x, bottom + 18, _number(tick), 'text-anchor="middle"'))
    label_y = 0.0
    # Labels beside the last points, from the top down and never on each other.
    for name, line in sorted(series.items(), key=lambda item: place_y(item[1][-1][1])):
        colour = COLOURS[list(series).index(name) % len(COLOURS)]
        path_data = " ".join(f"{place_x(x):.1f},{place_y(y):.1f}" for x, y in line)
        parts.append(f'<polyline points="{path_data}" fill="none" stroke="{colour}" '
                     'stroke-width="2"/>')
        for x, y in line:
            parts.append(f'<circle cx="{place_x(x):.1f}" cy="{place_y(y):.1f}" r="3" '
                         f'fill="{colour}"/>')
        label_y = max(place_y(line[-1][1]) + 4, label_y + 16)
        parts.append(text(right + 10, label_y, name, f'style="fill:{colour}"'))
    parts.append("</svg>")
    path.write_text("\n".join(parts) + "\n", encoding="utf-8")
