"""What an operation costs when there is more of everything: vesk_growth, and a host's clients."""
import json
import pathlib
import selectors
import socket
import struct
import subprocess

from benching import hosts, machine, svg, table

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PROGRAM = ROOT / "build/default/bench/vesk_growth"
VESK = ROOT / "build/default/tools/vesk/vesk"
CLIENTS = 1, 10, 100, 1000
WINDOW = 64  # requests under way, whatever the number of clients
FLAT = 1.5  # times the cost at the least; less is told apart from noise only by a quiet machine
AXES = {"sessions": "sessions", "pending": "packets pending",
        "awaiting": "packets awaiting acknowledgement", "payload": "bytes of payload",
        "clients": "clients of a host"}


def benchmarks():
    """(axis, operation) -> {number: ns}; the least of the repetitions."""
    result = subprocess.run([PROGRAM, "--benchmark_repetitions=5", "--benchmark_min_time=0.02",
                             "--benchmark_format=json"], check=True, capture_output=True,
                            text=True)
    costs = {}
    for run in json.loads(result.stdout)["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        name, number = run["name"].split("/")[:2]
        axis, operation = name.split("_")
        words = "".join(f" {c.lower()}" if c.isupper() else c for c in operation)
        manual = "manual_time" in run["name"]
        cost = run["real_time" if manual else "cpu_time"] / run.get("each", 1)
        line = costs.setdefault((axis, words), {})
        line[int(number)] = min(cost, line.get(int(number), cost))
    return costs


def message(kind, body):
    return struct.pack("<IB", len(body) + 1, kind) + body


def name(text):
    return bytes([len(text)]) + text.encode()


class Client:
    """One consumer of a host, as its own process would be."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.socket.sendall(message(1, b"\x01" + name("test") + name("test")))
        self.session = struct.unpack("<H", self.read()[1:])[0]
        self.next = 0

    def read(self):
        size = struct.unpack("<I", self.exactly(4))[0]
        return self.exactly(size)

    def exactly(self, size):
        data = self.socket.recv(size, socket.MSG_WAITALL)
        if len(data) != size:
            raise SystemExit("the host has closed a client's connection")
        return data

    def ask(self):
        self.next = (self.next + 1) % 65536
        self.socket.sendall(message(4, struct.pack("<HH", self.session, self.next) + b"x" * 64))


def clients_of_a_host(requests=20000):
    """number of clients -> ns of the processor that the near host takes for a round trip."""
    costs = {}
    for count in CLIENTS:
        with hosts.running(VESK) as running, selectors.DefaultSelector() as ready:
            clients = [Client(f"{running.folder}/near") for _ in range(count)]
            host = running.processes["connecting host"]
            for client in clients:
                ready.register(client.socket, selectors.EVENT_READ, client)
            tried = [round_trips(clients, ready, requests // 4, host.pid)
                     for _ in range(4)]
            costs[count] = min(tried) * 1e9
            for client in clients:
                client.socket.close()
    return {("clients", "round trip, of the host"): costs}


def round_trips(clients, ready, requests, pid):
    """Seconds of the process for each; the clients take turns, so that all of them ask."""
    before = machine.processor_seconds(pid)
    asked = done = 0
    while done < requests:
        while asked < requests and asked - done < WINDOW:
            clients[asked % len(clients)].ask()
            asked += 1
        for key, _ in ready.select():
            key.data.read()
            done += 1
    return (machine.processor_seconds(pid) - before) / requests


def verdict(axis, line):
    least, most = min(line), max(line)
    if axis == "payload":
        each = (line[most] - line[least]) / (most - least)
        half = sorted(line)[-2]
        bent = (line[most] - line[least]) / (line[half] - line[least]) / (most / half)
        shape = "linear in bytes" if 0.5 < bent < 2 else "grows unevenly"
        return f"{shape}, {each:.2f} ns each"
    times = line[most] / line[least]
    return "flat" if times < FLAT else f"grows {times:.1f} times"


def main(path):
    for arguments in ["setup", "bench"], ["build", "default", "vesk_growth", "vesk_tool"]:
        subprocess.run([ROOT / "scripts" / arguments[0], *arguments[1:]], check=True)
    note = machine.describe()
    costs = {**benchmarks(), **clients_of_a_host()}
    print(f"\n{note}; ns of the processor an operation, the least of the repetitions\n")
    for axis, label in AXES.items():
        lines = {key[1]: line for key, line in costs.items() if key[0] == axis}
        numbers = sorted({number for line in lines.values() for number in line})
        table.show([label, *(f"{number:,}" for number in numbers), ""],
                   [[operation, *(table.number(line[number]) for number in numbers),
                     verdict(axis, line)] for operation, line in lines.items()])
    if path:
        panels = []
        for axis, label in AXES.items():
            panels.append((label.capitalize(), label, "ns an operation",
                           [(operation, sorted(line.items())) for (where, operation), line
                            in costs.items() if where == axis]))
        svg.lines(path, "What an operation costs as there is more of what it works on",
                  f"scripts/bench --growth, {note}", panels)
