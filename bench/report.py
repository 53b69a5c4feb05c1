#!/usr/bin/python3
"""Makes one report of what bench/run left in a folder.
Usage: report.py DIRECTORY
Writes Performance.md and charts there, and the summary to standard output. Fails when a row of the
report is missing, or when any row gave up although the machine had descriptors for it."""

import json
import math
import statistics
import sys
from pathlib import Path

import chart
import instructions
from machine import machine_facts
from rows import count, duration, ratio, read, three_digits
from tables import COMPARISONS, GROWTHS, MEMORIES, SIZES, TOPICS, named_rows

HEAD = """Made by `./dev bench`; [bench/README.md](../bench/README.md) explains the rows. Times are of \
the processor and medians of {} repetitions, interleaved at random with those of the peers in the \
same program. A ratio is that of the medians, less than 1 where Tarvo is faster; in brackets the \
quartiles of the ratios of every repetition to every one of the peer. Spread is the distance of the \
quartiles in percent of the median.

How noisy the machine was: the load before the build was {}; other programs used {:.1f} % of a core \
meanwhile, and {:.1f} % of one was taken away from this machine.{}
"""
SUMMARY = """The target of a ratio is what it shall stay below, first and then. "Near" means that the \
target lies between the quartiles."""
GROWTH = """One operation among so many of its kind. The exponent is the slope of the line in the \
chart: 0 is constant, 1 is linear. The exponent also holds what it costs that many objects do not fit \
into the caches of the processor, so it cannot tell a logarithm from a constant; the last column says \
what the algorithm does.

![Growth](performance/growth.svg)"""
MEMORY = """Bytes for each of a hundred thousand: the type itself, and what the heap gave out, with \
counters of the allocator and all that belongs to the object."""
INSTRUCTIONS = """Of one run of each hot path, counted by callgrind on Debian 12, x86_64. They do not \
depend on how fast or busy the machine is; `./dev check` fails when one grows."""


def section(title, text, heads, lines, sides):
    """With a table; `sides` has a letter for each column, "r" for one of numbers."""
    marks = "|".join("--:" if side == "r" else "---" for side in sides)
    table = [f"| {' | '.join(cells)} |\n" for cells in [heads, *lines]]
    table.insert(1, f"|{marks}|\n")
    return f"## {title}\n\n" + (f"{text}\n\n" if text else "") + "".join(table)


def ranged(of):
    low, median, high = map(three_digits, of)
    return f"{median} ({low}–{high})"


def verdict(of, targets):
    """For each target whether it is met; "near" when the repetitions do not agree about that."""
    low, median, high = of
    return ", ".join(("yes" if median <= target else "**no**") +
                     (" (near)" if low <= target < high else "") for target in targets) or "–"


def exponent(costs):
    """The slope of the straight line through costs by size, where both axes are logarithmic."""
    axes = ([math.log10(number) for number in axis] for axis in zip(*costs.items()))
    return f"{statistics.linear_regression(*axes).slope:.2f}" if len(costs) > 1 else "–"


