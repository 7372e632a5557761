"""Cost of a report by number of groups, as an SVG picture: one panel for each kind of report."""

import collections
import html

from why_missed import costs_of

PANEL_WIDTH, PANEL_HEIGHT, MARGIN, COLUMNS = 300, 190, 50, 3
COLOURS = {"floor": "#888888", "no log": "#1b9e77", "/dev/null": "#7570b3", "file": "#d95f02", "pipe": "#e7298a"}


def series_of(figures):
    """{kind: {variant: {groups: microseconds}}}"""
    kinds = collections.defaultdict(lambda: collections.defaultdict(dict))
    for (kind, variant, groups), cost in costs_of(figures).items():
        if variant in COLOURS:
            kinds[kind][variant][groups] = cost
    return kinds


def text(x, y, words, anchor="start", colour="#222222"):
    return f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" fill="{colour}">{html.escape(words)}</text>'


def panel(left, top, kind, variants):
    most_groups = max(max(points) for points in variants.values())
    most_us = max(max(points.values()) for points in variants.values())

    def place(groups, microseconds):
        return left + PANEL_WIDTH * groups / most_groups, top + PANEL_HEIGHT * (1 - microseconds / most_us)

    parts = [f'<rect x="{left}" y="{top}" width="{PANEL_WIDTH}" height="{PANEL_HEIGHT}" fill="none" stroke="#bbbbbb"/>',
             text(left, top - 6, kind), text(left - 5, top + 10, f"{most_us:.1f}", "end"),
             text(left - 5, top + PANEL_HEIGHT, "0 us", "end"),
             text(left + PANEL_WIDTH, top + PANEL_HEIGHT + 14, f"{most_groups} groups", "end")]
    for variant, points in variants.items():
        line = " ".join("{:.1f},{:.1f}".format(*place(*point)) for point in sorted(points.items()))
        parts.append(f'<polyline points="{line}" fill="none" stroke="{COLOURS[variant]}" stroke-width="2"/>')
    return parts


def write_plot(path, figures):
    kinds = series_of(figures)
    rows = -(-len(kinds) // COLUMNS)
    width = COLUMNS * (PANEL_WIDTH + MARGIN) + MARGIN
    height = rows * (PANEL_HEIGHT + MARGIN) + MARGIN
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="sans-serif" '
             'font-size="12">', '<rect width="100%" height="100%" fill="white"/>']
    for i, (variant, colour) in enumerate(COLOURS.items()):
        parts.append(text(MARGIN + i * 90, 18, variant, colour=colour))
    for i, (kind, variants) in enumerate(kinds.items()):
        row, column = divmod(i, COLUMNS)
        parts += panel(MARGIN + column * (PANEL_WIDTH + MARGIN), MARGIN + row * (PANEL_HEIGHT + MARGIN), kind, variants)
    path.write_text("\n".join(parts + ["</svg>"]) + "\n", encoding="utf-8")
