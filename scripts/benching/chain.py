"""A chain of four processes, with libvesk and with ZeroMQ, over Unix sockets."""
import json
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

from benching import hosts, machine, table

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
VESK = ROOT / "build/peers/tools/vesk/vesk"
ZEROMQ = ROOT / "build/peers/bench/peers/peer_zeromq_chain"
PAYLOAD = 64
WINDOWS = 1, 64


def run(cores, *command):
    """What it printed on stdout and stderr, and the processor's seconds that it took."""
    before = os.times()
    process = machine.start(command, cores, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True)
    out, err = process.communicate(timeout=120)
    after = os.times()
    if process.returncode:
        raise SystemExit(f"{' '.join(map(str, command))} failed: {err}")
    return out, err, (after.children_user + after.children_system
                      - before.children_user - before.children_system)


def processor_seconds(processes):
    return sum(machine.processor_seconds(process.pid) for process in processes)


class Libvesk:
    name = "vesk call - host - host - vesk provide"

    def __init__(self, cores):
        self.cores = cores

    def __enter__(self):
        self.context = hosts.running(VESK, self.cores)
        self.hosts = self.context.__enter__()
        return self

    def __exit__(self, *what):
        self.context.__exit__(*what)

    def ask(self, window, count):
        out, err, cpu = run(
            self.cores, VESK, "call", "--host", self.hosts.near, "test/test", "--data",
            "x" * PAYLOAD, "--count", str(count), "--window", str(window), "--verify", "--report",
            "--stats", "--timeout", "60000")
        seconds = float(re.search(r"([\d.]+) s$", err.strip())[1])
        p50, p99 = map(int, out.split()[-2:])
        return {"rate": count / max(seconds, 0.01), "p50": p50, "p99": p99, "count": count}, cpu

    def measure(self, window, seconds):
        rate = self.ask(window, 200 * window)[0]["rate"]  # warms up, too
        processes = self.hosts.processes.values()
        before = processor_seconds(processes)
        measured, cpu = self.ask(window, max(1000, int(rate * seconds)))
        return {**measured, "cpu": (cpu + processor_seconds(processes) - before)
                / measured["count"] * 1e6}


class ZeroMq:
    name = "ZeroMQ dealer - proxy - proxy - worker"

    def __init__(self, cores):
        self.cores = cores

    def __enter__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="vesk-chain-")
        self.front, middle, back = (f"ipc://{self.folder.name}/{name}"
                                    for name in ("front", "middle", "back"))
        self.processes = [machine.start([ZEROMQ, *arguments], self.cores) for arguments in (
            ("proxy", middle, back), ("link", self.front, middle), ("worker", back))]
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.kill()
            process.wait()
        self.folder.cleanup()

    def measure(self, window, seconds):
        command = [ZEROMQ, "dealer", self.front, "--payload", str(PAYLOAD), "--window",
                   str(window), "--seconds"]
        run(self.cores, *command, "0.1")
        before = processor_seconds(self.processes)
        out, _, cpu = run(self.cores, *command, str(seconds))
        measured = json.loads(out)
        count = measured["rate"] * seconds * 1.1  # warming up is in the processor's time
        return {**measured,
                "cpu": (cpu + processor_seconds(self.processes) - before) / count * 1e6}


def measure_all(rounds, seconds):
    measured = {}
    for number in range(rounds):
        for place, cores in machine.PLACES.items():
            for kind in (Libvesk, ZeroMq)[::1 if number % 2 else -1]:
                with kind(cores) as chain:
                    for window in WINDOWS:
                        measured.setdefault((place, window, kind), []).append(
                            chain.measure(window, seconds))
        print(f"round {number + 1} of {rounds}", file=sys.stderr, flush=True)
    return measured


def main(rounds, seconds):
    subprocess.run([ROOT / "scripts/build", "peers", "vesk_tool", "vesk_peers"], check=True)
    if not ZEROMQ.exists():
        raise SystemExit("scripts/bench-peers --chain needs libzmq3-dev")
    note = machine.describe()
    measured = measure_all(rounds, seconds)
    print(f"\n{note}; medians of {rounds} rounds of {seconds:g} s\n")
    rows = []
    for place in machine.PLACES:
        for kind in Libvesk, ZeroMq:
            row = [f"{place}: {kind.name}"]
            for window, keys in (1, ("p50", "p99", "cpu")), (64, ("rate", "p99", "cpu")):
                row += [table.number(statistics.median(one[key] for one in
                                                       measured[place, window, kind]))
                        for key in keys]
            rows.append(row)
        row = [f"{place}: libvesk / ZeroMQ"]
        for window, keys in (1, ("p50", "p99", "cpu")), (64, ("rate", "p99", "cpu")):
            row += [table.number(statistics.median(
                one[key] / two[key] for one, two in zip(measured[place, window, Libvesk],
                                                        measured[place, window, ZeroMq])))
                    for key in keys]
        rows.append(row)
    table.show(["64 B", "1 outstanding: p50 us", "p99 us", "CPU us", "64 outstanding: requests/s",
                "p99 us", "CPU us"], rows)
