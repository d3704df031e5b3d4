#!/usr/bin/python3
"""Measures what scans cost beside a population of sleeping tasks on the live /proc, and writes it
between the marker lines of docs/performance.md.

usage: report.py [OLD NEW]    prints instead what the scans of NEW cost over those of OLD; both are
                              build directories of the preset bench
"""
import contextlib
import itertools
import json
import os
import pathlib
import statistics
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT / "scripts"))
import sandbox

BUILD = ROOT / "build/bench"
DOCUMENT = ROOT / "docs/performance.md"
BEGIN, END = "<!-- measured: begin -->\n", "<!-- measured: end -->\n"
ENVIRONMENT = os.environ | {"PATH": f"{ROOT}/host/bin:{os.environ['PATH']}"}
PS = "/usr/bin/ps -eLo pid,tid,stat,comm"
THREADS = 20  # of each process
STARTS, RUNS = 4, 5  # of each program, and of a scan in each start


@contextlib.contextmanager
def population(processes):
    """Keeps processes alive, each a list of its name and the names of its threads."""
    program = BUILD / "bench/population"
    running = [subprocess.Popen(words, executable=program, stdout=subprocess.PIPE)
               for words in processes]
    try:
        for process in running:
            process.stdout.read()  # ends when the threads have their names
        yield
    finally:
        for process in running:
            with process:
                process.kill()


def uniform(count, thread):
    threads = [f"{thread}{i}" for i in range(THREADS)]
    return [[f"population_{i}", *threads] for i in range(count)]


def watch(section, **settings):
    """A configuration with one detector. It scans every second; no task counts as hung."""
    return {"Config": {
        "switches": {"main": True}, "scan": {"timeout_second": 1000000, "round": 1000000},
        "monitor_process": {}, "monitor_binder": {}, "default_open_hw_list": {},
        "black_white_list": {}, section: {"enable": True, **settings}}}


def rows():
    """Gives title, number of tasks, configuration and mode of scan_bench, while the tasks live."""
    binder = uniform(100, "Binder:")
    mine = watch("monitor_binder", monitor_uids=[os.getuid()])
    others = watch("monitor_binder", monitor_uids=[os.getuid() + 1])
    whole = [{"process": name} for name, *_ in binder]
    by_thread = [{"process": name, "thread": threads} for name, *threads in binder]
    with population(uniform(100, "worker")):
        yield "walk, no thread named `Binder:`", all_tasks(), mine, "walk"
    with population(binder):
        everything = all_tasks()
        yield "walk, `Binder:` threads of users not listed", everything, others, "walk"
        yield "walk, every thread tracked", everything, mine, "walk"
        yield ("known threads, no walk", len(binder) * THREADS,
               watch("monitor_process", list=by_thread), "known")
        yield "known processes, no walk", len(binder), watch("monitor_process", list=whole), "known"
        yield "shell mode, `Binder:` threads", everything, mine, "shell"
        yield f"`{PS}`", everything, mine, PS


def all_tasks():
    return len(list(pathlib.Path("/proc").glob("[0-9]*/task/*")))


def bench(build, config, *words):
    """The command line of scan_bench."""
    file = BUILD / "bench/config.json"
    file.write_text(json.dumps(config))
    return [f"{build}/bench/scan_bench", file, *words]


def sample(commands):
    """For each command of scan_bench the seconds of its runs. The commands take turns, and start
    anew now and then: where a program happens to lie in memory changes what it costs."""
    samples = []
    for _ in range(STARTS):
        with contextlib.ExitStack() as stack:
            running = [stack.enter_context(subprocess.Popen(
                command, env=ENVIRONMENT, text=True, stdin=subprocess.PIPE,
                stdout=subprocess.PIPE)) for command in commands]
            for _ in range(RUNS):
                samples.append([run_once(process) for process in running])
    return list(zip(*samples))


def run_once(process):
    print(file=process.stdin, flush=True)
    return float(process.stdout.readline())


def ratio(samples, others):
    """The median of the pairs' ratios, and their quartiles."""
    low, middle, high = statistics.quantiles(map(lambda a, b: a / b, samples, others), n=4)
    return f"{middle:.2f} ({low:.2f} to {high:.2f})"


