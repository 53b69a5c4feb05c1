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


def first(pattern, file):
    found = re.search(pattern, Path(file).read_text(), re.MULTILINE)
    return found[1] if found else "unknown"


def machine_facts():
    libraries = ", ".join(f"{name} {version(package)}" for name, package in LIBRARIES.items())
    system = platform.uname()
    return [["processor", first(r"^model name\s*: (.*)", "/proc/cpuinfo")],
            ["cores", f"{os.cpu_count()}, of which the programs use one"],
            ["system", first(r'^PRETTY_NAME="(.*)"', "/etc/os-release")],
            ["kernel", f"{system.system} {system.release.split('-')[0]} {system.machine}"],
            ["compiler", f"g++ {output('g++', '-dumpfullversion')}, Release"],
            ["libraries", libraries],
            ["descriptors allowed", f"{resource.getrlimit(resource.RLIMIT_NOFILE)[1]}"]]


def processor_seconds():
    """Of all cores since the machine started: busy, and taken away by what it runs on."""
    user, nice, system, _, _, irq, softirq, steal = map(
        int, Path("/proc/stat").read_text().split("\n")[0].split()[1:9])
    ticks = os.sysconf("SC_CLK_TCK")
    return (user + nice + system + irq + softirq) / ticks, steal / ticks


class Conditions:
    """How noisy the machine is while this object measures."""

    def __init__(self):
        # Of before the caller built anything, where it says so.
        self.load = os.environ.get("LOAD_AT_START") or f"{os.getloadavg()[0]:.2f}"
        self.begin = os.times().elapsed, processor_seconds(), self.own()

    @staticmethod
    def own():
        times = os.times()
        return times.user + times.system + times.children_user + times.children_system

    def so_far(self):
        elapsed, (busy, stolen), own = self.begin
        busy_now, stolen_now = processor_seconds()
        seconds = max(os.times().elapsed - elapsed, 1e-3)
        others = max(busy_now - busy - (self.own() - own), 0)
        return {"load": self.load, "others": 100 * others / seconds,
                "stolen": 100 * (stolen_now - stolen) / seconds}
