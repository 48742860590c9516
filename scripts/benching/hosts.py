"""Two connected hosts and a provider that echoes behind one of them, as processes."""
import contextlib
import pathlib
import subprocess
import tempfile
import time

from benching import machine

PATIENCE = 30  # seconds for a process to be there; other builds may have the machine


class Hosts:
    """`processes` has "listening host", "connecting host" and "provider", in that order."""

    def __init__(self, vesk, folder, cores):
        self.vesk, self.folder, self.cores, self.processes = vesk, pathlib.Path(folder), cores, {}
        self.near = f"unix:{folder}/near"

    def start(self):
        channel, far = f"unix:{self.folder}/channel", f"unix:{self.folder}/far"
        self.launch("listening host", "far", "host", "--listen", "--channel", channel,
                    "--clients", far)
        self.launch("connecting host", "near", "host", "--channel", channel,
                    "--clients", self.near)
        self.launch("provider", None, "provide", "--host", far, "test/test", "--echo")
        for _ in range(PATIENCE):  # until somebody provides
            asked = subprocess.run([self.vesk, "call", "--host", self.near, "test/test", "--data",
                                    "x", "--timeout", "1000"], check=False,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            if asked.returncode == 0:
                return self
        raise SystemExit("the hosts carry no request")

    def launch(self, name, serves, *arguments):
        self.processes[name] = machine.start([self.vesk, *arguments], self.cores,
                                             stderr=subprocess.DEVNULL)
        until = time.monotonic() + PATIENCE
        while serves and not (self.folder / serves).exists():
            if time.monotonic() > until:
                raise SystemExit(f"the {name} does not serve")
            time.sleep(0.01)

    def stop(self):
        for process in self.processes.values():
            process.terminate()
            process.wait()


@contextlib.contextmanager
def running(vesk, cores=None):
    with tempfile.TemporaryDirectory(prefix="vesk-bench-") as folder:
        hosts = Hosts(vesk, folder, cores)
        try:
            yield hosts.start()
        finally:
            hosts.stop()
