#!/usr/bin/python3
"""Runs the daemon in its sandbox and prints what it logs: either the demonstration, which checks
that of some tasks the stuck ones are reported and no others, or the user's own configuration until
Ctrl-C. At last it prints who hung. scripts/run has read the options and built the programs.

usage: scripts/run.py BUILD_DIR [--keep] [--shell]
       scripts/run.py BUILD_DIR [--keep] [--no-signals] CONFIG [PROPERTIES]
"""
import fcntl
import functools
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

import demonstration
import sandbox
from demonstration import TIMEOUT

TOOLS = pathlib.Path(__file__).resolve().parent.parent / "tools"
sys.path.append(str(TOOLS))
from check_config.reading import read_properties  # also what getprop prints
DEADLINE = 60  # s, for the last report of the demonstration
INTRODUCTION = f"""\
The daemon watches tasks of which some are really stuck. With its time-out of {TIMEOUT} s, dumps
are due at half of it after a task stood still, report and reboot (which is only logged) at the
whole. Each dump in state D, T or Z halts the daemon for 3 s, so that the kernel can write its
stacks to the log before anything else happens. It all takes about 25 s."""
DEBUG_OFF = """Debug is off: below stand only the reports for the kernel log. For more set
"debug" to true, or persist.vendor.hg.debug=1 in a file of PROPERTIES."""

LOG_PREFIX = re.compile(r"^\w+ [VDIWEF] \S+ \S+ +\d+ +\d+ ")  # "tovrel I 11-21 15:43:59 134 134 "
# What is done about a task. A daemon with debug on repeats its other lines in every scan.
STAGE = re.compile(r"dumped|.*pid:\d+ ppid:\d+ |killing|nothing to do|reboot not done|"
                   r"signal not sent")
# A process that ended while it was looked at.
VANISHED = re.compile(r"(Read|open) /proc/\d+/.* failed")


def watch(command, log_file, root, debug=True, is_over=lambda seconds: False):
    """Runs the daemon until it ends or all is over, and prints what it logs, with the seconds since
    the start. Returns its status, None if it still ran.
    """
    start, printed = time.monotonic(), {""}
    with sandbox.run(command, log_file) as (daemon, log), \
            open(root / sandbox.KERNEL_LOG, "rb") as kernel_log, \
            open(root / sandbox.SYSRQ, "rb") as sysrq:
        while True:
            status, seconds = daemon.poll(), time.monotonic() - start
            is_last = status is not None or is_over(seconds)
            copy_acts(kernel_log, sysrq, log_file, debug)
            for message in news(log, printed):
                print(f"{seconds:5.1f} s  {message}", flush=True)
            if is_last:
                return status
            time.sleep(0.1)


def news(log, printed):
    """The messages of the log's new lines that are worth printing."""
    for line in log:
        text = line.decode(errors="backslashreplace").rstrip("\n")
        message = re.sub(r"[\0-\x1f\x7f-\x9f]", "?", LOG_PREFIX.sub("", text))
        if STAGE.match(message) or not (message in printed or VANISHED.match(message)):
            yield message
        printed.add(message)


def copy_acts(kernel_log, sysrq, log_file, debug):
    """Adds to the log what only the kernel's log has on a device: crashes, and the reports of a
    daemon that does not log them itself.
    """
    reports = [] if debug else [line.strip() for line in kernel_log]
    crashes = [b"sysrq: Trigger a crash" for line in sysrq if line.startswith(b"c")]
    with open(log_file, "ab") as log:
        for text in filter(None, reports + crashes):
            log.write(b"[%12.6f] %s\n" % (time.monotonic(), text))


def print_hangs(log_file):
    print(flush=True)
    subprocess.run([TOOLS / "find-hangs", os.path.relpath(log_file)])


def wait_for_others():
    """Two demonstrations at once would report each other's tasks. The lock is of this process."""
    directory = os.open("/tmp", os.O_RDONLY)
    try:
        fcntl.flock(directory, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        print("waiting for another demonstration on this host to end ...", flush=True)
        fcntl.flock(directory, fcntl.LOCK_EX)


def demonstrate(build, options):
    """Returns the exit status."""
    shell, log_file = "--shell" in options, build / "demo.log"
    tasks = demonstration.tasks_of(shell)
    wait_for_others()
    print(INTRODUCTION, f"The whole log: {log_file}\n", sep="\n", flush=True)
    with sandbox.directory("", "--keep" in options) as root:
        command = sandbox.command(build, root)
        faults = functools.partial(demonstration.judge, tasks, log_file, root)
        with demonstration.started(build / "stuck_task", tasks):
            (root / sandbox.CONFIG).write_text(demonstration.configuration(tasks, shell))
            status = watch(command, log_file, root,
                           is_over=lambda seconds: seconds > DEADLINE or not faults())
        wrong = faults() + ([] if status is None else [f"the daemon has ended: {status}"])
    print_hangs(log_file)
    summary = [f"FAILED: {fault}" for fault in wrong] or [demonstration.verdict(tasks)]
    print("", *summary, sep="\n")
    return 1 if wrong else 0


def run_configuration(build, options, files):
    """Returns the exit status."""
    check = [TOOLS / "check-config", *files]
    if subprocess.run(check).returncode != 0:
        sys.exit("run: the daemon is not started with this configuration")
    checked = json.loads(subprocess.check_output([*check, "--json"]))
    debug, log_file = checked["settings"]["debug"], build / "run.log"
    print("\nSignals are logged, none is sent." if "--no-signals" in options else
          "\nSignals are real: --no-signals only logs them.")
    if not debug:
        print(DEBUG_OFF)
    print(f"Runs until Ctrl-C. The whole log: {log_file}\n", flush=True)

    config, *properties = files
    with sandbox.directory(pathlib.Path(config).read_text(), "--keep" in options) as root:
        lines = root / "properties"
        lines.write_bytes(b"".join(map(read_properties, properties)))
        command = sandbox.command(build, root, lines,
                                  send_signals="--no-signals" not in options)
        interrupts = []
        signal.signal(signal.SIGINT, lambda *_: interrupts.append(True))
        status = watch(command, log_file, root, debug, is_over=lambda _: bool(interrupts))
    print_hangs(log_file)
    if status not in (None, 0, -signal.SIGINT):
        sys.exit(f"run: the daemon has ended with status {status}")
    return 0


def main():
    directory, *words = sys.argv[1:]
    options = [word for word in words if word.startswith("--")]
    files = [word for word in words if word not in options]
    for number in (signal.SIGTERM, signal.SIGHUP):
        if signal.getsignal(number) != signal.SIG_IGN:  # as nohup has it
            signal.signal(number, lambda number, _: sys.exit(128 + number))
    sys.stdout.reconfigure(errors="backslashreplace")
    build = pathlib.Path(directory).resolve()
    return run_configuration(build, options, files) if files else demonstrate(build, options)


try:
    sys.exit(main())
except KeyboardInterrupt:
    sys.exit(130)
except BrokenPipeError:
    sys.exit(141)
