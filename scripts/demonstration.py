"""The tasks of the demonstration: some are really stuck, each in one of the ways that the daemon
reports, the others are healthy. Starts them, and judges what the daemon did with them.
"""
import contextlib
import dataclasses
import json
import os
import pathlib
import pwd
import re
import signal
import subprocess
import sys
import time

import sandbox

TIMEOUT = 6  # s
FOREIGN_USER = 65534  # nobody
UNKNOWN = 2 ** 32 - 1  # how the daemon prints the parent that it does not know
BLOCKED = "tid:{tid} pid:{pid} ppid:{ppid} in {way[0]} {timeout}s"


@dataclasses.dataclass
class Task:
    monitor: str  # "process", "binder" or "iowait"
    process: str
    way: str  # to get stuck: the arguments of host/stuck_task.cpp
    report: str = ""  # that the daemon must write; empty for a healthy task
    thread: str = ""  # that is watched, in place of the process as a whole
    is_zygote_child: bool = False
    uid: int = None
    pid: int = 0
    tid: int = 0
    wchan: str = ""

    def __post_init__(self):
        self.thread = self.thread or " ".join(self.way.split()[2:])

    def complete(self, pid, ppid):
        """Adds what is known of it only when its process has been started."""
        self.pid = self.tid = pid
        if self.thread and self.thread in self.way:  # not one that never starts
            self.tid = wait_for(lambda: find_thread(pid, self.thread))
        if "wchan" in self.report:
            self.wchan = wait_for(lambda: wait_channel(pid, self.tid))
        self.report = self.report.format(ppid=ppid, timeout=TIMEOUT, **vars(self))


def tasks_of(shell):
    """The tasks that this user can start, and what must be reported of them in this mode."""
    parent = UNKNOWN if shell else "{ppid}"  # what ps does not list has no known parent
    missing = f"RenderThread in pid:{{pid}} ppid:{parent} cannot start {{timeout}}s"
    # ps prints the name at the end of its line, and the line feed stays part of it: no thread is
    # "watchdog" to shell mode.
    unswitch = "" if shell else "tid:{tid} pid:{pid} ppid:{ppid} in unswitch S {timeout}s"
    # Two get stuck later than the others: the daemon spends 3 s on most first dumps, and would take
    # all of them in one scan for a hang of its own. A zombie, the last to be started, has no name:
    # the daemon must have found it before.
    tasks = [
        Task("process", "stuck_vfork", "D 0", BLOCKED),
        Task("process", "stuck_stopped", "T 0", BLOCKED),
        Task("process", "stuck_unstarted", "S 0", missing, thread="RenderThread"),
        Task("process", "stuck_server", "S 2.5 watchdog", unswitch, is_zygote_child=True),
        # Stands still like the watchdog, but is none.
        Task("process", "healthy_app", "S 0 worker", is_zygote_child=True),
        Task("process", "healthy_busy", "R 0 worker"),
        Task("binder", "stuck_binder", "D 0 Binder:1_1", BLOCKED),
        Task("binder", "asleep_binder", "S 0 Binder:1_2",
             "pid:{pid} ppid:{ppid} wchan: {wchan}{timeout}s"),
        # Waits in the same channel, but makes progress.
        Task("binder", "healthy_binder", "R 0 Binder:2_1"),
        # Stuck, but of a user that is not watched.
        Task("binder", "foreign_binder", "T 0 Binder:3_1", uid=FOREIGN_USER),
        Task("iowait", "iowait_app", "S 0"),
        Task("process", "stuck_zombie", "Z 5", "pid:{pid} ppid:{ppid} in Z {timeout}s")]
    return [task for task in tasks if task.uid is None or os.getuid() == 0]


@contextlib.contextmanager
def started(program, tasks):
    """Runs the tasks, each as a process of its own, which dies with this one."""
    # The parent of the zombie does not wait for it, and survives the signal that asks for stacks.
    # Were that ignored, it would be in the daemon, too.
    signal.signal(35, lambda *_: None)
    zygote = start_zygote(program, [task for task in tasks if task.is_zygote_child])
    processes = [start(program, task) for task in tasks if not task.is_zygote_child]
    try:
        yield
    finally:
        for process in processes:
            process.kill()
            process.wait()
        zygote.communicate()


