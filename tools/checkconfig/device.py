"""The device on which a configuration is played: its tasks, as steps of the virtual device."""
import dataclasses
import itertools

ZYGOTE, BINDER = 30, 900  # process ids
COMM_MAX = 15  # bytes of a thread's name
WATCHDOG_PERIODS = (30, 31)  # s, in turn: it sleeps for 30 s, and then has some work


def main_thread(name, threads):
    """The name of a process's main thread: some processes keep the end of theirs."""
    return next((end for end in (name[:COMM_MAX], name[-COMM_MAX:]) if end in threads),
                name[:COMM_MAX])


@dataclasses.dataclass
class Task:
    ids: str  # "1000" or "1000/1001"
    name: str
    keys: str = ""  # what it has besides, as in a step
    runs: int = 5

    def comes(self, state="state=S"):
        return f"{self.ids} comm={self.name} {self.keys} {state}"

    def moves(self, state=""):
        """It uses the processor, and may come to another state."""
        self.runs += 1
        return f"{self.ids} {state} runs={self.runs}"


class Device:
    """All that is listed but the absent: (process,) or (process, thread) each."""

    def __init__(self, settings, absent=frozenset(), parent=ZYGOTE):
        self.settings, self.parent, self.pids, self.tasks = settings, parent, {}, {}
        iowait, binder = settings["black_white_list"], settings["binder_monitor"]
        processes = {name: [] for name in (iowait or {}).get("list", [])}
        for name, threads in {**processes, **watched_processes(settings)}.items():
            if (name,) not in absent:
                self.add_process(name, [t for t in threads if (name, t) not in absent])
        self.binder_thread = self.passing_thread = None
        if binder and binder["enable"]:
            self.add_binder_threads(binder)

    def add_process(self, name, threads):
        pid = self.pids[name] = 1000 * (len(self.pids) + 1)
        main = main_thread(name, threads)
        self.tasks[name, main] = Task(str(pid), main, f"cmd={name} ppid={self.parent}")
        for tid, thread in enumerate(threads, pid + 1):
            if thread != main:
                self.tasks[name, thread] = Task(f"{pid}/{tid}", thread)

    def add_binder_threads(self, binder):
        users = {uid: name for name, uid in binder["uid_map"].items()}
        uids = sorted(binder["monitor_uids"], key=lambda uid: uid not in users) or [1]
        keys = f"ppid={self.parent} uid={uids[0]} user={users.get(uids[0], 'u')}"
        self.tasks["", ""] = Task(f"{BINDER}", "main", keys)
        self.binder_thread = Task(f"{BINDER}/901", "Binder:900_1")
        self.passing_thread = Task(f"{BINDER}/902", "Binder:900_2")

    def at_rest(self):
        """The steps by process and thread."""
        return {key: task.comes() for key, task in self.tasks.items()}

    def healthy_life(self, seconds):
        """Steps of a time in which nothing hangs. At every fifth scan a task is met in D, or a
        binder thread in a wait channel; another one comes and goes. A "watchdog" runs regularly."""
        yield from self.at_rest().values()
        dogs = [task for task in self.tasks.values() if task.name == "watchdog"]
        for second, dog in itertools.product(watchdog_runs(seconds), dogs):
            yield f"@{second} {dog.moves()}"
        tasks = [task for task in self.tasks.values() if task not in dogs]
        wchans = []
        if self.binder_thread:
            yield self.binder_thread.comes()
            tasks.append(self.binder_thread)
            wchans = self.settings["binder_monitor"]["wchans"]
        interval = self.settings["interval"] / 1000
        for scan in range(1, int(seconds / interval) + 2):
            at = f"@{int(scan * interval)} "
            for task in tasks[scan % 5::5]:
                is_waiting = wchans and task is self.binder_thread and scan % 2
                yield at + task.moves(f"state=S wchan={wchans[0]}" if is_waiting else "state=D")
            for task in tasks[(scan - 1) % 5::5]:
                yield at + task.moves("state=S wchan=0")
            if self.passing_thread:
                is_there = scan % 3 == 0
                yield at + (self.passing_thread.comes() if is_there else "-900/902")


def watchdog_runs(seconds):
    runs = itertools.accumulate(itertools.cycle(WATCHDOG_PERIODS))
    return itertools.takewhile(lambda second: second <= seconds, runs)


def watched_processes(settings):
    """Threads by process; none where the detector is off."""
    return settings["process_list"] if settings["process_enable"] else {}
