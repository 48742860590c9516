"""Makes the mutants of a tree: which files, which places in them, and what each one changes."""
import dataclasses
import fnmatch
import re
import subprocess

from clang.cindex import CursorKind as Kind

from .operators import OPERATORS
from .syntax import FUNCTIONS, Project, walk

SCOPE = ["src/*.cpp", "src/*.h", "platform/src/*.cpp", "platform/include/*.h",
         "platform/refbase/*.h", "include/vesk/*.h", "testkit/*.cpp", "testkit/*.h",
         "hostkit/*.cpp", "hostkit/*.h", "hostkit_asio/*.cpp", "hostkit_asio/*.h",
         "client/*.cpp", "client/*.h", "tools/vesk/*.cpp", "tools/vesk/*.h"]
# What reads the command line or prints.
OUTSIDE = ["tools/vesk/main.cpp", "tools/vesk/*Report.*", "tools/vesk/Errors.h",
           "include/vesk/VeskThreadAnnotations.h", "include/vesk/VeskExport.h"]
PRINTING_CALLS = {"say", "reject", "printf", "fprintf", "snprintf", "fputs"}
PRINTING_FUNCTION = re.compile(r"(^|::)(say|print\w*|format\w*|parse\w*|withTopics|joinNames)$")
# Texts are looked at where they are a part of what the library promises: names and log lines.
TEXTS_IN = ("src/", "platform/", "include/")


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    line: int
    function: str
    operator: str
    before: str  # the lines that change, without the white space around them
    after: str
    edits: tuple = dataclasses.field(repr=False)

    @property
    def lines(self):
        return range(self.line, self.line + self.before.count("\n") + 1)

    @property
    def key(self):
        return self.file, self.function, self.before, self.after

    def applied_to(self, data):
        return edited(data, self.edits)


def edited(data, edits):
    for begin, end, text in sorted(edits, reverse=True):
        data = data[:begin] + text.encode() + data[end:]
    return data


def files_in_scope(root, patterns):
    """The files to change, as names below the root."""
    tops = {pattern.split("/")[0] for pattern in SCOPE}
    found = [str(path.relative_to(root)) for top in tops for folder in sorted(root.glob(top))
             for path in sorted(folder.rglob("*.*"))]
    found = [name for name in found if matches(name, SCOPE) and not matches(name, OUTSIDE)]
    return [name for name in found if not patterns or matches(name, patterns)]


def matches(name, patterns):
    return any(fnmatch.fnmatch(name, pattern) or name.startswith(pattern.rstrip("/") + "/")
               for pattern in patterns)


def is_skipped(node):
    """Code whose change no test should have to see: what only prints, or is checked when built."""
    if node.kind in (Kind.STATIC_ASSERT, Kind.USING_DECLARATION, Kind.TYPE_ALIAS_DECL):
        return True
    above = node.parent
    if above and above.kind == Kind.CXX_THROW_EXPR:
        return True
    if not node.source.name.startswith(("tools/", "client/", "hostkit_asio/", "testkit/")):
        return False
    if node.kind in FUNCTIONS and PRINTING_FUNCTION.search(node.function()):
        return True
    return bool(above) and above.kind == Kind.CALL_EXPR and above.cursor.spelling in PRINTING_CALLS


def mutants_of(root, build, names):
    """All mutants of the named files, each text once, in the order of their places."""
    found = {}
    for declaration in Project(root, build).declarations(names):
        for node in walk(declaration, is_skipped):
            for operator, find in OPERATORS.items():
                if operator == "text" and not node.source.name.startswith(TEXTS_IN):
                    continue
                for edits in find(node):
                    add(found, node, operator, edits)
    return sorted(found.values(), key=lambda mutant: (mutant.file, mutant.line))


def add(found, node, operator, edits):
    source = node.source
    data = edited(source.data, edits)
    if data == source.data or (source.name, data) in found:
        return
    line, before, after = changed_lines(source.data, data)
    found[source.name, data] = Mutant(source.name, line, node.function(), operator, before, after,
                                      tuple(edits))


def changed_lines(old, new):
    """The number of the first line that changes, and the lines as they were and become."""
    old, new = old.decode().splitlines(), new.decode().splitlines()
    first = next((at for at, (a, b) in enumerate(zip(old, new)) if a != b),
                 min(len(old), len(new)))
    before, after = old[first:], new[first:]
    while before and after and before[-1] == after[-1]:
        before.pop()
        after.pop()
    return first + 1, joined(before), joined(after)


def joined(lines):
    return "\n".join(line.strip() for line in lines if line.strip())


def changed_since(root, base):
    """{file: numbers of the lines that are new or different since the commit `base`}."""
    diff = subprocess.run(["git", "diff", "-U0", "--no-color", base, "--"], cwd=root, text=True,
                          capture_output=True)
    if diff.returncode != 0:
        raise LookupError(diff.stderr.strip())
    lines, name = {}, None
    for line in diff.stdout.splitlines():
        if line.startswith("+++ "):
            name = line[6:]
        hunk = re.match(r"@@ \S+ \+(\d+)(?:,(\d+))? @@", line)
        if hunk:
            begin, count = int(hunk.group(1)), int(hunk.group(2) or 1)
            lines.setdefault(name, set()).update(range(begin, begin + count))
    return lines
