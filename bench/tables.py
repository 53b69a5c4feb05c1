"""What the report shows: see tables.txt. A row that is named there and measured by no program fails
the report."""

from collections import namedtuple
from pathlib import Path

from rows import count

SIZES = [10**power for power in range(7)]


# One line of the summary, with pairs of rows, of which the worst counts, or a single row.
Comparison = namedtuple("Comparison", "path pairs targets counter")
# What is measured under the same circumstances: rows by label.
Case = namedtuple("Case", "label ours peers bars")
# One table and one chart, whose file is named here without suffix.
Topic = namedtuple("Topic", "file title text cases")
# With rows by size.
Growth = namedtuple("Growth", "label rows ours by_design")


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
        mine, others = rows(ours, size), rows(peers, size)
        yield Case(label.format(*shown, n=size), mine, others, mine | others)


def growth(label, row, largest, ours, by_design):
    rows = {n: row.replace("{n}", str(n)) for n in SIZES if n <= int(largest)}
    return Growth(label, rows, ours == "ours", by_design)


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
GROWTHS = [growth(*fields) for fields in GROWTHS]


def named_rows():
    """The rows that the report needs."""
    names = {name for one in COMPARISONS for pair in one.pairs for name in pair}
    names.update(name for topic in TOPICS for case in topic.cases for name in case.bars.values())
    names.update(name for one in GROWTHS for name in one.rows.values())
    return names | {name for _, name in MEMORIES}
