"""One run: which mutants, who tries them, and what is printed of it."""
import os
import random
import sys
import threading
import time

from . import checks, mutants, report
from .copies import Copy
from .equivalents import Equivalents

COUNTED = ("caught", "survived", "equivalent")


class Work:
    """Mutants in the order in which they are tried, and the verdicts, for several threads."""

    def __init__(self, chosen, equivalents, sample, end):
        self.chosen = chosen
        self.equivalents = equivalents
        self.sample = sample or len(chosen)
        self.end = end
        self.next = 0
        self.verdicts = {}
        self.lock = threading.Lock()

    def take(self):
        """The number of the next mutant, or None when there is enough or no time is left."""
        with self.lock:
            late = self.end is not None and time.monotonic() >= self.end
            if late or self.next == len(self.chosen) or self.counted() >= self.sample:
                return None
            self.next += 1
            return self.next - 1

    def counted(self):
        return sum(verdict in COUNTED for verdict, _ in self.verdicts.values())

    def finish(self, number, verdict):
        with self.lock:
            self.verdicts[number] = verdict
            if verdict[0] == "survived":
                print(report.described(self.chosen[number]), file=sys.stderr, flush=True)
            if len(self.verdicts) % 25 == 0:
                print(f"{self.counted()} of {self.sample} tried", file=sys.stderr, flush=True)

    def results(self):
        """(mutant, verdict, what caught it) of those that count, no more than were asked for."""
        found = [(self.chosen[number], *self.verdicts[number]) for number in sorted(self.verdicts)
                 if self.verdicts[number][0] in COUNTED]
        return found[:self.sample]


def run(options, tree, folder, scratch, begin):
    os.environ["TMPDIR"] = scratch
    checks.limit_resources()
    copies = [Copy(tree, folder / str(number)) for number in range(options.jobs)]
    copies[0].prepare()
    equivalents = Equivalents(tree / "tests/equivalent-mutants.json")
    chosen = choose(options, tree, copies[0], equivalents)
    if options.list:
        for mutant in chosen:
            print(report.described(mutant))
        print(f"{len(chosen)} mutants")
        return
    end = begin + options.limit_seconds if options.limit_seconds else None
    work = Work(chosen, equivalents, options.sample, end)
    try_all(work, copies)
    conclude(work, begin)


def choose(options, tree, copy, equivalents):
    """The mutants that the options ask for, in a random order."""
    files = mutants.files_in_scope(tree, options.files)
    changed = mutants.changed_since(tree, options.changed) if options.changed else None
    if changed is not None:
        files = [name for name in files if name in changed]
    if not files:
        raise LookupError("no file is left with these options")
    found = mutants.mutants_of(copy.root, copy.build_folder, files)
    for entry in equivalents.stale(found, files):
        print(f"tests/equivalent-mutants.json: no mutant matches any more: {entry}")
    if not options.files and changed is None and equivalents.too_many(found):
        count, allowed = equivalents.too_many(found)
        raise ValueError(f"tests/equivalent-mutants.json has {count} entries; {allowed} may be, "
                         "8 % of all mutants")
    if changed is not None:
        found = [mutant for mutant in found if changed[mutant.file] & set(mutant.lines)]
    if options.equivalents:
        found = [mutant for mutant in found if mutant in equivalents]
        equivalents.entries = {}
    random.Random(options.seed).shuffle(found)
    return found


def try_all(work, copies):
    """Builds the copies, one after the other, and lets each take what comes next."""
    copies[0].build_all()
    suites = Suites(copies[0])
    threads = [threading.Thread(target=try_some, args=(work, copy, suites), daemon=True)
               for copy in copies]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


class Suites:
    """The checks for the library and the test kit, and those for the tool."""

    def __init__(self, copy):
        self.first = copy
        known = checks.measured(checks.known_checks(copy.build_folder))
        self.known = known

    def for_copy(self, copy):
        """[checks of the library, checks of the tool], with the programs of this copy."""
        own = [check.moved(self.first.build_folder, copy.build_folder) for check in self.known]
        return ([check for check in own if not check.of_tool],
                [check for check in own if check.of_tool])


def try_some(work, copy, suites):
    if copy is not suites.first:
        copy.prepare()
        copy.build_all()
    library, tool = suites.for_copy(copy)
    copy.remember([*library, *tool])
    while (number := work.take()) is not None:
        mutant = work.chosen[number]
        if mutant in work.equivalents:
            work.finish(number, ("equivalent", ""))
            continue
        suite = tool if mutant.file.startswith("tools/") else library
        work.finish(number, copy.judge(mutant, suite))


def conclude(work, begin):
    results = work.results()
    for mutant, verdict, _ in results:
        if verdict == "survived":
            print(report.described(mutant) + "\n")
    print(report.table(results))
    verdicts = [verdict for verdict, _ in work.verdicts.values()]
    print(f"{verdicts.count('not compiled')} more did not compile, {verdicts.count('unchanged')} "
          "were the same program")
    untried = min(len(work.chosen) - work.next, work.sample - work.counted())
    if untried > 0:
        print(f"{untried} were not tried: the time was over")
    print(f"{time.monotonic() - begin:.0f} s")
