"""Where and when figures were taken."""
import datetime
import os
import pathlib
import platform
import re


def describe():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    kernel = re.match(r"\d+\.\d+", platform.release())
    return (f"{datetime.date.today():%Y-%m-%d}, {cpu[1].strip() if cpu else platform.machine()}, "
            f"{os.cpu_count()} cores, Linux {kernel[0] if kernel else platform.release()}, "
            f"load average {os.getloadavg()[0]:.1f}")
