"""Whether anything stands still that should move, or moves that should stand still."""
import json
import pathlib
import subprocess
import tempfile
import time

from benching import machine, table

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
    with tempfile.TemporaryDirectory(prefix="vesk-idle-") as folder:
        commands = {"listening host": ["host", "--listen", "--channel", f"unix:{folder}/channel",
                                       "--clients", f"unix:{folder}/far"],
                    "connecting host": ["host", "--channel", f"unix:{folder}/channel",
                                        "--clients", f"unix:{folder}/near"],
                    "provider": ["provide", "--host", f"unix:{folder}/far", "test/test",
                                 "--echo"]}
        processes = {}
        for name, command in commands.items():
            processes[name] = machine.start([VESK, *command], None, stderr=subprocess.DEVNULL)
            time.sleep(0.3)
        try:
            subprocess.run([VESK, "call", "--host", f"unix:{folder}/near", "test/test", "--data",
                            "x"], check=True, stdout=subprocess.DEVNULL)
            time.sleep(6)  # acknowledgements and time-outs are over
            before = {name: (wake_ups(one.pid), machine.processor_seconds(one.pid))
                      for name, one in processes.items()}
            time.sleep(seconds)
            rows = [[name, str(wake_ups(one.pid) - before[name][0]),
                     f"{(machine.processor_seconds(one.pid) - before[name][1]) * 1e6:.0f}"]
                    for name, one in processes.items()]
        finally:
            for process in processes.values():
                process.terminate()
                process.wait()
    print(f"\n{machine.describe()}; idle for {seconds} s\n")
    table.show(["", "wake-ups", "processor, us"], rows)
    return all(row[1:] == ["0", "0"] for row in rows)