def start(program, task):
    # Another user may not reach the program by its path.
    with open(program, "rb") as file:
        process = subprocess.Popen(
            [task.process, *task.way.split()], executable=f"/proc/self/fd/{file.fileno()}",
            pass_fds=[file.fileno()], user=task.uid)
    task.complete(process.pid, os.getpid())
    return process


def start_zygote(program, tasks):
    """Starts the parent of the tasks, and them. It lives until its standard input is closed."""
    starts = [f'exec -a {task.process} "$0" {task.way} & echo $!' for task in tasks]
    script = "\n".join([*starts, "read -r", "kill -KILL $(jobs -p)", "wait"])
    zygote = subprocess.Popen(
        ["zygote", "-c", script, program], executable="/bin/bash", stdin=subprocess.PIPE,
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    for task in tasks:
        task.complete(int(zygote.stdout.readline()), zygote.pid)
    return zygote


def wait_for(look):
    """What the function finds, as soon as it finds something."""
    for _ in range(500):
        if found := look():
            return found
        time.sleep(0.01)
    sys.exit("run: a stuck task has not started, or the kernel does not tell its wait channel")


def find_thread(pid, name):
    for comm in pathlib.Path(f"/proc/{pid}/task").glob("*/comm"):
        if comm.read_text() == f"{name}\n":
            return int(comm.parent.name)
    return None


def wait_channel(pid, tid):
    wchan = pathlib.Path(f"/proc/{pid}/task/{tid}/wchan").read_text()
    return wchan if wchan != "0" else None


def configuration(tasks, shell):
    uid = os.getuid()
    try:
        user = pwd.getpwuid(uid).pw_name
    except KeyError:
        user = str(uid)  # as ps prints it
    return json.dumps({"Config": {
        "switches": {"main": True, "debug": True, "use_shell": shell},
        "policy": "reboot",
        "scan": {"timeout_second": TIMEOUT, "timeout_min_second": TIMEOUT,
                 "interval_min_second": 0, "log_timeout_second": 20, "round": 6},
        "monitor_process": {"enable": True, "list": [
            {"process": task.process, "thread": [task.thread] if task.thread else []}
            for task in tasks if task.monitor == "process"]},
        "monitor_binder": {
            "enable": True, "monitor_uids": [uid], "uid_map": [{"name": user, "value": uid}],
            "wchans": [task.wchan for task in tasks if task.wchan]},
        "default_open_hw_list": {"enable": False, "list": []},
        "black_white_list": {
            "enable": True, "list": [task.process for task in tasks if task.monitor == "iowait"],
            "mode": "black", "max_iowait_task_cnt": 3, "max_iowait_timeout_cnt": 6}}}, indent=2)


def judge(tasks, log_file, root):
    """What is not as it must be, after what the daemon logged and wrote to the kernel's files."""
    log = log_file.read_text(errors="replace")
    dumped = {int(pid) for pid in re.findall(r" dumped(?: hung proc)?:(\d+) ", log)}
    kernel_log, sysrq, marked = ((root / name).read_text().splitlines() for name in (
        sandbox.KERNEL_LOG, sandbox.SYSRQ, sandbox.PER_TASK))

    blocked = sum(re.search(" in [DTZ] ", task.report) is not None for task in tasks)
    facts = [("".join(sysrq).count(command) == blocked,
              f'SysRq "{command}" was not used {blocked} times') for command in "wl"]
    expected = {"", *(task.report for task in tasks)}
    facts += [(line in expected, f"unexpected report '{line}'") for line in set(kernel_log)]
    for task in tasks:
        if task.report:
            reboot = rf" {re.escape(task.report)}\nhost .* reboot not done: .*, reason=tovrel\n"
            facts += [(task.pid in dumped, f"{task.process} was not dumped"),
                      (task.report in kernel_log, f"{task.process} has no report '{task.report}'"),
                      (re.search(reboot, log), f"{task.process} was not rebooted for")]
        else:
            facts.append((task.pid not in dumped, f"{task.process} was not left alone"))
        if task.monitor == "iowait":
            facts.append((f"{task.pid} 1" in marked, f"{task.process} is not marked in the kernel"))
    return [fault for holds, fault in facts if not holds]


def verdict(tasks):
    """What it comes to if nothing is wrong."""
    stuck = sum(task.report != "" for task in tasks)
    others = sum(task.monitor != "iowait" for task in tasks) - stuck
    return f"{stuck} stuck tasks reported, {others} others left alone."
