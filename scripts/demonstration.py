"""The tasks of the demonstration: some are really stuck, each in one of the ways that the daemon
reports, the others are healthy. Starts them, and judges what the daemon did with them.
"""
import dataclasses
import itertools
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

import sandbox

TIMEOUT = 6  # s
FOREIGN_USER = 65534  # nobody
UNKNOWN = 2 ** 32 - 1  # how the daemon prints the parent that it does not know
BLOCKED = f"tid:{{tid}} pid:{{pid}} ppid:{{ppid}} in {{state}} {TIMEOUT}s"
# The parent of a task that counts as an app. Its arguments are the program, the name and the way.
ZYGOTE = 'exec -a "$1" "$0" "${@:2}" & read -r'


@dataclasses.dataclass
class Task:
    process: str
    way: str  # to get stuck: the arguments of host/stuck_task.cpp
    report: str = ""  # that the daemon must write; empty for a healthy task
    thread: str = ""  # that is watched, in place of the process as a whole
    is_zygote_child: bool = False
    uid: int = None
    running: subprocess.Popen = None
    pid: int = 0
    wchan: str = ""

    def start(self, program):
        """Starts a process, which dies with this one, and completes the report."""
        words = [self.process, *self.way.split()]
        with open(program, "rb") as file:
            executable = f"/proc/self/fd/{file.fileno()}"  # another user may not reach its path
            if self.is_zygote_child:
                words = ["zygote", "-c", ZYGOTE, program, *words]
                executable = "/bin/bash"
            self.running = subprocess.Popen(
                words, executable=executable, pass_fds=[file.fileno()], user=self.uid,
                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.pid, tid = map(int, self.running.stdout.readline().split())
        if "wchan" in self.report:
            self.wchan = wait_channel(tid)
        self.report = self.report.format(
            tid=tid, pid=self.pid, wchan=self.wchan, state=self.way[0],
            ppid=self.running.pid if self.is_zygote_child else os.getpid())


def wait_channel(tid):
    """Where a task sleeps, as soon as it does."""
    for _ in range(500):
        channel = pathlib.Path(f"/proc/{tid}/wchan").read_text()
        if channel != "0":
            return channel
        time.sleep(0.01)
    sys.exit("run: the kernel does not tell the wait channel of a task")


def start_tasks(program, shell):
    """Returns those that this user can start, with what must be reported of them in this mode."""
    parent = UNKNOWN if shell else "{ppid}"  # what ps does not list has no known parent
    missing = f"RenderThread in pid:{{pid}} ppid:{parent} cannot start {TIMEOUT}s"
    # ps prints the name at the end of its line, and the line feed stays part of it: no thread is
    # "watchdog" to shell mode.
    unswitch = "" if shell else f"tid:{{tid}} pid:{{pid}} ppid:{{ppid}} in unswitch S {TIMEOUT}s"
    # Two get stuck later than the others: the daemon spends 3 s on most first dumps, and would take
    # all of them in one scan for a hang of its own. A zombie, the last to be started, has no name:
    # the daemon must have found it before.
    tasks = [
        Task("stuck_vfork", "D 0", BLOCKED),
        Task("stuck_stopped", "T 0", BLOCKED),
        Task("stuck_unstarted", "S 0", missing, thread="RenderThread"),
        Task("stuck_server", "S 2.5 watchdog", unswitch, thread="watchdog", is_zygote_child=True),
        # Stands still like the watchdog, but is none. The kernel is asked to watch its I/O waits.
        Task("healthy_app", "S 0", thread="healthy_app"),
        Task("stuck_binder", "D 0 Binder:1_1", BLOCKED),
        Task("asleep_binder", "S 0 Binder:1_2",
             f"pid:{{pid}} ppid:{{ppid}} wchan: {{wchan}}{TIMEOUT}s"),
        # Waits in the same channel, but makes progress.
        Task("healthy_binder", "R 0 Binder:2_1"),
        # Stuck, but of a user that is not watched.
        Task("foreign_binder", "T 0 Binder:3_1", uid=FOREIGN_USER),
        Task("stuck_zombie", "Z 5", f"pid:{{pid}} ppid:{{ppid}} in Z {TIMEOUT}s")]
    tasks = [task for task in tasks if task.uid is None or os.getuid() == 0]
    # The parent of the zombie does not wait for it, and survives the signal that asks for stacks.
    # Were that ignored, it would be in the daemon, too.
    signal.signal(35, lambda *_: None)
    for task in tasks:
        task.start(program)
    return tasks


def configuration(tasks, shell):
    uid = os.getuid()
    listing = subprocess.check_output([sandbox.HOST / "bin/ps", "-p", f"{os.getpid()}"], text=True)
    user = listing.splitlines()[1].split()[0]  # a number where it has no name
    return json.dumps({"Config": {
        "switches": {"main": True, "debug": True, "use_shell": shell},
        "policy": "reboot",
        "scan": {"timeout_second": TIMEOUT, "timeout_min_second": TIMEOUT,
                 "interval_min_second": 0, "log_timeout_second": 20, "round": 6},
        "monitor_process": {"enable": True, "list": [
            {"process": task.process, "thread": [task.thread] if task.thread else []}
            for task in tasks if "Binder:" not in task.way]},
        "monitor_binder": {
            "enable": True, "monitor_uids": [uid], "uid_map": [{"name": user, "value": uid}],
            "wchans": [task.wchan for task in tasks if task.wchan]},
        "default_open_hw_list": {},
        "black_white_list": {
            "enable": True, "list": ["healthy_app"], "mode": "black",
            "max_iowait_task_cnt": 3, "max_iowait_timeout_cnt": 6}}}, indent=2)


def judge(tasks, messages, root):
    """What is not as it must be, after what the daemon logged and wrote to the kernel's files."""
    done = {f"report: {line}" for line in read_lines(root / sandbox.KERNEL_LOG)}
    done |= {f"I/O waits are watched: {line}" for line in read_lines(root / sandbox.PER_TASK)}
    done.add("SysRq: " + " ".join(read_lines(root / sandbox.SYSRQ)))
    for previous, message in itertools.pairwise(messages):
        if dump := re.match(r"dumped(?: hung proc)?:(\d+) ", message):
            done.add(f"dump of {dump[1]}")
        if re.match("reboot not done: .*, reason=tovrel", message):
            done.add(f"reboot for {previous}")

    due = set()
    for task in tasks:
        if task.report:
            due |= {f"dump of {task.pid}", f"report: {task.report}", f"reboot for {task.report}"}
        if task.process == "healthy_app":
            due.add(f"I/O waits are watched: {task.pid} 1")
    blocked = sum(re.search(" in [DTZ] ", task.report) is not None for task in tasks)
    due.add("SysRq: " + " ".join(["w l"] * blocked))
    return ([f"missing: {fact}" for fact in sorted(due - done)] +
            [f"unexpected: {fact}" for fact in sorted(done - due)])


def read_lines(file):
    return re.findall(r"[^\n\0]+", file.read_text())
