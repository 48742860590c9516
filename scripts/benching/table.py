"""Tables in Markdown, which read as well on a terminal."""


def number(value, digits=3):
    """To that many digits where it has fewer before the point, as 0.12, 14.5 or 1,230,000."""
    places = digits - len(str(int(abs(value))))
    return f"{round(value, places):,.{max(0, places)}f}"


def show(header, rows):
    cells = [header, *rows]
    widths = [max(len(row[i]) for row in cells) for i in range(len(header))]
    marks = ["-" * (width + 1) + (":" if i else "-") for i, width in enumerate(widths)]

    def line(row):
        return "| " + " | ".join(cell.rjust(width) if i else cell.ljust(width)
                                 for i, (cell, width) in enumerate(zip(row, widths))) + " |"

    print(line(header))
    print("|" + "|".join(marks) + "|")
    for row in rows:
        print(line(row))
    print(flush=True)
