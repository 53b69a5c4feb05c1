"""What one must know of a machine to understand its figures; nothing that tells which one it is."""

import os
import platform
import re
import resource
import subprocess
from pathlib import Path

LIBRARIES = {"glibc": "libc6", "libevent": "libevent-dev", "libuv": "libuv1-dev",
             "libev": "libev-dev", "asio": "libasio-dev", "glib": "libglib2.0-dev",
             "spdlog": "libspdlog-dev", "glog": "libgoogle-glog-dev", "libunwind": "libunwind-dev",
             "Google Benchmark": "libbenchmark-dev"}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def version(package):
    """As its authors count, without what Debian adds."""
    return re.sub(r"^\d+:|[-+].*$", "", output("dpkg-query", "-W", "-f", "${Version}", package))


def machine_facts():
    processor = re.search(r"^model name\s*: (.*)", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    system = platform.uname()
    return [["processor", processor[1] if processor else "unknown"],
            ["cores", f"{os.cpu_count()}, of which the programs use one"],
            ["system", platform.freedesktop_os_release()["PRETTY_NAME"]],
            ["kernel", f"{system.system} {system.release.split('-')[0]} {system.machine}"],
            ["compiler", f"g++ {output('g++', '-dumpfullversion')}, Release"],
            ["libraries", ", ".join(f"{name} {version(package)}" for name, package in LIBRARIES.items())],
            ["descriptors allowed", f"{resource.getrlimit(resource.RLIMIT_NOFILE)[1]}"]]


class Noise:
    """Of the machine, since this object was made."""

    def __init__(self):
        self.begin = self.seconds()

    @staticmethod
    def seconds():
        """Of the clock, of all cores: used by others than this process and its children, and taken
        away by what the machine runs on."""
        user, nice, system, _, _, irq, softirq, stolen = (
            int(ticks) / os.sysconf("SC_CLK_TCK")
            for ticks in Path("/proc/stat").read_text().split(maxsplit=9)[1:9])
        *own, elapsed = os.times()
        return elapsed, user + nice + system + irq + softirq - sum(own), stolen

    def percent(self):
        """Of a core: used by others, and taken away."""
        elapsed, others, stolen = (now - then for now, then in zip(self.seconds(), self.begin))
        return {"others": 100 * max(others, 0) / elapsed, "stolen": 100 * stolen / elapsed}
