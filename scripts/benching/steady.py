"""Whether anything stands still that should move, or moves that should stand still."""
import json
import pathlib
import subprocess
import time

from benching import hosts, machine, table

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
VESK = ROOT / "build/peers/tools/vesk/vesk"
PEERS = ROOT / "build/peers/bench/peers"
ROUND_TRIPS = 22000
STALL_MS = 100


def stalls(rounds):
    """Lone round trips, and as many of the floor's: where both stall, the machine did."""
    subprocess.run([ROOT / "scripts/build", "peers", "peer_vesk", "peer_handoff"], check=True)
    longest = {"libvesk": [], "hand-off": []}
    for _ in range(rounds):
        for name, program in ("libvesk", "peer_vesk"), ("hand-off", "peer_handoff"):
            result = subprocess.run([PEERS / program, "--window", "1", "--requests",
                                     str(round(ROUND_TRIPS / 0.9))], check=True, timeout=120,
                                    capture_output=True, text=True)
            longest[name].append(json.loads(result.stdout)["max"] / 1000)
    print(f"\n{machine.describe()}; {rounds} x {ROUND_TRIPS:,} lone round trips\n")
    table.show(["", "longest, ms", "median of the longest, ms", f"stalls over {STALL_MS} ms"],
               [[name, table.number(max(each)), table.number(sorted(each)[len(each) // 2]),
                 str(sum(one > STALL_MS for one in each))] for name, each in longest.items()])
    machine_stalls = max(longest["hand-off"]) > STALL_MS
    return max(longest["libvesk"]) <= STALL_MS or machine_stalls


def wake_ups(pid):
    """How often a thread of the process gave up the processor of its own will."""
    total = 0
    for status in pathlib.Path(f"/proc/{pid}/task").glob("*/status"):
        for line in status.read_text().splitlines():
            if line.startswith("voluntary_ctxt_switches"):
                total += int(line.split()[1])
    return total


def idle(seconds):
    """Two connected hosts with a provider and a request behind them, and nothing to do."""
    subprocess.run([ROOT / "scripts/build", "peers", "vesk_tool"], check=True)
    with hosts.running(VESK) as running:
        time.sleep(6)  # acknowledgements and time-outs are over
        processes = running.processes
        before = {name: (wake_ups(one.pid), machine.processor_seconds(one.pid))
                  for name, one in processes.items()}
        time.sleep(seconds)
        rows = [[name, str(wake_ups(one.pid) - before[name][0]),
                 f"{(machine.processor_seconds(one.pid) - before[name][1]) * 1e6:.0f}"]
                for name, one in processes.items()]
    print(f"\n{machine.describe()}; idle for {seconds} s\n")
    table.show(["", "wake-ups", "processor, us"], rows)
    return all(row[1:] == ["0", "0"] for row in rows)
