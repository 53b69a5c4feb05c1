"""What the benchmark programs measured: each row with all its repetitions."""

import json
import math
import statistics

LACKS_DESCRIPTORS = "too few descriptors"  # what a row says when the machine allows it too few
COUNTERS = ("bytes", "heap_bytes", "type_bytes")
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
MANUAL = "/manual_time"


def quartiles(numbers):
    """The first, the median and the third."""
    if len(numbers) == 1:
        return numbers * 3
    return statistics.quantiles(numbers, method="inclusive")


class Row:
    def __init__(self):
        self.nanoseconds = []  # of processor time per iteration, one for each repetition
        self.counters = {}
        self.skipped = ""  # for want of descriptors, in these words
        self.failures = set()  # any other reasons why repetitions gave up

    def add(self, repetition):
        if "error_occurred" in repetition:
            reason = repetition["error_message"]
            if reason == LACKS_DESCRIPTORS:
                self.skipped = reason
            else:
                self.failures.add(reason)
            return
        self.counters |= {key: repetition[key] for key in COUNTERS if key in repetition}
        if "each" in repetition:  # an iteration of this row does many things at once
            self.nanoseconds.append(repetition["each"] * 1e9)
            return
        # What reads the processor's time by itself tells it as manual time, the "real" one.
        field = "real_time" if repetition["run_name"].endswith(MANUAL) else "cpu_time"
        self.nanoseconds.append(repetition[field] * NANOSECONDS[repetition["time_unit"]])

    @property
    def measured(self):
        return bool(self.nanoseconds) and not self.skipped and not self.failures

    @property
    def median(self):
        return quartiles(self.nanoseconds)[1]

    @property
    def spread(self):
        """The distance of the quartiles in percent of the median."""
        low, median, high = quartiles(self.nanoseconds)
        return 100 * (high - low) / median


def read(files):
    """The rows of all programs, by name, in the order of the names."""
    rows = {}
    for file in files:
        with open(file, encoding="utf-8") as stream:
            entries = json.load(stream)["benchmarks"]
        fresh = {}
        for entry in entries:
            if entry["run_type"] == "iteration":
                # How a row is measured stands in its name too, behind what it is.
                parts = entry["run_name"].removesuffix(MANUAL).split("/")
                name = "/".join(part for part in parts if not part.startswith("iterations:"))
                fresh.setdefault(name, Row()).add(entry)
        if twice := rows.keys() & fresh.keys():
            raise SystemExit(f"two programs measure a row of the same name: {min(twice)}")
        rows |= fresh
    return dict(sorted(rows.items()))


def ratio(ours, peer):
    """The ratio of the medians, between the quartiles of the ratios of all pairs of repetitions."""
    pairs = [mine / other for mine in ours.nanoseconds for other in peer.nanoseconds]
    low, _, high = quartiles(pairs)
    return low, ours.median / peer.median, high


def three_digits(number):
    """Never with an exponent: 0.612, 4.31, 87.5, 1230000."""
    if number == 0:
        return "0"
    rounded = float(f"{number:.2e}")
    return f"{rounded:.{max(0, 2 - math.floor(math.log10(abs(rounded))))}f}"


def duration(nanoseconds):
    """With the unit that suits it: 4.31 ns, 1.23 ms."""
    for unit, size in (("ns", 1), ("µs", 1e3), ("ms", 1e6)):
        if nanoseconds < 999.5 * size:
            return f"{three_digits(nanoseconds / size)} {unit}"
    return f"{three_digits(nanoseconds / 1e9)} s"


def count(number):
    """1000 as 1k, 1000000 as 1M."""
    for letter, size in (("M", 1_000_000), ("k", 1_000)):
        if number >= size:
            return f"{number / size:g}{letter}"
    return f"{number:g}"
