"""Draws the figures as one picture: for each a bar of its ratio in units of its reach, so that
every bar that ends left of the line reaches what it should."""

import html

ROW, LEFT, WIDTH, TOP, RIGHT = 26, 560, 360, 56, 130
GREEN, RED = "#2e7d4f", "#b5483a"


def text(x, y, content, **attributes):
    extra = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in attributes.items())
    return f'<text x="{x}" y="{y}"{extra}>{html.escape(content)}</text>'


def shares(rows):
    """Each row with a verdict, and how much of its reach it uses."""
    for row in rows:
        if row.met is None:
            continue
        limit = float(row.reach.strip("≤≥ ×"))
        yield row, limit / row.ratio if row.reach.startswith("≥") else row.ratio / limit


def draw(rows):
    bars = list(shares(rows))
    height = TOP + ROW * len(bars) + 16
    unit = WIDTH / 2
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {LEFT + WIDTH + RIGHT} {height}" '
        'font-family="system-ui, sans-serif" font-size="13" fill="#222">',
        f'<rect width="{LEFT + WIDTH + RIGHT}" height="{height}" fill="#fff"/>',
        text(16, 24, "How much of what is allowed each figure takes", font_weight="bold",
             font_size=15),
        text(LEFT + unit, TOP - 10, "reach", text_anchor="middle", fill="#666"),
    ]
    for index, (row, share) in enumerate(bars):
        y = TOP + ROW * index
        length = min(share, 2) * unit
        parts.append(text(16, y + 16, f"{row.number}  {row.work}"))
        parts.append(f'<rect x="{LEFT}" y="{y + 4}" width="{length:.1f}" height="{ROW - 8}" '
                     f'fill="{GREEN if row.met else RED}"/>')
        label = f"{row.ratio:.2f} × ({row.reach})"
        parts.append(text(f"{LEFT + length + 6:.1f}", y + 17, label, fill="#444"))
    parts.append(f'<line x1="{LEFT + unit}" y1="{TOP - 4}" x2="{LEFT + unit}" y2="{height - 12}" '
                 'stroke="#222" stroke-dasharray="4 3"/>')
    parts.append("</svg>\n")
    return "\n".join(parts)
