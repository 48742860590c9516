"""What is run against a mutant: the tests that ctest knows, quickest first."""
import dataclasses
import json
import os
import pathlib
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time

QUICK_SECONDS = 0.05  # tests that take longer are checks of their own
PATIENCE = 4          # times the normal duration, after
GRACE_SECONDS = 4


@dataclasses.dataclass
class Check:
    name: str
    command: list
    folder: str
    pattern: str = ""     # where the output decides, as for ctest
    seconds: float = 0.0  # as measured without a mutant

    @property
    def program(self):
        return self.command[0]

    @property
    def of_tool(self):
        return "/tests/e2e/" in self.program

    def moved(self, old, new):
        """The same in another build folder."""
        return dataclasses.replace(
            self, folder=self.folder.replace(str(old), str(new)),
            command=[part.replace(str(old), str(new)) for part in self.command])


def known_checks(build):
    """All that ctest would run; a gtest program is one check and not one for each of its tests."""
    listed = subprocess.run(["ctest", "--show-only=json-v1"], cwd=build, check=True, text=True,
                            capture_output=True)
    found = {}
    for test in json.loads(listed.stdout)["tests"]:
        if "command" not in test:
            sys.exit(f"scripts/mutants: the test '{test['name']}' is not built")
        program, *arguments = test["command"]
        properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
        folder = properties.get("WORKING_DIRECTORY", str(build))
        if any(argument.startswith("--gtest_filter=") for argument in arguments):
            name = pathlib.Path(program).name
            found[name] = Check(name, [program, "--gtest_fail_fast"], folder)
        else:
            pattern = "|".join(properties.get("PASS_REGULAR_EXPRESSION", []))
            found[test["name"]] = Check(test["name"], [program, *arguments], folder, pattern)
    return list(found.values())


def measured(known):
    """The same checks with their times, slow tests by themselves, quickest first."""
    found = []
    for check in known:
        found += split(check) if "--gtest_fail_fast" in check.command else [check]
    for check in found:
        begin = time.monotonic()
        demand(check)
        check.seconds = time.monotonic() - begin
    return sorted(found, key=lambda check: check.seconds)


def demand(check):
    """Ends the run where the check fails twice: without a mutant that says nothing of mutants."""
    if not passes(check, 600) and not passes(check, 600):
        sys.exit(f"scripts/mutants: '{check.name}' fails without any mutant; mend that first: "
                 f"{' '.join(check.command)}")


def split(check):
    """The quick tests of a gtest program together, and each slow one alone."""
    with tempfile.TemporaryDirectory() as folder:
        report = pathlib.Path(folder) / "report.json"
        timed = dataclasses.replace(check, command=[*check.command,
                                                    f"--gtest_output=json:{report}"])
        demand(timed)
        suites = json.loads(report.read_text())["testsuites"]
    slow = [f"{suite['name']}.{test['name']}" for suite in suites for test in suite["testsuite"]
            if float(test.get("time", "0s").rstrip("s")) > QUICK_SECONDS]
    alone = [Check(name, [*check.command, f"--gtest_filter={name}"], check.folder)
             for name in slow]
    check.command.append("--gtest_filter=-" + ":".join(slow))
    return [check, *alone]


def passes(check, limit=None):
    """Whether the check succeeds, in time. What it started ends with it."""
    limit = limit or GRACE_SECONDS + PATIENCE * check.seconds
    with tempfile.TemporaryFile() as output:
        process = subprocess.Popen(check.command, cwd=check.folder, start_new_session=True,
                                   stdin=subprocess.DEVNULL, stdout=output,
                                   stderr=subprocess.DEVNULL)
        # Processor time is not spent waiting for others on a busy machine.
        resource.prlimit(process.pid, resource.RLIMIT_CPU, (int(limit / 2) + 1,) * 2)
        try:
            process.wait(limit)
        except subprocess.TimeoutExpired:
            return False
        finally:
            end_session(process)
        if not check.pattern:
            return process.returncode == 0
        output.seek(0)
        return bool(re.search(check.pattern, output.read(1 << 20).decode(errors="replace")))


def end_session(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def limit_resources():
    """For this process and all that it starts: no core files, no memory without end."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (8 << 30, 8 << 30))