def count_system_calls(command):
    """Of one run: what it adds to the calls of no run."""
    def count(runs):
        summary = subprocess.run(["strace", "-fcqq", "-U", "calls,name", *command],
                                 env=ENVIRONMENT, input="\n" * runs, text=True, check=True,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.PIPE).stderr
        return int(summary.split()[-2])  # "1234 total"
    return count(1) - count(0)


def scan_table():
    yield "| | tasks | µs a task | calls a task | ÷ bare loop | ÷ `ps` |"
    yield "| --- | ---: | ---: | ---: | ---: | ---: |"
    for title, tasks, config, mode in rows():
        command = bench(BUILD, config, mode)
        commands = [command, bench(BUILD, config, PS)]
        if mode in ("walk", "known"):
            commands.append([*command, "bare"])
        scan, ps, *bare = sample(commands)
        calls = "" if mode == "shell" else f"{count_system_calls(command) / tasks:.1f}"
        yield (f"| {title} | {tasks:,} | {statistics.median(scan) / tasks * 1e6:.1f} | {calls} | "
               f"{ratio(scan, bare[0]) if bare else ''} | {ratio(scan, ps)} |")


def watch_daemon(config, processes, interval, scans):
    """Runs the daemon itself in its sandbox. Gives the processor time (s) of each scan, and the
    resident memory (MiB)."""
    with (population(processes), sandbox.directory(json.dumps(config), keep=False) as root,
          sandbox.run(sandbox.command(BUILD, root, send_signals=False), os.devnull) as (daemon, _)):
        proc = pathlib.Path(f"/proc/{daemon.pid}")
        spent = []
        time.sleep(1.5 * interval)  # the first scan finds the tasks
        for _ in range(scans + 1):
            spent.append(int((proc / "schedstat").read_text().split()[0]) / 1e9)
            time.sleep(interval)
        memory = int((proc / "status").read_text().split("VmRSS:")[1].split()[0]) / 1024
    return [after - before for before, after in itertools.pairwise(spent)], memory


def daemon_figures():
    config = json.loads((ROOT / "etc/tovrel.json").read_text())
    settings = config["Config"]
    settings["monitor_binder"]["monitor_uids"] = [os.getuid()]
    phone = [[item["process"], *item["thread"]] for item in settings["monitor_process"]["list"]]
    phone += [["zygote64", "main"], *([f"app_{i}", f"app_{i}"] for i in range(296))]
    for words in phone:
        words += [f"Binder:1_{i}" for i in range(4)]
        words += [f"pool-1-thread-{i}" for i in range(THREADS + 1 - len(words))]
    interval = settings["scan"]["timeout_second"] / settings["scan"]["round"]
    costs, _ = watch_daemon(config, phone, interval, 5)
    low, middle, high = statistics.quantiles(costs, n=4)
    yield (f"- Sample configuration: {middle * 1e3:.0f} ms ({low * 1e3:.0f} to {high * 1e3:.0f}) of"
           f" processor time every {interval:g} s, {middle / interval:.2%} of one core.")

    binder = watch("monitor_binder", monitor_uids=[os.getuid()])
    _, memory = watch_daemon(binder, uniform(250, "Binder:"), 1, 5)
    yield f"- Resident memory with 5,000 tracked threads: {memory:.2f} MiB."


def write_document():
    before, rest = DOCUMENT.read_text().split(BEGIN)
    lines = [""]
    for line in itertools.chain(scan_table(), [""], daemon_figures(), [""]):
        print(line, flush=True)
        lines.append(line)
    DOCUMENT.write_text(before + BEGIN + "\n".join(lines) + "\n" + END + rest.split(END)[1])


def compare(old, new):
    for title, _, config, mode in rows():
        samples = sample([bench(build, config, mode) for build in (new, old)])
        print(f"{title:<45} {ratio(*samples)}", flush=True)


if len(sys.argv) > 1:
    compare(*sys.argv[1:])
else:
    write_document()
