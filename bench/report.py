#!/usr/bin/python3
"""Makes one report of what bench/run left in a folder.
Usage: report.py DIRECTORY
Writes DIRECTORY/Performance.md and charts in DIRECTORY/performance, and the summary to standard
output. Fails when a row that the report compares is missing, or when any row gave up although the
machine had descriptors for it."""

import json
import math
import statistics
import sys
from pathlib import Path

import chart
import instructions
from machine import machine_facts
from rows import count, duration, ratio, read, three_digits
from tables import COMPARISONS, GROWTHS, LARGEST, MEMORIES, TOPICS, named_rows


def table(heads, lines, sides):
    """In Markdown; `sides` has a letter for each column, "r" for one of numbers."""
    marks = "|".join("--:" if side == "r" else "---" for side in sides)
    rows = "".join(f"| {' | '.join(cells)} |\n" for cells in [heads, *lines])
    return rows.replace("\n", f"\n|{marks}|\n", 1)


def ranged(of):
    low, median, high = map(three_digits, of)
    return f"{median} ({low}–{high})"


def verdict(of, targets):
    """For each target whether it is met; "near" when the repetitions do not agree about that."""
    low, median, high = of
    return ", ".join(("yes" if median <= target else "**no**") +
                     (" (near)" if low <= target < high else "") for target in targets) or "–"


def exponent(costs):
    """The slope of the straight line through costs by size, where both axes are logarithmic: 0 for
    what is constant and 1 for what is linear."""
    if len(costs) < 2:
        return "–"
    sizes, times = ([math.log10(number) for number in axis] for axis in zip(*costs.items()))
    return f"{statistics.linear_regression(sizes, times).slope:.2f}"


