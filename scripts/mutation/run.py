"""One run: which mutants, who tries them, and what is printed of it."""
import collections
import concurrent.futures
import os
import random
import sys
import threading
import time

from . import checks, mutants, processes, report
from .copies import Copy, precompiled_headers
from .equivalents import Equivalents

COUNTED = ("caught", "survived", "equivalent")


def is_of_tool(mutant):
    return mutant.file.startswith(("tools/", "client/", "hostkit_asio/"))


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
    processes.prepare()
    headers = precompiled_headers(folder)
    copies = [Copy(tree, folder / str(number), headers) for number in range(options.jobs)]
    for copy in copies:  # at once: the tree may change meanwhile
        copy.update()
    copies[0].configure()
    equivalents = Equivalents(tree / "tests/equivalent-mutants.json")
    chosen = choose(options, tree, copies[0], equivalents)
    if options.list:
        chosen = sorted(chosen[:options.sample], key=lambda mutant: (mutant.file, mutant.line))
        for mutant in chosen:
            print(report.described(mutant))
    if options.list or not chosen:
        print(f"{len(chosen)} mutants")
        return
    end = begin + options.limit_seconds if options.limit_seconds else None
    work = Work(chosen, equivalents, options.sample, end)
    try_all(work, copies)
    if options.equivalents:
        conclude_equivalents(work)
    else:
        conclude(work, begin)


def choose(options, tree, copy, equivalents):
    """The mutants that the options ask for, in a random order."""
    files = mutants.files_in_scope(tree, options.files)
    changed = mutants.changed_since(tree, options.changed) if options.changed else None
    if changed is not None:
        files = [name for name in files if name in changed]
    if not files and changed is None:
        raise LookupError(f"no source to change is named {' or '.join(options.files)}")
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
    sides = {is_of_tool(mutant) for mutant in work.chosen}
    known = checks.measured([check for check in checks.known_checks(copies[0].build_folder)
                             if check.of_tool in sides])
    with concurrent.futures.ThreadPoolExecutor(len(copies)) as pool:
        tries = [pool.submit(try_some, work, copy,
                             [check.moved(copies[0].build_folder, copy.build_folder)
                              for check in known])
                 for copy in copies]
        try:
            for done in concurrent.futures.as_completed(tries):
                done.result()
        except BaseException:  # an interruption too
            processes.stop()
            raise


def try_some(work, copy, known):
    copy.configure()
    copy.remember(known)
    while (number := work.take()) is not None:
        mutant = work.chosen[number]
        if mutant in work.equivalents:
            work.finish(number, ("equivalent", ""))
            continue
        suite = [check for check in known if check.of_tool == is_of_tool(mutant)]
        work.finish(number, copy.judge(mutant, suite))


def conclude_equivalents(work):
    wrong = [(mutant, by) for mutant, verdict, by in work.results() if verdict == "caught"]
    for mutant, by in wrong:
        print(f"caught by {by}, so not equivalent: {report.described(mutant)}")
    print(f"{len(wrong)} of {len(work.results())} are not equivalent")
    if wrong:
        sys.exit(1)


def conclude(work, begin):
    results = work.results()
    for mutant, verdict, _ in results:
        if verdict == "survived":
            print(report.described(mutant) + "\n")
    print(report.table(results))
    verdicts = [verdict for verdict, _ in work.verdicts.values()]
    found_by = collections.Counter(by for _, verdict, by in results if verdict == "caught")
    print("caught by: " + ", ".join(f"{by} {count}" for by, count in found_by.most_common()))
    print(f"{verdicts.count('not compiled')} more did not compile, {verdicts.count('unchanged')} "
          "were the same program")
    untried = min(len(work.chosen) - work.next, work.sample - work.counted())
    if untried > 0:
        print(f"{untried} were not tried: the time was over")
    print(f"{time.monotonic() - begin:.0f} s")
