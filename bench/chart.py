"""Bars in SVG: for each name the wall time, its range as a line, and the processor time as a thin bar inside."""
from dataclasses import dataclass
from html import escape

WIDTH, LEFT, RIGHT, STEP, BAR = 860, 250, 70, 24, 16


@dataclass
class Bar:
    name: str
    wall: float
    least: float
    most: float
    cpu: float
    ours: bool


def draw(panels):
    """panels: pairs of a title and its bars."""
    parts, top = [], 10
    for title, bars in panels:
        parts.append(f'<text x="10" y="{top + 16}" font-weight="bold">{escape(title)}</text>')
        top += 28
        scale = (WIDTH - LEFT - RIGHT) / max(max(bar.most, bar.cpu) for bar in bars)
        for bar in bars:
            parts += draw_bar(bar, top, scale)
            top += STEP
        top += 14
    parts.append(f'<text x="10" y="{top + 12}" fill="#555">Bar: wall seconds, median; line: least to most; '
                 'thin bar: processor seconds, user and system</text>')
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{top + 24}" '
            'font-family="sans-serif" font-size="13">\n'
            f'<rect width="{WIDTH}" height="{top + 24}" fill="#fff"/>\n' + "\n".join(parts) + "\n</svg>\n")


def draw_bar(bar, top, scale):
    middle = top + BAR / 2
    return [
        f'<text x="{LEFT - 8}" y="{top + 13}" text-anchor="end">{escape(bar.name)}</text>',
        f'<rect x="{LEFT}" y="{top}" width="{bar.wall * scale:.1f}" height="{BAR}" '
        f'fill="{"#2b6cb0" if bar.ours else "#a0aec0"}"/>',
        f'<rect x="{LEFT}" y="{middle - 2}" width="{bar.cpu * scale:.1f}" height="4" fill="#1a202c"/>',
        f'<path d="M{LEFT + bar.least * scale:.1f} {top + 3}H{LEFT + bar.most * scale:.1f}" stroke="#c53030"/>',
        f'<text x="{LEFT + max(bar.most, bar.cpu) * scale + 6:.1f}" y="{top + 13}">{bar.wall:.2f} s</text>',
    ]
