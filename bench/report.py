#!/usr/bin/python3
"""Measures, and writes the tables of DOCUMENT, between its two marker lines, and PLOT.

usage: report.py DOCUMENT PLOT [REPETITIONS]
"""
import math
import pathlib
import statistics
import sys

# A Debian package, hence the explicit interpreter above.
from matplotlib import pyplot, rcParams

import measure
from measure import MAIN, NAMED_THREADS, PS, SIZES, TRACKED, UNTRACKED


def median(row, part):
    return statistics.median(row[part])


def ratio(row, other):
    return median(row, "scan") / median(row, other)


def exponent(costs, title, part):
    """Of the cost as a power of the number of tasks."""
    rows = [costs[size][title] for size in SIZES]
    return statistics.linear_regression([math.log(row["tasks"]) for row in rows],
                                        [math.log(median(row, part)) for row in rows]).slope


def table(*lines):
    lines = [lines[0], ["---"] + ["---:"] * (len(lines[0]) - 1), *lines[1:]]
    return "".join(f"| {' | '.join(line)} |\n" for line in lines) + "\n"


def target_table(costs, resident, interval, sample):
    main = costs[MAIN]
    figures = [(f"{title} ÷ reader", ratio(row, "reader"), 1.15 if "known" in title else 1.10)
               for title, row in main.items() if "reader" in row]
    figures += [(f"{title} ÷ {other}", ratio(main[title], other), limit) for title, other, limit in
                ((TRACKED, "bare", 1.35), (TRACKED, "ps", 0.8), (UNTRACKED, "ps", 0.2))]
    figures += [(f"exponent, {title}", exponent(costs, title, "scan"),
                 exponent(costs, title, "bare") + 0.03)
                for title in (NAMED_THREADS, UNTRACKED, TRACKED)]
    figures.append(("resident memory with 5,000 tracked threads, MiB", resident / 1024, 6))
    scan = statistics.median(sample)
    return table(
        ["", "measured", "at most", ""],
        *([title, f"{figure:.2f}", f"{limit:.2f}",
           "met" if round(figure, 2) <= round(limit, 2) else f"missed by {figure - limit:.2f}"]
          for title, figure, limit in figures),
        ["sample configuration, ms of processor time a scan", f"{scan * 1e3:.1f}", "", ""],
        [f"the same, share of one core at {interval:g} s a scan", f"{scan / interval:.2%}", "", ""])


def cost_table(costs):
    lines = [["", "÷ reader", "÷ bare", "÷ `ps`", "µs a task", "tasks", "calls a task",
              "exponent", "of bare", "spread"]]
    for title, row in costs[MAIN].items():
        low, middle, high = statistics.quantiles(row["scan"], n=4)
        floors = [f"{ratio(row, part):.2f}" if part in row else "" for part in ("reader", "bare")]
        lines.append([title, *floors, f"{ratio(row, 'ps'):.2f}",
                      f"{middle / row['tasks'] * 1e6:.1f}", f"{row['tasks']:,}",
                      f"{row['calls'] / row['tasks']:.1f}", f"{exponent(costs, title, 'scan'):.2f}",
                      f"{exponent(costs, title, 'bare'):.2f}" if "bare" in row else "",
                      f"{(high - low) / middle:.0%}"])
    return table(*lines)


def plot(costs, picture):
    """Processor time by tasks, in units of the smallest bare loop."""
    rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "tovrel"})  # small, and reproducible
    figure, axes = pyplot.subplots(figsize=(7, 4), layout="constrained")
    unit = median(costs[SIZES[0]][TRACKED], "bare")
    for title, part, label in ((PS, "scan", PS), (TRACKED, "scan", TRACKED),
                               (TRACKED, "bare", "its bare loop")):
        rows = [costs[size][title] for size in SIZES]
        axes.loglog([row["tasks"] for row in rows], [median(row, part) / unit for row in rows],
                    marker="o", label=label)
    axes.set(xlabel="tasks", ylabel="processor time")
    axes.grid(which="both", alpha=0.3)
    axes.legend()
    figure.savefig(picture, metadata={"Date": None})


def main(document, picture, repetitions=3):
    document = pathlib.Path(document)
    begin, end = "<!-- measured: begin -->\n", "<!-- measured: end -->\n"
    before, rest = document.read_text().split(begin)
    costs = measure.scans(int(repetitions))
    tables = target_table(costs, measure.resident_memory(), *measure.sample_configuration())
    tables += cost_table(costs)
    document.write_text(f"{before}{begin}\n{tables}{end}{rest.split(end)[1]}")
    plot(costs, picture)
    print(tables)


main(*sys.argv[1:])
