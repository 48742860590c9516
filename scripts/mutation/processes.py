"""Starts what a mutant is built and tried with, and leaves nothing of it behind."""
import atexit
import os
import resource
import signal
import subprocess
import sys
import threading

RUNNING = set()
STOPPED = threading.Event()


def finish(command, limit=None, **options):
    """Runs a command; its exit status, or None where it did not end within the limit in seconds.

    All that it has started ends with it.
    """
    if STOPPED.is_set():
        raise RuntimeError("the run has been stopped")
    process = subprocess.Popen(command, start_new_session=True, stdin=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, **options)
    RUNNING.add(process)
    if limit is not None:
        # Processor time is not spent waiting for others on a busy machine.
        resource.prlimit(process.pid, resource.RLIMIT_CPU, (int(limit / 2) + 1,) * 2)
    try:
        return process.wait(limit)
    except subprocess.TimeoutExpired:
        return None
    finally:
        end(process)


def end(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()
    RUNNING.discard(process)


@atexit.register
def stop():
    """Ends what is still running, and lets nothing begin any more."""
    STOPPED.set()
    for process in list(RUNNING):
        end(process)


def prepare():
    """For this process and all that it starts: no core files, no memory without end."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (8 << 30, 8 << 30))
    # A shell that starts this in the background has them ignored; the tests send them.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    for number in (signal.SIGHUP, signal.SIGQUIT):
        signal.signal(number, signal.SIG_DFL)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("scripts/mutants: ended by a signal"))
