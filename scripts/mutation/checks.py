"""What is run against a mutant: the tests that ctest knows, quickest first."""
import dataclasses
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import time

from . import processes

QUICK_SECONDS = 0.05  # tests that take longer are checks of their own
PATIENCE = 4          # times the normal duration, after
GRACE_SECONDS = 4


@dataclasses.dataclass
class Check:
    name: str
    command: list
    folder: str
    program: str          # what has to be built for it
    pattern: str = ""     # where the output decides, as for ctest
    seconds: float = 0.0  # as measured without a mutant

    @property
    def of_tool(self):
        return "/tests/e2e/" in self.program or self.program.endswith("/vesk")

    @property
    def is_gtest(self):
        return "--gtest_fail_fast" in self.command

    def moved(self, old, new):
        """The same in another build folder."""
        return dataclasses.replace(
            self, folder=self.folder.replace(str(old), str(new)),
            program=self.program.replace(str(old), str(new)),
            command=[part.replace(str(old), str(new)) for part in self.command])


def program_of(command, build):
    """What is built of a test: the program itself, or the first that a script or shell starts."""
    for word in " ".join(command).replace("'", " ").split():
        if word.startswith(f"{build}/") and pathlib.Path(word).is_file():
            return word
    return None


def known_checks(build):
    """All that ctest would run and that needs one program of this build; a gtest program is one
    check and not one for each of its tests."""
    listed = subprocess.run(["ctest", "--show-only=json-v1"], cwd=build, check=True, text=True,
                            capture_output=True)
    found = {}
    for test in json.loads(listed.stdout)["tests"]:
        if "command" not in test:
            sys.exit(f"scripts/mutants: the test '{test['name']}' is not built")
        program, *arguments = test["command"]
        properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
        folder = properties.get("WORKING_DIRECTORY", str(build))
        built = program_of(test["command"], build)
        if built is None:
            continue
        if any(argument.startswith("--gtest_filter=") for argument in arguments):
            name = pathlib.Path(program).name
            found[name] = Check(name, [program, "--gtest_fail_fast"], folder, built)
        else:
            pattern = "|".join(properties.get("PASS_REGULAR_EXPRESSION", []))
            found[test["name"]] = Check(test["name"], [program, *arguments], folder, built,
                                        pattern)
    return list(found.values())


def measured(known):
    """The same checks with their times, slow tests by themselves, quickest first."""
    found = []
    for check in known:
        found += split(check) if check.is_gtest else [check]
    return sorted((check for check in found if is_reliable(check)),
                  key=lambda check: check.seconds)


def is_reliable(check):
    """Whether the check passes without a mutant, and takes its time. Nothing can be said with one
    that fails now and then; one that always fails is to be mended first."""
    begin = time.monotonic()
    if passes(check, 600):
        check.seconds = time.monotonic() - begin
        return True
    if not any([passes(check, 600) for _ in range(3)]):
        sys.exit(f"scripts/mutants: '{check.name}' fails without any mutant; mend that first: "
                 f"{' '.join(check.command)}")
    print(f"scripts/mutants: '{check.name}' fails now and then without any mutant; it is not used",
          file=sys.stderr, flush=True)
    return False


def split(check):
    """The quick tests of a gtest program together, and each slow or failing one alone."""
    with tempfile.TemporaryDirectory() as folder:
        report = pathlib.Path(folder) / "report.json"
        passes(dataclasses.replace(check, command=[check.program,
                                                   f"--gtest_output=json:{report}"]), 600)
        suites = json.loads(report.read_text())["testsuites"] if report.exists() else []
    slow = [f"{suite['name']}.{test['name']}" for suite in suites for test in suite["testsuite"]
            if float(test.get("time", "0s").rstrip("s")) > QUICK_SECONDS or "failures" in test]
    alone = [Check(name, [*check.command, f"--gtest_filter={name}"], check.folder, check.program)
             for name in slow]
    check.command.append("--gtest_filter=-" + ":".join(slow))
    return [check, *alone]


def catches(check):
    """Whether the check fails, and does so again: not because the machine is busy."""
    begin = time.monotonic()
    if passes(check):
        return False
    is_hang = time.monotonic() - begin >= limit_of(check)
    return is_hang or not passes(check)


def limit_of(check):
    return GRACE_SECONDS + PATIENCE * check.seconds


def passes(check, limit=None):
    """Whether the check succeeds, in time."""
    with tempfile.TemporaryFile() as output:
        status = processes.finish(check.command, limit or limit_of(check), cwd=check.folder,
                                  stdout=output)
        if status is None or not check.pattern:
            return status == 0
        output.seek(0)
        return bool(re.search(check.pattern, output.read(1 << 20).decode(errors="replace")))
