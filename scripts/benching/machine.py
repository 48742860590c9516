"""Where and when figures are taken, and processes that are measured there."""
import datetime
import functools
import os
import pathlib
import platform
import re
import subprocess
import time

PLACES = {"one core": {0}, "free": None}


def describe():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    kernel = re.match(r"\d+\.\d+", platform.release())
    return (f"{datetime.date.today():%Y-%m-%d}, {cpu[1].strip() if cpu else platform.machine()}, "
            f"{os.cpu_count()} cores, Linux {kernel[0] if kernel else platform.release()}, "
            f"load average {os.getloadavg()[0]:.1f}")


def start(command, cores, **options):
    """A process on these cores; on all where there is nothing."""
    place = functools.partial(os.sched_setaffinity, 0, cores) if cores else None
    return subprocess.Popen(command, preexec_fn=place, **options)


def processor_seconds(pid):
    """What all its threads have taken until now: Linux makes the clock's number of the pid's."""
    return time.clock_gettime((~pid << 3) | 2)
