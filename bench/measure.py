"""Measures scans beside populations of sleeping tasks, and the daemon itself."""
import contextlib
import itertools
import json
import os
import pathlib
import random
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT / "scripts"))
import sandbox
BUILD = ROOT / "build/bench"
ENVIRONMENT = os.environ | {"PATH": f"{ROOT}/host/bin:{os.environ['PATH']}", "TERM": "dumb"}
SIZES, MAIN = (50, 200, 800), 200  # numbers of processes
THREADS = 20  # of each process
# Rows.
UNTRACKED, TRACKED = "walk, binder, no thread tracked", "walk, binder, every thread tracked"
NAMED_THREADS = "known threads, no walk"
COMMANDS = ("/usr/bin/ps -eLo pid,tid,stat,comm", "top -b -n1 -H", "toybox ps -e -T")
PS = COMMANDS[0]


@contextlib.contextmanager
def population(processes):
    """Keeps processes alive, each a list of its name and the names of its threads."""
    with subprocess.Popen(BUILD / "bench/population", process_group=0, text=True,
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as running:
        for words in processes:
            print(*words, file=running.stdin, flush=True)
            running.stdout.read(len(words) - 1)
        yield


@contextlib.contextmanager
def daemon(config):
    """Runs the daemon itself, in a sandbox; gives its directory of /proc."""
    with sandbox.directory(json.dumps(config), keep=False) as root:
        command = sandbox.command(BUILD, root, send_signals=False)
        with sandbox.run(command, os.devnull) as (running, _):
            yield pathlib.Path(f"/proc/{running.pid}")


def watch(section, **settings):
    """A configuration with one detector. It scans every second; no task counts as hung."""
    return {"Config": {
        "switches": {"main": True}, "scan": {"timeout_second": 1000000, "round": 1000000},
        "monitor_process": {}, "monitor_binder": {}, "default_open_hw_list": {},
        "black_white_list": {}, section: {"enable": True, **settings}}}


BINDER = watch("monitor_binder", monitor_uids=[os.getuid()])


def rows(names, threads):
    """By title: the number of tasks in the row, its configuration, and its mode of scan_bench."""
    whole = watch("monitor_process", list=[{"process": name} for name in names])
    named = watch("monitor_process", list=[{"process": name, "thread": threads} for name in names])
    io_list = watch("black_white_list", list=names)
    everything = len(list(pathlib.Path("/proc").glob("[0-9]*/task/*")))
    commands = {command: (everything, BINDER, command) for command in COMMANDS}
    if not threads[0].startswith("Binder:"):
        return {UNTRACKED: (everything, BINDER, "walk"), PS: commands[PS]}
    return {TRACKED: (everything, BINDER, "walk"),
            "walk, named processes": (len(names), whole, "walk"),
            "walk, I/O-wait list": (len(names), io_list, "walk"),
            "known processes, no walk": (len(names), whole, "known"),
            NAMED_THREADS: (len(names) * len(threads), named, "known"),
            "known I/O-wait list, no walk": (len(names), io_list, "known"),
            "shell mode, binder": (everything, BINDER, "shell"), **commands}


def count_system_calls(command):
    """Of one run: what it adds to the calls of no run."""
    def count(runs):
        summary = subprocess.run(["strace", "-fcqq", "-U", "calls,name", *command, runs],
                                 env=ENVIRONMENT, stdout=subprocess.DEVNULL, check=True,
                                 stderr=subprocess.PIPE, text=True).stderr
        return int(summary.split()[-2])  # "1234 total"
    return count("1") - count("0")


def sample(chosen, repetitions, count_calls):
    """The rows, each with its number of tasks and the seconds of each sample of its parts: the scan
    and the two floors under it. "ps" has those of the command for the same tasks."""
    sampled, commands = {}, {}
    with tempfile.TemporaryDirectory() as directory:
        for row, (tasks, config, mode) in chosen.items():
            file = pathlib.Path(directory, str(len(sampled)))
            file.write_text(json.dumps(config))
            parts = ("scan", "reader", "bare") if mode in ("known", "walk") else ("scan",)
            sampled[row] = {"tasks": tasks} | {part: [] for part in parts}
            for part in parts:
                commands[row, part] = [BUILD / "bench/scan_bench", file, mode, part]
            if count_calls:
                sampled[row]["calls"] = count_system_calls(commands[row, "scan"])
        order = list(commands) * repetitions
        random.shuffle(order)  # what disturbs the machine for a while disturbs all rows
        for row, part in order:
            runs = str(5000 // sampled[row]["tasks"] + 1)
            seconds = subprocess.check_output([*commands[row, part], runs], env=ENVIRONMENT)
            sampled[row][part].append(float(seconds))
    return {row: parts | {"ps": sampled[PS]["scan"]} for row, parts in sampled.items()}


def scans(repetitions):
    """By the number of processes: the rows, as sample() has them."""
    measured = {}
    for size, thread in itertools.product(SIZES, ("worker", "Binder:")):
        print(f"measuring {size} processes of {THREADS} threads '{thread}' ...", flush=True)
        names = [f"population_{i}" for i in range(size)]
        threads = [f"{thread}{i}" for i in range(THREADS)]
        count = repetitions if size == MAIN else (repetitions + 1) // 2
        with population([[name, *threads] for name in names]):
            sampled = sample(rows(names, threads), count, size == MAIN)
        first = measured.pop(size, {PS: None})
        del first[PS]  # the others are compared with that of the second population
        measured[size] = first | sampled
    return measured


def resident_memory():
    """KiB, with 5,000 tracked threads."""
    processes = [[f"population_{i}", *(f"Binder:{j}" for j in range(THREADS))] for i in range(250)]
    with population(processes), daemon(BINDER) as directory:
        time.sleep(10)
        return int((directory / "status").read_text().split("VmRSS:")[1].split()[0])


def sample_configuration():
    """The interval (s) of the sample, and the processor time (s) that the daemon spends in each of
    six, on a population like a phone's."""
    config = json.loads((ROOT / "etc/tovrel.json").read_text())
    settings = config["Config"]
    settings["monitor_binder"]["monitor_uids"] = [os.getuid()]
    processes = [[item["process"], *item["thread"]] for item in settings["monitor_process"]["list"]]
    processes += [["zygote64", "main"], *([f"app_{i}", f"app_{i}"] for i in range(296))]
    for words in processes:
        words += [f"Binder:1_{i}" for i in range(4)]
        words += [f"pool-1-thread-{i}" for i in range(THREADS + 1 - len(words))]
    interval = settings["scan"]["timeout_second"] / settings["scan"]["round"]
    with population(processes), daemon(config) as directory:
        spent = []
        time.sleep(1.5 * interval)  # the first scan finds the tasks
        for _ in range(7):
            spent.append(int((directory / "schedstat").read_text().split()[0]) / 1e9)
            time.sleep(interval)
    return interval, [after - before for before, after in itertools.pairwise(spent)]
