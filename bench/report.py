#!/usr/bin/python3
"""Writes the tables of DOCUMENT, between its two marker lines, and PLOT from the JSON files of
scan_bench, PROCESSESxTHREADS-NAME.json, and from "resident" (KiB), all in RESULTS.

usage: report.py RESULTS DOCUMENT PLOT
"""
import collections
import json
import math
import pathlib
import statistics
import sys

SIZES, MAIN = ("50x20", "200x20", "800x20"), "200x20"
ROWS = [("recorded-processes", "known processes, no walk", "Binder:"),
        ("recorded-threads", "known threads, no walk", "Binder:"),
        ("recorded-iowait", "I/O-wait list, no walk", "Binder:"),
        ("walk-processes", "walk, named processes", "Binder:"),
        ("walk-iowait", "walk, I/O-wait list", "Binder:"),
        ("walk-binder", "walk, binder, no thread tracked", "worker"),
        ("walk-binder", "walk, binder, every thread tracked", "Binder:"),
        ("shell-binder", "shell mode, binder", "Binder:"),
        ("ps", "`ps -eLo pid,tid,stat,comm`", "Binder:"),
        ("top", "`top -b -n1 -H`", "Binder:"),
        ("toybox", "`toybox ps -e -T`", "Binder:")]


def read_run(path):
    """Row names with their counters: medians, but the most that was kept."""
    rows = collections.defaultdict(list)
    for entry in json.loads(path.read_text())["benchmarks"]:
        if entry["run_type"] == "iteration":
            entry["cpu"] = entry["user"] + entry["system"]
            rows[entry["run_name"].split("/manual")[0].removesuffix("/scan")].append(entry)
    run = {}
    for name, repetitions in rows.items():
        def column(counter): return [entry[counter] for entry in repetitions]
        run[name] = {counter: statistics.median(column(counter)) for counter in
                     ("cpu", "user", "system", "tasks", "calls", "allocations")}
        low, median, high = statistics.quantiles(column("cpu"), n=4)
        run[name] |= {"kept": max(column("kept")), "spread": (high - low) / median}
    return run


def exponent(runs, population, name):
    """Of the cost as a power of the number of tasks."""
    rows = [runs[f"{size}-{population}"][name] for size in SIZES]
    return statistics.linear_regression([math.log(row["tasks"]) for row in rows],
                                        [math.log(row["cpu"]) for row in rows]).slope


def table(*lines):
    lines = [lines[0], ["---"] + ["---:"] * (len(lines[0]) - 1), *lines[1:]]
    return "".join(f"| {' | '.join(line)} |\n" for line in lines) + "\n"


def costs(runs):
    lines = [["", "÷ reader", "÷ bare", "÷ `ps`", "µs a task: user + system", "tasks",
              "calls a task", "allocations a task", "exponent", "of bare", "spread"]]
    for name, title, population in ROWS:
        run = runs[f"{MAIN}-{population}"]
        row, own = run[name], "-" in name
        def ratio(other): return f"{row['cpu'] / run[other]['cpu']:.2f}" if other in run else ""
        def growth(other):
            grows = other in run and row["tasks"] > 1000
            return f"{exponent(runs, population, other):.2f}" if grows else ""
        def a_task(counter): return row[counter] / row["tasks"]
        lines.append([title, ratio(name + "/reader"), ratio(name + "/bare"), ratio("ps"),
                      f"{a_task('user') * 1e6:.1f} + {a_task('system') * 1e6:.1f}",
                      f"{row['tasks']:,.0f}", f"{a_task('calls'):.1f}",
                      f"{a_task('allocations'):.1f}" if own else "", growth(name),
                      growth(name + "/bare"), f"{row['spread']:.0%}"])
    return table(*lines)


def targets(runs, resident):
    run, idle = runs[f"{MAIN}-Binder:"], runs[f"{MAIN}-worker"]
    def ratio(name, other, of=run): return of[name]["cpu"] / of[other]["cpu"]
    figures = [("Walk, every binder thread tracked ÷ reader",
                ratio("walk-binder", "walk-binder/reader"), 1.10),
               ("The same ÷ bare", ratio("walk-binder", "walk-binder/bare"), 1.35),
               ("The same ÷ `ps`", ratio("walk-binder", "ps"), 0.8),
               ("The same with no thread tracked ÷ `ps`", ratio("walk-binder", "ps", idle), 0.2)]
    figures += [(f"{title[0].upper()}{title[1:]} ÷ reader", ratio(name, name + "/reader"), 1.10)
                for name, title, _ in ROWS[:3]]
    figures += [(f"Exponent, {title}", exponent(runs, population, name), 1.05)
                for name, title, population in (ROWS[1], *ROWS[5:7])]
    figures += [("Memory blocks kept by a series of scans",
                 max(row["kept"] for name, row in run.items() if "-" in name), 0),
                ("Resident memory with 5,000 tracked threads, MiB", resident / 1024, 6)]
    return table(["", "measured", "at most", ""], *(
        [name, f"{value:.2f}", f"{limit:g}",
         "met" if round(value, 2) <= limit else f"missed by {value - limit:.2f}"]
        for name, value, limit in figures))


def plot(runs):
    """Processor time by tasks on logarithmic axes, in units of the smallest bare floor."""
    rows = {name: [runs[f"{size}-Binder:"][name] for size in SIZES]
            for name in ("ps", "walk-binder", "walk-binder/bare")}
    unit = rows["walk-binder/bare"][0]["cpu"]
    def x(tasks): return round(60 + 400 * math.log(tasks / 1000, 20))
    def y(cost): return round(280 - 260 * math.log(cost, 50))
    svg = ['<svg xmlns="http://www.w3.org/2000/svg" width="620" height="320" font-size="13" '
           'font-family="sans-serif"><rect width="620" height="320" fill="white"/>']
    for tasks in 1000, 4000, 16000:
        svg.append(f'<path d="M{x(tasks)} 20V280" stroke="#ddd"/>'
                   f'<text x="{x(tasks) - 15}" y="298">{tasks:,}</text>')
    for cost in 1, 4, 16:
        svg.append(f'<path d="M60 {y(cost)}H460" stroke="#ddd"/>'
                   f'<text x="38" y="{y(cost) + 4}">{cost}</text>')
    for (name, line), colour, drop in zip(rows.items(), ("#777", "#c0392b", "#2c7fb8"), (0, 4, 16)):
        path = " ".join(f"{x(row['tasks'])},{y(row['cpu'] / unit)}" for row in line)
        svg.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>'
                   f'<text x="475" y="{y(line[-1]["cpu"] / unit) + drop}" fill="{colour}">'
                   f'{name}</text>')
    return "\n".join(svg) + '\n<text x="240" y="315">tasks</text></svg>\n'


def main(results, document, picture):
    results, document = pathlib.Path(results), pathlib.Path(document)
    runs = {path.stem: read_run(path) for path in results.glob("*.json")}
    begin, end = "<!-- measured: begin -->\n", "<!-- measured: end -->\n"
    before, rest = document.read_text().split(begin)
    tables = targets(runs, int((results / "resident").read_text())) + costs(runs)
    document.write_text(f"{before}{begin}\n{tables}{end}{rest.split(end)[1]}")
    pathlib.Path(picture).write_text(plot(runs))
    print(tables)


main(*sys.argv[1:])