class Report:
    def __init__(self, directory):
        self.directory = directory
        self.rows = read(sorted((directory / "results").glob("*.json")))
        self.conditions = json.loads((directory / "conditions.json").read_text())
        self.quick = self.conditions["quick"]
        missing = [name for name in sorted(named_rows() - self.rows.keys())
                   if not (self.quick and "/1000000" in name)]  # which a quick run leaves out
        if missing:
            raise SystemExit("no program measured these rows, which the report needs:\n  " +
                             "\n  ".join(missing))
        failed = [f"{name}: {reason}" for name, row in self.rows.items() for reason in row.failures]
        if failed:
            raise SystemExit("these rows gave up:\n  " + "\n  ".join(failed))

    def measured(self, name):
        row = self.rows.get(name)
        return row if row and row.measured else None

    def comparison(self, of):
        targets = ", then ".join(f"{target:g}" for target in of.targets) or "–"
        worst = None
        for pair in of.pairs:
            names = [name for name in pair if name]
            for name in names:
                if not self.measured(name):
                    why = "skipped: " + self.rows[name].skipped if name in self.rows else "not in a quick run"
                    return [of.path, "–", "–", why, targets, "–"]
            rows = [self.rows[name] for name in names]
            if of.counter:
                value = rows[0].counters[of.counter]
                return [of.path, f"{value:.0f}", "–", "–", targets, verdict([value] * 3, of.targets)]
            times = [duration(row.median) for row in rows]
            if len(rows) == 1:
                return [of.path, *times, "–", "–", targets, "–"]
            here = ratio(*rows)
            if worst is None or here[1] > worst[1][1]:
                worst = times, here
        times, here = worst
        return [of.path, *times, ranged(here), targets, verdict(here, of.targets)]

    def summary(self):
        return table(["path", "ours", "peer", "ratio", "target", "met?"],
                     map(self.comparison, COMPARISONS), "lrrrrl")

    def topic_lines(self, topic, columns):
        for case in topic.cases:
            for label, name in case.bars.items():
                row, peer = self.rows.get(name), label in case.peers
                if row is None:
                    continue
                shown = [case.label, label if peer else f"**{label}**"]
                shown += ([duration(row.median), f"{row.spread:.1f} %"] if row.measured
                          else [f"skipped: {row.skipped}", ""])
                ours = [self.measured(mine) for mine in case.ours.values()] if peer else []
                ratios = [ranged(ratio(mine, row)) if mine and row.measured else "" for mine in ours]
                yield shown + ratios + [""] * (columns - len(ratios))

    def topic(self, topic):
        most = max((case.ours for case in topic.cases), key=len)
        heads = [f"{label} / row" for label in most] if len(most) > 1 else ["Tarvo / row"]
        text = f"{topic.text}\n\n" if topic.text else ""
        return (f"## {topic.title}\n\n{text}![{topic.title}](performance/{topic.file}.svg)\n\n" +
                table(["", "row", "median", "spread", *heads],
                      self.topic_lines(topic, len(heads)), "llrr" + "r" * len(heads)))

    def points(self, growth):
        """Pairs of size and nanoseconds."""
        _, pattern, largest, _, _ = growth
        sizes = [10**power for power in range(largest + 1)]
        return [(size, row.median) for size in sizes if (row := self.measured(pattern.format(size)))]

    def growth(self):
        sizes = [10**power for power in range(LARGEST + 1)]
        lines = []
        for one in GROWTHS:
            label, pattern, largest, _, by_design = one
            costs = dict(self.points(one))
            known = [size for size in sizes if size <= 10**largest and pattern.format(size) in self.rows]
            cells = [duration(costs[size]) if size in costs else "skipped" if size in known else ""
                     for size in sizes]
            lines.append([label, *cells, exponent(costs), by_design])
        return ("## Growth\n\nOne operation among so many of its kind. The exponent is the slope of "
                "the line in the chart: 0 is constant, 1 is linear. The exponent also holds what it "
                "costs that many objects do not fit into the caches of the processor, so it cannot "
                "tell a logarithm from a constant; the last column says what the algorithm does.\n\n"
                "![Growth](performance/growth.svg)\n\n" +
                table(["", *map(count, sizes), "exponent", "by design"], lines,
                      "l" + "r" * (len(sizes) + 1) + "l"))

    def memory(self):
        lines = [[label, f"{row.counters['type_bytes']:.0f}", f"{row.counters['heap_bytes']:.1f}",
                  duration(row.median)]
                 for label, name in MEMORIES.items() if (row := self.measured(name))]
        return ("## Memory\n\nBytes for each of a hundred thousand: the type itself, and what the "
                "heap gave out, with counters of the allocator and all that belongs to the object."
                "\n\n" + table(["", "type", "heap", "time to make one"], lines, "lrrr"))

    def others(self):
        """Rows that no table names, so that nothing measured stays hidden."""
        lines = [[f"`{name}`", duration(row.median), f"{row.spread:.1f} %",
                  " ".join(f"{key} {three_digits(row.counters[key])}" for key in sorted(row.counters))]
                 for name, row in self.rows.items() if row.measured and name not in named_rows()]
        return ("## Other rows\n\n" +
                table(["row", "median", "spread", "counted"], lines, "lrrl"))

    def instructions(self):
        counts = instructions.read_table(instructions.BASELINE)
        return ("## Instructions\n\nOf one run of each hot path, counted by callgrind on Debian 12, "
                "x86_64. They do not depend on how fast or busy the machine is; `./dev check` fails "
                "when one grows.\n\n" +
                table(["path", "instructions"],
                      [[path, f"{number:.1f}"] for path, number in counts.items()], "lr"))

    def machine(self):
        lines = [f"- `{name}`: {row.skipped}\n" for name, row in self.rows.items()
                 if not row.measured]
        skipped = ("These rows could not be measured on this machine:\n\n" + "".join(lines)
                   if lines else "No row was skipped.\n")
        return ("## The machine\n\n" + table(["", ""], machine_facts(), "ll") +
                "\n" + skipped)

    def noise(self):
        """What tells whether the figures deserve trust."""
        spreads = [row.spread for row in self.rows.values() if len(row.nanoseconds) > 2]
        told = "The load before the build was {load}; other programs used {others:.1f} % of a core " \
               "meanwhile, and {stolen:.1f} % of one was taken away from this machine."
        told = told.format(**self.conditions)
        if len(spreads) > 1:
            half, nine = statistics.median(spreads), statistics.quantiles(spreads, n=10)[-1]
            told += (f" Half of the rows have a spread of at most {half:.1f} %, nine in ten of at "
                     f"most {nine:.1f} %.")
        return told

    def page(self):
        repetitions = [len(row.nanoseconds) for row in self.rows.values() if row.measured]
        few, many = min(repetitions), max(repetitions)
        times = f"{many}" if few == many else f"{many} (where there are a million of anything, {few})"
        head = "# Performance\n\n"
        if self.quick:
            head += "**A quick run: it shows that all works; its figures mean nothing.**\n\n"
        head += ("Made by `./dev bench`; [bench/README.md](../bench/README.md) explains the rows. "
                 f"Times are of the processor and medians of {times} repetitions, interleaved at "
                 "random with those of the peers in the same program. A ratio is that of the "
                 "medians, less than 1 where Tarvo is faster; in brackets the quartiles of the "
                 "ratios of every repetition to every one of the peer. Spread is the distance of the "
                 "quartiles in percent of the median.\n\n"
                 f"How noisy the machine was: {self.noise()}\n")
        summary = ("## Summary\n\nThe target of a ratio is what it shall stay below, first and then. "
                   "\"Near\" means that the target lies between the quartiles.\n\n" + self.summary())
        service = self.directory / "service.md"  # left there by ./dev bench service
        services = [service.read_text().strip() + "\n"] if service.exists() else []
        return "\n".join([head, summary, *services, *map(self.topic, TOPICS), self.growth(),
                          self.memory(), self.others(), self.instructions(), self.machine()])

    def charts(self):
        """Each with the name of its file."""
        for topic in TOPICS:
            groups = []
            for case in topic.cases:
                bars = [(label, row.median, label in case.ours)
                        for label, name in case.bars.items() if (row := self.measured(name))]
                if bars:
                    groups.append((case.label, bars))
            yield topic.file, chart.bars(groups)
        curves = [(one[0], points, one[3]) for one in GROWTHS if (points := self.points(one))]
        yield "growth", chart.lines(curves)

    def write(self):
        folder = self.directory / "performance"
        folder.mkdir(exist_ok=True)
        (self.directory / "Performance.md").write_text(self.page())
        for file, svg in self.charts():
            (folder / f"{file}.svg").write_text(svg)


def make(directory):
    report = Report(directory)
    report.write()
    print(report.summary())


if __name__ == "__main__":
    make(Path(sys.argv[1]))