class Report:
    def __init__(self, directory):
        self.directory = directory
        self.rows = read(sorted((directory / "results").glob("*.json")))
        self.conditions = json.loads((directory / "conditions.json").read_text())
        missing = [name for name in sorted(named_rows() - self.rows.keys())
                   if not (self.conditions["quick"] and "/1000000" in name)]  # which that leaves out
        failed = [f"{name}: {reason}" for name, row in self.rows.items() for reason in row.failures]
        for what, names in (("no program measured these rows, which the report needs", missing),
                            ("these rows gave up", failed)):
            if names:
                raise SystemExit("\n  ".join([f"{what}:", *names]))

    def measured(self, name):
        row = self.rows.get(name)
        return row if row and row.measured else None

    def comparison(self, of):
        def line(ours, peer, value, met):
            targets = ", then ".join(f"{target:g}" for target in of.targets) or "–"
            return [of.path, ours, peer, value, targets, met]

        names = [name for pair in of.pairs for name in pair]
        if unknown := [name for name in names if not self.measured(name)]:
            row = self.rows.get(unknown[0])
            return line("–", "–", f"skipped: {row.skipped}" if row else "not in a quick run", "–")
        if of.counter:
            value = self.rows[names[0]].counters[of.counter]
            return line(f"{value:.0f}", "–", "–", verdict([value] * 3, of.targets))
        if len(of.pairs[0]) == 1:
            return line(duration(self.rows[names[0]].median), "–", "–", "–")
        pairs = [[self.rows[name] for name in pair] for pair in of.pairs]
        worst = max(pairs, key=lambda pair: ratio(*pair)[1])
        here = ratio(*worst)
        return line(*(duration(row.median) for row in worst), ranged(here), verdict(here, of.targets))

    def summary(self):
        return section("Summary", SUMMARY, ["path", "ours", "peer", "ratio", "target", "met?"],
                       map(self.comparison, COMPARISONS), "lrrrrl")

    def topic(self, topic):
        most = max((case.ours for case in topic.cases), key=len)
        heads = [f"{label} / row" for label in most] if len(most) > 1 else ["Tarvo / row"]
        lines = []
        for case in topic.cases:
            for label, name in case.bars.items():
                if (row := self.rows.get(name)) is None:
                    continue
                peer = label in case.peers
                cells = [case.label, label if peer else f"**{label}**"]
                cells += ([duration(row.median), f"{row.spread:.1f} %"] if row.measured
                          else [f"skipped: {row.skipped}", ""])
                ours = [self.measured(mine) for mine in case.ours.values()] if peer else []
                cells += [ranged(ratio(mine, row)) if mine and row.measured else "" for mine in ours]
                lines.append(cells + [""] * (4 + len(heads) - len(cells)))
        picture = f"![{topic.title}](performance/{topic.file}.svg)"
        return section(topic.title, f"{topic.text}\n\n{picture}".strip(),
                       ["", "row", "median", "spread", *heads], lines, "llrr" + "r" * len(heads))

    def costs(self):
        """Nanoseconds by size, for each that grows."""
        return [{size: row.median for size, name in one.rows.items() if (row := self.measured(name))}
                for one in GROWTHS]

    def growth(self):
        lines = [[one.label, *(duration(costs[size]) if size in costs else "" for size in SIZES),
                  exponent(costs), one.by_design] for one, costs in zip(GROWTHS, self.costs())]
        return section("Growth", GROWTH, ["", *map(count, SIZES), "exponent", "by design"], lines,
                       "l" + "r" * (len(SIZES) + 1) + "l")

    def memory(self):
        rows = {label: row for label, name in MEMORIES if (row := self.measured(name))}
        lines = [[label, *(f"{row.counters[part]:.1f}" for part in ("type_bytes", "heap_bytes")),
                  duration(row.median)] for label, row in rows.items()]
        return section("Memory", MEMORY, ["", "type", "heap", "time to make one"], lines, "lrrr")

    def others(self):
        """Rows that no table names, so that nothing measured stays hidden."""
        lines = [[f"`{name}`", duration(row.median), f"{row.spread:.1f} %",
                  " ".join(f"{key} {three_digits(value)}" for key, value in row.counters.items())]
                 for name, row in self.rows.items() if row.measured and name not in named_rows()]
        return section("Other rows", "", ["row", "median", "spread", "counted"], lines, "lrrl")

    def machine(self):
        lines = [f"- `{name}`: {row.skipped}\n" for name, row in self.rows.items()
                 if not row.measured]
        return section("The machine", "", ["", ""], machine_facts(), "ll") + "\n" + (
            "These rows could not be measured on this machine:\n\n" + "".join(lines) if lines
            else "No row was skipped.\n")

    def head(self):
        repetitions = [len(row.nanoseconds) for row in self.rows.values() if row.measured]
        few, many = min(repetitions), max(repetitions)
        times = f"{many}" if few == many else f"{many} (where there are a million of anything, {few})"
        spreads = [row.spread for row in self.rows.values() if row.measured]
        told = (f" Half of the rows have a spread of at most {statistics.median(spreads):.1f} %, nine "
                f"in ten of at most {statistics.quantiles(spreads, n=10)[-1]:.1f} %." if many > 1 else "")
        quick = "**A quick run: it shows that all works; its figures mean nothing.**\n\n"
        return "# Performance\n\n" + (quick if self.conditions["quick"] else "") + HEAD.format(
            times, *(self.conditions[key] for key in ("load", "others", "stolen")), told)

    def page(self):
        service = self.directory / "service.md"  # left there by ./dev bench service
        counts = instructions.read_table(instructions.BASELINE).items()
        return "\n".join([
            self.head(), self.summary(),
            *([service.read_text().strip() + "\n"] if service.exists() else []),
            *map(self.topic, TOPICS), self.growth(), self.memory(), self.others(),
            section("Instructions", INSTRUCTIONS, ["path", "instructions"],
                    [[path, f"{number:.1f}"] for path, number in counts], "lr"),
            self.machine()])

    def charts(self):
        """Each with the name of its file."""
        for topic in TOPICS:
            groups = [(case.label, [(label, row.median, label in case.ours)
                                    for label, name in case.bars.items()
                                    if (row := self.measured(name))]) for case in topic.cases]
            yield topic.file, chart.bars([group for group in groups if group[1]])
        curves = [(one.label, list(costs.items()), one.ours)
                  for one, costs in zip(GROWTHS, self.costs()) if costs]
        yield "growth", chart.lines(curves)


def make(directory):
    report = Report(directory)
    (directory / "Performance.md").write_text(report.page())
    (directory / "performance").mkdir(exist_ok=True)
    for file, svg in report.charts():
        (directory / "performance" / f"{file}.svg").write_text(svg)
    print(report.summary())


if __name__ == "__main__":
    make(Path(sys.argv[1]))
