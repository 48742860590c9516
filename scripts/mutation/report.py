"""The table and the list of survivors."""

COLUMNS = ("mutants", "caught", "survived", "equivalent")


def table(verdicts):
    """One line for each file and one for all: how many, and which share was caught."""
    files = sorted({mutant.file for mutant, _, _ in verdicts})
    width = max([len(name) for name in files] + [len("file")])
    lines = [f"{'file':{width}} " + " ".join(f"{name:>10}" for name in COLUMNS) + f" {'caught':>8}"]
    for name in files:
        lines.append(row(name, width, [verdict for mutant, verdict, _ in verdicts
                                       if mutant.file == name]))
    lines.append(row("all", width, [verdict for _, verdict, _ in verdicts]))
    return "\n".join(lines)


def row(name, width, verdicts):
    caught, survived, equivalent = (verdicts.count(verdict) for verdict in COLUMNS[1:])
    share = f"{100 * caught / (caught + survived):.1f} %" if caught + survived else "-"
    counts = (len(verdicts), caught, survived, equivalent)
    return f"{name:{width}} " + " ".join(f"{count:10}" for count in counts) + f" {share:>8}"


def described(mutant):
    place = f" in {mutant.function}" if mutant.function else ""
    return "\n".join([f"{mutant.file}:{mutant.line}: {mutant.operator}{place}",
                      *(f"    - {line}" for line in mutant.before.splitlines()),
                      *(f"    + {line}" for line in mutant.after.splitlines())])
