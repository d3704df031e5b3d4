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
ENVIRONMENT = os.environ | {"PATH": f"{sandbox.HOST}/bin:{os.environ['PATH']}"}
PS = "/usr/bin/ps -eLo pid,tid,stat,comm"
THREADS = 20  # of each process
STARTS, RUNS = 4, 5  # of each program, and of a scan in each start


@contextlib.contextmanager
def population(processes):
    """Keeps processes alive, each a list of the names of its threads. The first is its own."""
    with contextlib.ExitStack() as stack:
        for name, *threads in processes:
            process = stack.enter_context(subprocess.Popen(
                [name, "S", "0", *threads], executable=BUILD / "stuck_task",
                stdout=subprocess.PIPE))
            stack.callback(process.kill)
            for _ in threads:
                process.stdout.readline()  # comes when a thread has its name
        yield


def uniform(count, name):
    return [[f"{name}{i}", *(f"{name}{i}_{j}" for j in range(1, THREADS))] for i in range(count)]


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
    by_thread = [{"process": threads[0], "thread": threads} for threads in binder]
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


def count_system_calls(command, runs):
    summary = subprocess.run(["strace", "-fcqq", "-U", "calls,name", *command],
                             env=ENVIRONMENT, input="\n" * runs, text=True, check=True,
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE).stderr
    return int(summary.split()[-2])  # "1234 total"


def scan_table():
    yield "| | tasks | µs a task | calls a task | ÷ bare loop | ÷ `ps` |"
    yield "| --- | ---: | ---: | ---: | ---: | ---: |"
    for title, tasks, config, mode in rows():
        command = bench(BUILD, config, mode)
        commands = [command, bench(BUILD, config, PS)]
        if mode in ("walk", "known"):
            commands.append([*command, "bare"])
        scan, ps, *bare = sample(commands)
        calls = count_system_calls(command, 1) - count_system_calls(command, 0)
        told_calls = "" if mode == "shell" else f"{calls / tasks:.1f}"
        yield (f"| {title} | {tasks:,} | {statistics.median(scan) / tasks * 1e6:.1f} | "
               f"{told_calls} | {ratio(scan, bare[0]) if bare else ''} | {ratio(scan, ps)} |")


def phone(listed):
    """Names like those of a phone: processes of its own, a zygote, and the listed ones."""
    processes = [[item["process"], *item["thread"]] for item in listed]
    processes += [["zygote64"], *([f"app_{i}"] for i in range(296))]
    for names in processes:
        names += [f"Binder:1_{i}" for i in range(4)]  # tracked
        names += [f"pool-1-thread-{i}" for i in range(THREADS - len(names))]
    return processes


def daemon_figures():
    """Of the daemon itself in its sandbox, with the sample configuration."""
    config = json.loads((ROOT / "etc/tovrel.json").read_text())
    settings = config["Config"]
    settings["monitor_binder"]["monitor_uids"] = [os.getuid()]
    interval = settings["scan"]["timeout_second"] / settings["scan"]["round"]
    root = sandbox.prepare(BUILD, "daemon")
    (root / sandbox.CONFIG).write_text(json.dumps(config))
    with (population(phone(settings["monitor_process"]["list"])),
          sandbox.running(BUILD, root, send_signals=False) as daemon):
        proc = pathlib.Path(f"/proc/{daemon.pid}")
        spent = []
        time.sleep(1.5 * interval)  # the first scan finds the tasks
        for _ in range(6):
            spent.append(int((proc / "schedstat").read_text().split()[0]) / 1e9)
            time.sleep(interval)
        memory = int((proc / "status").read_text().split("VmRSS:")[1].split()[0]) / 1024
    costs = [after - before for before, after in itertools.pairwise(spent)]
    low, middle, high = statistics.quantiles(costs, n=4)
    yield (f"- Sample configuration: {middle * 1e3:.0f} ms ({low * 1e3:.0f} to {high * 1e3:.0f}) of"
           f" processor time every {interval:g} s, {middle / interval:.2%} of one core.")
    yield f"- Its resident memory, with 1,200 tracked threads: {memory:.2f} MiB."


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


if len(sys.argv) == 1:
    write_document()
elif len(sys.argv) == 3:
    compare(*sys.argv[1:])
else:
    sys.exit(__doc__)
