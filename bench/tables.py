"""What the report shows: see tables.txt. A row that is named there and measured by no program fails
the report."""

from dataclasses import dataclass
from pathlib import Path

from rows import count

SIZES = [10**power for power in range(7)]


@dataclass
class Comparison:
    """One line of the summary, with pairs of rows, of which the worst counts, or a single row."""
    path: str
    pairs: list
    targets: list
    counter: str


@dataclass
class Case:
    """What is measured under the same circumstances: rows by label."""
    label: str
    ours: dict
    peers: dict

    @property
    def bars(self):
        return self.ours | self.peers


@dataclass
class Topic:
    """One table and one chart, whose file is named here without suffix."""
    file: str
    title: str
    text: str
    cases: list


@dataclass
class Growth:
    label: str
    pattern: str
    largest: str
    ours: str
    by_design: str

    @property
    def rows(self):
        """By size."""
        return {n: self.pattern.replace("{n}", str(n)) for n in SIZES if n <= int(self.largest)}


def comparison(path, rows, targets, sizes="-"):
    names, _, counter = rows.partition(" :")
    pairs = [names.replace("{n}", size).split() for size in sizes.split()]
    return Comparison(path, pairs, [float(target) for target in targets.split()], counter)


def cases(label, ours, peers="", sizes="-"):
    """One for each size."""
    def rows(text, size):
        return dict(one.strip().replace("{n}", size).split("=") for one in text.split(";") if one)
    for size in sizes.split():
        shown = [count(int(part)) for part in size.split("/") if part.isdigit()]
        yield Case(label.format(*shown, n=size), rows(ours, size), rows(peers, size))


def blocks():
    """Lines split into their fields."""
    text = Path(__file__).with_name("tables.txt").read_text()
    for block in text.strip().split("\n\n"):
        lines = [line for line in block.splitlines() if not line.startswith("#")]
        yield [[field.strip() for field in line.split("|")] for line in lines]


SUMMARY, *TOPICS, GROWTHS, MEMORIES = blocks()
COMPARISONS = [comparison(*fields) for fields in SUMMARY]
TOPICS = [Topic(*head, [case for fields in lines for case in cases(*fields)])
          for head, *lines in TOPICS]
GROWTHS = [Growth(*fields) for fields in GROWTHS]
MEMORIES = dict(MEMORIES)


def named_rows():
    """The rows that the report needs."""
    names = {name for comparison in COMPARISONS for pair in comparison.pairs for name in pair}
    names.update(name for topic in TOPICS for case in topic.cases for name in case.bars.values())
    names.update(name for growth in GROWTHS for name in growth.rows.values())
    return names | set(MEMORIES.values())
