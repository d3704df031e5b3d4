#!/usr/bin/python3
"""Runs the daemon in its sandbox and prints what it logs: either the demonstration, which checks
that of some tasks the stuck ones are reported and no others, or the user's own configuration until
Ctrl-C. At last it prints who hung. scripts/run tells the usage, and installs what is needed.
"""
import argparse
import fcntl
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

import demonstration
import sandbox

ROOT = pathlib.Path(__file__).resolve().parent.parent
TOOLS = ROOT / "tools"
sys.path.append(str(TOOLS))
from check_config.reading import read_properties  # also what getprop prints

# The file that is sourced is the first word behind the command.
BUILD = 'source "$0"; build release tovrel sandbox stuck_task rehearse settings'
DEADLINE = 60  # s, for the last report of the demonstration
INTRODUCTION = """\
Some of the watched tasks are really stuck. A reboot is only logged. It all takes about 25 s, and
begins when no other demonstration runs on this host."""
LOG_PREFIX = re.compile(r"^\w+ [VDIWEF] \S+ \S+ +\d+ +\d+ ")  # "tovrel I 11-21 15:43:59 134 134 "
# What is done about a task. Other lines are repeated in every scan.
STAGE = re.compile(r"dumped|.*pid:\d+ ppid:\d+ |killing|nothing to do|reboot not done|"
                   r"signal not sent")


def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/run")
    readable = argparse.FileType("rb")
    parser.add_argument("config", metavar="CONFIG", nargs="?", type=readable)
    parser.add_argument("properties", metavar="PROPERTIES", nargs="?", type=readable)
    parser.add_argument("--shell", action="store_true")
    parser.add_argument("--no-signals", action="store_true")
    parser.add_argument("--build", metavar="DIR", type=pathlib.Path,
                        help="where the programs are; else they are built in build/release")
    arguments = parser.parse_args()
    if arguments.shell and arguments.config:
        parser.error('--shell takes no CONFIG; set "use_shell" in it')
    return arguments


def play(build, root, send_signals, is_over=lambda messages: False):
    """Runs the daemon until it ends, all is over or Ctrl-C, and prints what it logs, with the
    seconds since the start, then who hung. Returns its status, None if it still ran.
    """
    print(f"The whole log: {sandbox.log_of(root)}\n", flush=True)
    signal.signal(signal.SIGINT, signal.default_int_handler)
    with sandbox.running(build, root, send_signals) as daemon:
        try:
            watch(daemon, root, is_over)
        except KeyboardInterrupt:
            pass
        status = daemon.poll()
    print(flush=True)
    subprocess.run([TOOLS / "find-hangs", os.path.relpath(sandbox.log_of(root))])
    return status


def watch(daemon, root, is_over):
    start, messages, kinds = time.monotonic(), [], set()
    with (sandbox.log_of(root).open(encoding="ascii", errors="backslashreplace") as log,
          open(root / sandbox.SYSRQ) as sysrq):
        while True:
            is_last = is_over(messages) or daemon.poll() is not None
            since_start = f"{time.monotonic() - start:5.1f} s "
            for line in log:
                message = re.sub(r"[\0-\x1f\x7f]", "?", LOG_PREFIX.sub("", line.rstrip("\n")))
                messages.append(message)
                kind = re.sub(r"\d{3,}", "", message)
                if kind not in kinds or STAGE.match(message):
                    print(since_start, message, flush=True)
                kinds.add(kind)
            if "c" in sysrq.read():
                print(since_start, "crash not done", flush=True)
            if is_last:
                return
            time.sleep(0.1)


def demonstrate(build, shell, send_signals):
    """Returns what went wrong."""
    print(INTRODUCTION, flush=True)
    # Two demonstrations at once would report each other's tasks.
    fcntl.flock(os.open("/tmp", os.O_RDONLY), fcntl.LOCK_EX)
    root = sandbox.prepare(build, "demo")
    tasks = demonstration.start_tasks(build / "stuck_task", shell)
    (root / sandbox.CONFIG).write_text(demonstration.configuration(tasks, shell))
    deadline = time.monotonic() + DEADLINE
    faults = []

    def is_over(messages):
        faults[:] = demonstration.judge(tasks, messages, root)
        return not faults or time.monotonic() > deadline

    status = play(build, root, send_signals, is_over)
    for task in tasks:
        task.running.kill()
        task.running.wait()
    if status is not None:
        faults.append(f"the daemon has ended with status {status}")
    stuck = sum(task.report != "" for task in tasks)
    verdict = f"{stuck} stuck tasks reported, {len(tasks) - stuck} others left alone."
    print("", *(faults or [verdict]), sep="\n")
    return faults


def run_configuration(build, config, properties, send_signals):
    files = [file.name for file in (config, properties) if file]
    if subprocess.run([TOOLS / "check-config", *files]).returncode != 0:
        sys.exit("run: the daemon is not started with this configuration")
    root = sandbox.prepare(build, "run")
    (root / sandbox.CONFIG).write_bytes(config.read())
    lines = read_properties(properties.name) if properties else b""
    (root / sandbox.PROPERTIES).write_bytes(lines + b"\npersist.vendor.hg.debug=1\n")
    print("\nSignals are real: --no-signals only logs them." if send_signals else
          "\nSignals are logged, none is sent.")
    print("Debug is on, whatever the configuration says. Runs until Ctrl-C.")
    if status := play(build, root, send_signals):
        sys.exit(f"run: the daemon has ended with status {status}")


def main():
    for number in (signal.SIGINT, signal.SIGPIPE):  # all that runs here dies with this process
        signal.signal(number, signal.SIG_DFL)
    arguments = parse_arguments()
    build = arguments.build
    if build is None:
        build = ROOT / "build/release"
        if subprocess.run(["bash", "-c", BUILD, ROOT / "scripts/build.bash"]).returncode != 0:
            sys.exit(1)
    send_signals = not arguments.no_signals
    if arguments.config:
        run_configuration(build.resolve(), arguments.config, arguments.properties, send_signals)
    elif demonstrate(build.resolve(), arguments.shell, send_signals):
        sys.exit(1)


main()
