"""Copies of the tree, each with a build of its own, in which one mutant at a time is tried."""
import hashlib
import os
import pathlib
import shutil
import subprocess
import sys

from . import checks

# Quick to compile and to link; a warning is no verdict. The stand-in for libutils, because it is
# this tree's own. A test is not linked anew when a shared library that it loads changes.
CONFIGURATION = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_COMPILER=clang++",
                 "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_CXX_FLAGS_RELEASE=-O1",
                 "-DCMAKE_CXX_FLAGS=-w -fuse-ld=lld", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
                 "-DVESK_LIBUTILS=OFF", "-DVESK_INSTALL=OFF", "-DVESK_SIMULATION_SEEDS=3",
                 "-DVESK_CONCURRENCY_FRAMES=4000"]
COPIED = ["CMakeLists.txt", "CMakePresets.json", "abi", "bench", "cmake", "docs", "examples",
          "fuzz", "include", "platform", "src", "testkit", "tests", "tools"]


class Copy:
    """One copy and its build; used by one thread."""

    def __init__(self, tree, folder):
        self.tree = tree
        self.root = folder / "tree"
        self.build_folder = folder / "build"
        self.original = {}  # program: the hash of what it consists of, without any mutant
        self.results = {}   # (check, hash of the program): whether it passed
        self.mutated = None
        # What is compiled for a mutant is not worth keeping; the first build is.
        self.environment = dict(os.environ, CCACHE_BASEDIR=str(folder), CCACHE_NOHASHDIR="1")

    def prepare(self):
        """Brings the copy up to date with the tree and configures it."""
        self.root.mkdir(parents=True, exist_ok=True)
        for name in COPIED:
            mirror(self.tree / name, self.root / name)
        self.run(["cmake", "-S", self.root, "-B", self.build_folder, *CONFIGURATION])

    def build_all(self):
        self.run(["cmake", "--build", self.build_folder, "-j", "2"])

    def run(self, command):
        done = subprocess.run(command, capture_output=True, text=True, env=self.environment)
        if done.returncode != 0:
            sys.exit(f"{done.stdout}{done.stderr}scripts/mutants: the tree does not build as it is")

    def remember(self, suite):
        """Takes what is built now as the programs without a mutant."""
        self.environment["CCACHE_READONLY"] = "1"
        for check in suite:
            self.original[check.program] = self.fingerprint(check)

    def fingerprint(self, check):
        """A hash of everything that is built and that the check runs."""
        found = hashlib.blake2b()
        parts = [check.program]
        if check.of_tool:
            parts.append(self.build_folder / "tools/vesk/vesk")
        for part in [*parts, *sorted(self.build_folder.glob("*/lib*.so"))]:
            found.update(pathlib.Path(part).read_bytes())
        return found.hexdigest()

    def builds(self, check):
        """Builds what the check runs."""
        target = str(pathlib.Path(check.program).relative_to(self.build_folder))
        return subprocess.run(["ninja", "-C", self.build_folder, "-j", "1", target],
                              env=self.environment, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode == 0

    def judge(self, mutant, suite):
        """(verdict, what caught it): not compiled, unchanged, caught or survived."""
        self.apply(mutant)
        try:
            return self.verdict(suite)
        finally:
            self.restore()

    def verdict(self, suite):
        changed = False
        built = set()
        for check in suite:
            if check.program not in built and not self.builds(check):
                return "not compiled", ""
            built.add(check.program)
            found = self.fingerprint(check)
            if found == self.original[check.program]:
                continue
            changed = True
            if (check.name, found) not in self.results:
                self.results[check.name, found] = checks.passes(check)
            if not self.results[check.name, found]:
                return "caught", check.name
        return ("survived" if changed else "unchanged"), ""

    def apply(self, mutant):
        self.mutated = self.root / mutant.file
        self.mutated.write_bytes(mutant.applied_to((self.tree / mutant.file).read_bytes()))

    def restore(self):
        source = self.tree / self.mutated.relative_to(self.root)
        self.mutated.write_bytes(source.read_bytes())


def mirror(source, target):
    """Makes the target the same as the source, and leaves alone what is already."""
    if source.is_dir():
        target.mkdir(exist_ok=True)
        names = {entry.name for entry in source.iterdir()}
        for entry in list(target.iterdir()):
            if entry.name not in names:
                shutil.rmtree(entry) if entry.is_dir() else entry.unlink()
        for name in names:
            mirror(source / name, target / name)
    elif not target.exists() or source.read_bytes() != target.read_bytes():
        shutil.copy(source, target)
