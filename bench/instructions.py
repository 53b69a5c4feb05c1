#!/usr/bin/python3
"""Instructions that a run of each hot path takes, as callgrind counts them. Unlike times they are
the same on a busy machine and on an idle one.
Usage: instructions.py write|check|confirm PROGRAM LOG
"write" accepts the counts of PROGRAM, which is InstructionCounts, as they are. "check" fails when one
grew; where the machine cannot be compared it says so. "confirm" also fails there, and when one shrank.
LOG is a file for what valgrind says."""

import ctypes
import os
import platform
import re
import subprocess
import sys
from pathlib import Path

BASELINE = Path(__file__).with_name("instructions.txt")
TOLERANCE = 0.03
# Where the accepted counts were made: others have another C library or another code generator.
ACCEPTED = {"system": "debian 12", "processor": "x86_64", "compiler": "g++ 12"}
# Enough that vectors have grown; and numbers of equal length, so that the stack begins alike.
FEWER, MORE = 1000, 2000
# The C library chooses functions for strings by the processor; without what is listed it chooses
# those that every x86_64 has. A line of a trace leaves out the thread's id, whose length varies.
WITHOUT = """AVX AVX2 AVX512F AVX512VL AVX512BW BMI1 BMI2 ERMS FSRM FMA FMA4 LZCNT MOVBE POPCNT RTM SSE3
SSSE3 SSE4_1 SSE4_2 XSAVE XSAVEC AVX_Fast_Unaligned_Load Fast_Unaligned_Copy Fast_Unaligned_Load
Fast_Copy_Backward Fast_Rep_String Slow_BSF"""
ENVIRONMENT = {
    "GLIBC_TUNABLES": "glibc.cpu.hwcaps=" + ",".join(f"-{name}" for name in WITHOUT.split()),
    "LD_BIND_NOW": "1", "TRACEFORMAT": "date,time,handle,level", "TZ": "UTC",
    "PATH": "/usr/bin:/bin"}


def read_table(file):
    """Instructions of one run, by path."""
    lines = (line for line in file.read_text().splitlines() if line and line[0] != "#")
    return {path: float(number)  # names have single blanks
            for path, _, number in (line.partition("  ") for line in lines)}


def to_text(table):
    return ("# Instructions of one run of each hot path, counted by callgrind on Debian 12, x86_64.\n"
            "# Written by ./dev bench --instructions, and compared by ./dev check.\n" +
            "".join(f"{path:<58}{table[path]:>10.1f}\n" for path in sorted(table)))


def differences(before, now):
    """What is wrong with `now`, one line for each path: it grew by too much, came or went. And the
    paths that shrank by as much."""
    faults = [f"{path}: new, it has no count to compare with" for path in now if path not in before]
    faults += [f"{path}: has a count, but is no longer measured" for path in before if path not in now]
    fewer = []
    for path in sorted(now.keys() & before.keys()):
        change = now[path] / before[path] - 1
        # Something that happens once in a program, in one of the two, is part of an instruction here.
        if abs(change) > TOLERANCE and abs(now[path] - before[path]) >= 1:
            (faults if change > 0 else fewer).append(
                f"{path}: {before[path]:.1f} instructions before, {now[path]:.1f} now "
                f"({100 * change:+.1f} %)")
    return faults, fewer


def why_not_comparable(compiler):
    """Empty where this machine's counts can be compared with the accepted ones."""
    release = platform.freedesktop_os_release()
    here = {"system": f"{release.get('ID')} {release.get('VERSION_ID')}",
            "processor": platform.machine(), "compiler": compiler}
    return ", ".join(f"the {what} is {here[what]}" for what in here if here[what] != ACCEPTED[what])


def start(program, path, times, result, log):
    def fixed_addresses():  # where that is forbidden, valgrind places most by itself
        ctypes.CDLL(None).personality(0x0040000)
    result.unlink(missing_ok=True)  # none of a path before may pass for the count of this
    return subprocess.Popen(["valgrind", "--tool=callgrind", f"--callgrind-out-file={result}",
                             program, path, str(times)], stdout=log, stderr=log, env=ENVIRONMENT,
                            preexec_fn=fixed_addresses)


def measure(program, paths, log_file):
    """The difference between more runs and fewer, by path."""
    table = {}
    results = {times: Path(f"{log_file}.{times}") for times in (FEWER, MORE)}
    with open(log_file, "w", encoding="utf-8") as log:
        for path in paths:
            runs = [start(program, path, times, result, log) for times, result in results.items()]
            if any([run.wait() != 0 for run in runs]):
                raise SystemExit(f"{path} failed under valgrind, see {log_file}")
            fewer, more = (int(re.search(r"^totals: (\d+)", result.read_text(), re.MULTILINE)[1])
                           for result in results.values())
            table[path] = (more - fewer) / (MORE - FEWER)
    return table


def main(command, program, log):
    """The exit code."""
    program = os.path.realpath(program)
    compiler, *paths = subprocess.run([program], check=True, text=True,
                                      capture_output=True).stdout.splitlines()
    if reason := why_not_comparable(compiler):
        print("instruction counts are those of Debian 12 on x86_64, not compared here:", reason)
        return 0 if command == "check" else 1
    now = measure(program, paths, log)
    if command == "write":
        BASELINE.write_text(to_text(now))
        print(to_text(now), end="")
        return 0
    faults, fewer = differences(read_table(BASELINE), now)
    if command == "confirm":
        faults += fewer
    elif fewer:
        print(f"Fewer instructions than {BASELINE.name} says; ./dev bench --instructions records it:",
              *fewer, sep="\n  ")
    if faults:
        print(f"Instruction counts differ from {BASELINE.name}; where that is meant, ./dev bench "
              "--instructions writes them anew, to be committed together with the change:",
              *faults, sep="\n  ", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    if len(sys.argv) != 4 or sys.argv[1] not in ("write", "check", "confirm"):
        raise SystemExit(__doc__)
    raise SystemExit(main(*sys.argv[1:]))
