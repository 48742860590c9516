"""Plots as plain SVG: panels of bars, and panels of lines over logarithmic axes."""
import html
import math

INK, PALE, OURS, THEIRS = "#24292f", "#d0d7de", "#0b6e4f", "#8c959f"
LINES = ["#0b6e4f", "#b45309", "#1d4ed8", "#be123c", "#6d28d9", "#57606a"]
FONT = 'font-family="sans-serif" font-size="13"'


class Drawing:
    def __init__(self, width, height, title, note):
        self.width, self.height, self.parts = width, height, []
        self.text(20, 28, title, size=17, weight="bold")
        self.text(20, height - 14, note, size=11)

    def text(self, x, y, text, anchor="start", size=13, weight="normal", fill=INK):
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" '
                          f'font-size="{size}" font-weight="{weight}" fill="{fill}">'
                          f'{html.escape(text)}</text>')

    def box(self, x, y, width, height, fill):
        self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" '
                          f'height="{height:.1f}" fill="{fill}"/>')

    def line(self, points, stroke, width=1):
        joined = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{joined}" fill="none" stroke="{stroke}" '
                          f'stroke-width="{width}"/>')

    def write(self, path):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f'<svg xmlns="http://www.w3.org/2000/svg" width="{self.width}" '
                        f'height="{self.height}" viewBox="0 0 {self.width} {self.height}" '
                        f'{FONT}>\n<rect width="100%" height="100%" fill="#ffffff"/>\n'
                        + "\n".join(self.parts) + "\n</svg>\n")


def bars(path, title, note, panels):
    """Each panel: (title, [(label, value, text, is ours)]); two panels a row, from 0."""
    rows = math.ceil(len(panels) / 2)
    tall = max(len(entries) for _, entries in panels) * 22 + 48
    drawing = Drawing(1040, 60 + rows * tall + 30, title, note)
    for index, (caption, entries) in enumerate(panels):
        left, top = 20 + index % 2 * 515, 50 + index // 2 * tall
        drawing.text(left, top + 16, caption, weight="bold")
        longest = max(value for _, value, _, _ in entries)
        for row, (label, value, text, ours) in enumerate(entries):
            y = top + 28 + row * 22
            width = 235 * value / longest
            drawing.text(left + 178, y + 13, label, "end", 12,
                         "bold" if ours else "normal")
            drawing.box(left + 185, y, width, 16, OURS if ours else THEIRS)
            drawing.text(left + 190 + width, y + 13, text, size=12)
        drawing.line([(left + 185, top + 24), (left + 185, top + 28 + len(entries) * 22)], INK)
    drawing.write(path)


class Axes:
    """A panel whose two axes are logarithmic; 0 stands at the left edge."""

    def __init__(self, drawing, left, top, xs, ys):
        self.drawing, self.left, self.top = drawing, left, top
        self.x = self.range([x for x in xs if x > 0])
        self.y = self.range(ys)

    @staticmethod
    def range(values):
        return math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)) + 1e-9)

    def at(self, x, y):
        def part(value, ends):
            return (math.log10(max(value, 10 ** ends[0])) - ends[0]) / max(1, ends[1] - ends[0])
        return self.left + 60 + 400 * part(x, self.x), self.top + 200 - 170 * part(y, self.y)

    def draw(self, caption, x_label, y_label):
        self.drawing.text(self.left + 60, self.top + 14, f"{caption}: {y_label}", weight="bold")
        self.drawing.text(self.left + 460, self.top + 236, x_label, "end", 12)
        for power in range(self.y[0], self.y[1] + 1):
            y = self.at(1, 10 ** power)[1]
            self.drawing.line([(self.left + 60, y), (self.left + 460, y)], PALE)
            self.drawing.text(self.left + 54, y + 4, f"{10 ** power:,}", "end", 11)
        for power in range(self.x[0], self.x[1] + 1):
            x = self.at(10 ** power, 1)[0]
            self.drawing.line([(x, self.top + 30), (x, self.top + 200)], PALE)
            self.drawing.text(x, self.top + 216, f"{10 ** power:,}", "middle", 11)


def lines(path, title, note, panels):
    """Each panel: (title, x label, y label, [(name, [(x, y)])]); two panels a row."""
    tall = 310
    drawing = Drawing(1040, 50 + math.ceil(len(panels) / 2) * tall + 30, title, note)
    for index, (caption, x_label, y_label, series) in enumerate(panels):
        points = [point for _, line in series for point in line]
        axes = Axes(drawing, 20 + index % 2 * 515, 46 + index // 2 * tall,
                    [x for x, _ in points], [y for _, y in points])
        axes.draw(caption, x_label, y_label)
        for number, (name, line) in enumerate(series):
            colour = LINES[number % len(LINES)]
            places = [axes.at(x, y) for x, y in line]
            drawing.line(places, colour, 2)
            for x, y in places:
                drawing.box(x - 2.5, y - 2.5, 5, 5, colour)
            x = axes.left + 66 + number % 2 * 220
            y = axes.top + 254 + number // 2 * 16
            drawing.box(x, y - 9, 10, 10, colour)
            drawing.text(x + 14, y, name, size=11)
    drawing.write(path)
