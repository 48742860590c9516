"""Copies of the tree, each with a build of its own, in which one mutant at a time is tried."""
import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import sys

from . import checks, processes

# Quick to compile and to link; a warning is no verdict. The stand-in for libutils, because it is
# this tree's own. A test is not linked anew when a shared library that it loads changes.
CONFIGURATION = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_COMPILER=clang++",
                 "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_CXX_FLAGS_RELEASE=-O1",
                 "-DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld",
                 "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
                 "-DVESK_LIBUTILS=OFF", "-DVESK_INSTALL=OFF", "-DVESK_SIMULATION_SEEDS=3",
                 "-DVESK_CONCURRENCY_FRAMES=4000"]
# The same everywhere, because all share one precompiled header.
FLAGS = ["-w", "-fPIC", "-pthread", "-DASIO_STANDALONE", "-DASIO_NO_DEPRECATED"]
LIKEWISE = ["-std=c++17", "-O1", "-fvisibility=hidden", "-fvisibility-inlines-hidden"]
USE = ("add_compile_options(\"$<$<STREQUAL:$<TARGET_PROPERTY:CXX_VISIBILITY_PRESET>,hidden>:"
       "SHELL:-include-pch {}>\")\n")
# What takes longer to read than all that is written here.
HEADERS = ["algorithm", "atomic", "chrono", "condition_variable", "deque", "filesystem",
           "fstream", "functional", "iostream", "list", "map", "memory", "mutex", "optional",
           "set", "string", "thread", "vector", "asio.hpp", "gtest/gtest.h"]


class Copy:
    """One copy and its build; used by one thread."""

    def __init__(self, tree, folder, headers):
        self.tree = tree
        self.headers = headers
        self.root = folder / "tree"
        self.build_folder = folder / "build"
        self.original = {}  # program: the hash of what it consists of, without any mutant
        self.loaded = {}    # program: the files that it consists of
        self.results = {}   # (check, hash of the program): whether it caught it
        self.mutated = folder / "mutated"  # holds the name of the file that was changed last
        self.original_text = b""
        # What is compiled for a mutant is not worth keeping; the first build is.
        self.environment = dict(os.environ, CCACHE_BASEDIR=str(folder), CCACHE_NOHASHDIR="1",
                                CCACHE_SLOPPINESS="pch_defines,time_macros")

    def update(self):
        """Brings the copy up to date with the tree."""
        self.root.mkdir(parents=True, exist_ok=True)
        for name in tracked_tops(self.tree):
            mirror(self.tree / name, self.root / name)
        last = self.root / self.mutated.read_text() if self.mutated.exists() else None
        if last and last.exists():
            last.touch()  # an interrupted run may have compiled it since it was put right

    def configure(self):
        self.run(["cmake", "-S", self.root, "-B", self.build_folder, *CONFIGURATION,
                  f"-DCMAKE_CXX_FLAGS={' '.join(FLAGS)}",
                  f"-DCMAKE_PROJECT_INCLUDE={self.headers}"])

    def build_all(self):
        self.run(["cmake", "--build", self.build_folder, "-j", "2"])

    def run(self, command):
        done = subprocess.run(command, capture_output=True, text=True, env=self.environment)
        if done.returncode != 0:
            sys.exit(f"{done.stdout}{done.stderr}scripts/mutants: the tree does not build as it is")

    def remember(self, suite):
        """Builds the programs without a mutant, to compare others with."""
        self.run(["ninja", "-C", self.build_folder, "-j", "2",
                  *{os.path.relpath(check.program, self.build_folder) for check in suite}])
        self.environment["CCACHE_DISABLE"] = "1"
        for check in suite:
            self.original[check.program] = self.fingerprint(check)

    def fingerprint(self, check):
        """A hash of everything that is built and that the check runs."""
        if check.program not in self.loaded:
            programs = [check.program]
            if check.of_tool:
                programs.append(str(self.build_folder / "tools/vesk/vesk"))
            self.loaded[check.program] = [*programs, *self.libraries(programs)]
        return hash_of(self.loaded[check.program])

    def libraries(self, programs):
        """The shared libraries of this build that the programs load."""
        listed = subprocess.run(["ldd", *programs], check=True, text=True, capture_output=True)
        found = set(re.findall(r"=> (\S+)", listed.stdout))
        return sorted(name for name in found if name.startswith(str(self.build_folder)))

    def builds(self, *files):
        targets = [os.path.relpath(file, self.build_folder) for file in files]
        return processes.finish(["ninja", "-C", self.build_folder, "-j", "1", *targets],
                                env=self.environment, stdout=subprocess.DEVNULL) == 0

    def judge(self, mutant, suite):
        """(verdict, what caught it): not compiled, unchanged, caught or survived."""
        self.apply(mutant)
        try:
            verdict = self.verdict(mutant, suite)
            if verdict[0] == "survived" and mutant.operator.startswith("lock"):
                return self.lock_verdict(mutant)
            return verdict
        finally:
            self.restore()

    def verdict(self, mutant, suite):
        changed = False
        prints = {}
        library = self.library_of(mutant.file)
        if library and not self.builds(library):
            return "not compiled", ""
        for check in suite:
            if check.program not in prints:
                if not library and not self.builds(check.program):
                    return "not compiled", ""
                prints[check.program] = self.fingerprint(check)
            found = prints[check.program]
            if found == self.original[check.program]:
                continue
            changed = True
            if (check.name, found) not in self.results:
                self.results[check.name, found] = checks.catches(check)
            if self.results[check.name, found]:
                return "caught", check.name
        return ("survived" if changed else "unchanged"), ""

    def library_of(self, name):
        """The shared library that nothing but this source's own object changes in; or None."""
        found = sorted(self.build_folder.glob(name.split("/")[0] + "/lib*.so"))
        return found[0] if found and name.endswith(".cpp") else None

    def lock_verdict(self, mutant):
        """What clang's analysis says of a lock that no test misses."""
        analysis = self.root / "scripts/check-locks"
        passed = not analysis.exists() or processes.finish(
            [analysis, mutant.file], stdout=subprocess.DEVNULL) == 0
        return ("survived", "") if passed else ("caught", "scripts/check-locks")

    def apply(self, mutant):
        source = self.root / mutant.file
        self.mutated.write_text(mutant.file)
        self.original_text = source.read_bytes()
        source.write_bytes(mutant.applied_to(self.original_text))

    def restore(self):
        (self.root / self.mutated.read_text()).write_bytes(self.original_text)


def hash_of(files):
    found = hashlib.blake2b()
    for file in files:
        found.update(pathlib.Path(file).read_bytes())
    return found.hexdigest()


def tracked_tops(tree):
    """What lies in the top folder and is a part of the project."""
    listed = subprocess.run(["git", "ls-files"], cwd=tree, check=True, text=True,
                            capture_output=True)
    names = {name.split("/")[0] for name in listed.stdout.splitlines()}
    return sorted(name for name in names if (tree / name).exists())


def precompiled_headers(folder):
    """Compiles what everything includes, and writes what has CMake use it; the latter's path."""
    text = "".join(f"#include <{header}>\n" for header in HEADERS)
    header, compiled, used = (folder / name for name in ("all.h", "all.pch", "all.cmake"))
    if not used.exists() or header.read_text() != text:
        header.write_text(text)
        subprocess.run(["clang++", *FLAGS, *LIKEWISE, "-x", "c++-header", header, "-o", compiled],
                       check=True)
        used.write_text(USE.format(compiled))
    return used


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
