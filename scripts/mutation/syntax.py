"""The syntax trees of the sources, by libclang, with what the operators ask of them."""
import bisect
import json
import pathlib
import shlex
import subprocess

from clang import cindex
from clang.cindex import CursorKind as Kind

FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR,
             Kind.FUNCTION_TEMPLATE, Kind.CONVERSION_FUNCTION}
LOOPS = {Kind.FOR_STMT, Kind.CXX_FOR_RANGE_STMT, Kind.WHILE_STMT, Kind.DO_STMT}


class Source:
    """One file's text, by the byte offsets that libclang speaks of."""

    def __init__(self, root, name):
        self.name = name
        self.data = (root / name).read_bytes()
        self.begins = [0] + [at + 1 for at, byte in enumerate(self.data) if byte == 0x0A]

    def line_of(self, offset):
        return bisect.bisect_right(self.begins, offset)

    def text(self, begin, end):
        return self.data[begin:end].decode()

    def before(self, offset):
        """What stands before the offset, without the white space in between."""
        return self.data[max(0, offset - 200):offset].decode(errors="replace").rstrip()

    def after(self, offset):
        return self.data[offset:offset + 200].decode(errors="replace").lstrip()


class Node:
    """A cursor with its place in the tree."""

    def __init__(self, cursor, source, parent=None):
        self.cursor = cursor
        self.source = source
        self.parent = parent
        self.kind = cursor.kind
        self.begin = cursor.extent.start.offset
        self.end = cursor.extent.end.offset
        self._children = None

    @property
    def children(self):
        if self._children is None:
            self._children = [Node(child, self.source, self)
                              for child in self.cursor.get_children()]
        return self._children

    @property
    def text(self):
        return self.source.text(self.begin, self.end)

    @property
    def bare(self):
        """This expression without the conversions that nobody wrote."""
        node = self
        while node.kind == Kind.UNEXPOSED_EXPR and len(node.children) == 1:
            node = node.children[0]
        return node

    @property
    def enclosing(self):
        """The closest node above this one that somebody wrote."""
        node = self.parent
        while node and node.kind == Kind.UNEXPOSED_EXPR:
            node = node.parent
        return node

    def ancestors(self):
        node = self.parent
        while node:
            yield node
            node = node.parent

    def function(self):
        """The function, or lacking that the class or namespace, that this belongs to."""
        for node in (self, *self.ancestors()):
            if node.kind in FUNCTIONS:
                owner = node.cursor.semantic_parent
                within = owner and owner.kind not in (Kind.NAMESPACE, Kind.TRANSLATION_UNIT)
                return (owner.spelling + "::" if within else "") + node.cursor.spelling
        return next((node.cursor.spelling for node in self.ancestors()
                     if node.kind in (Kind.CLASS_DECL, Kind.STRUCT_DECL)), "")

    def operator(self):
        """(symbol, its begin, its end, left, right) of an operator of two operands, or None."""
        parts = self.children
        if self.kind in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR):
            if len(parts) != 2:
                return None
            gap = self.source.text(parts[0].end, parts[1].begin)
            symbol = gap.strip()
            begin = parts[0].end + len(gap) - len(gap.lstrip())
            return symbol, begin, begin + len(symbol), parts[0], parts[1]
        if self.kind == Kind.CALL_EXPR and self.cursor.spelling.startswith("operator"):
            symbol = self.cursor.spelling[len("operator"):]
            if len(parts) == 3 and parts[1].text == symbol:
                return symbol, parts[1].begin, parts[1].end, parts[0], parts[2]
        return None


class Project:
    """The sources of a configured tree."""

    def __init__(self, root, build):
        self.root = root
        self.commands = json.loads((build / "compile_commands.json").read_text())
        self.index = cindex.Index.create()
        resources = subprocess.run(["clang", "-print-resource-dir"], check=True, text=True,
                                   capture_output=True).stdout.strip()
        self.options = ["-x", "c++", "-resource-dir", resources]

    def parse(self, command):
        words = shlex.split(command["command"])
        words = words[next(at for at, word in enumerate(words) if word.startswith("-")):]
        words = words[:words.index("-o")]
        if "-include-pch" in words:  # its declarations are not ours
            at = words.index("-include-pch")
            del words[at:at + 2]
        unit = self.index.parse(command["file"], [*self.options, *words])
        errors = [str(found) for found in unit.diagnostics
                  if found.severity >= cindex.Diagnostic.Error]
        if errors:
            raise RuntimeError(f"{command['file']} cannot be parsed: {errors[0]}")
        return unit

    def declarations(self, names):
        """Every top-level node of the named files, each file once."""
        left = set(names)
        sources = [(self.relative(command["file"]), command) for command in self.commands]
        own = [command for name, command in sources if name in left]
        others = [command for name, command in sources
                  if name and name not in left and not name.startswith("tests/")]
        for command in own + others:
            if left:
                yield from self.declarations_of(self.parse(command), left)

    def declarations_of(self, unit, left):
        sources = {}
        for cursor in unit.cursor.get_children():
            if cursor.location.file is None:
                continue
            path = cursor.location.file.name
            if path not in sources:
                name = self.relative(path)
                sources[path] = Source(self.root, name) if name in left else None
                left.discard(name)
            if sources[path]:
                yield Node(cursor, sources[path])

    def relative(self, path):
        try:
            return str(pathlib.Path(path).resolve().relative_to(self.root))
        except ValueError:
            return None


def walk(node, skipped):
    """The node and all below it, but for what `skipped` takes."""
    if skipped(node):
        return
    yield node
    for child in node.children:
        yield from walk(child, skipped)
