"""The device on which a configuration is played: what is listed, as steps of the virtual device."""
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

    def __init__(self, world, processes, absent, parent=ZYGOTE):
        self.pids, self.tasks, self.interval = {}, {}, world.interval
        iowait, binder = world.settings["black_white_list"], world.settings["binder_monitor"]
        others = {name: [] for name in (iowait or {}).get("list", [])}
        for name, threads in {**others, **processes}.items():
            if (name,) not in absent:
                present = [thread for thread in threads if (name, thread) not in absent]
                self.add_process(name, present, f"cmd={name} ppid={parent}")
        self.binder_thread, self.wchans = None, []
        if binder and binder["enable"]:
            self.add_binder_thread(binder, parent)

    def add_process(self, name, threads, keys):
        pid = self.pids[name] = 1000 * (len(self.pids) + 1)
        main = main_thread(name, threads)
        self.tasks[name, main] = Task(str(pid), main, keys)
        for tid, thread in enumerate(threads, pid + 1):
            if thread != main:
                self.tasks[name, thread] = Task(f"{pid}/{tid}", thread)

    def add_binder_thread(self, binder, parent):
        users = {uid: name for name, uid in binder["uid_map"].items()}
        uids = sorted(binder["monitor_uids"], key=lambda uid: uid not in users) or [1]
        keys = f"ppid={parent} uid={uids[0]} user={users.get(uids[0], 'u')}"
        self.tasks["", ""] = Task(str(BINDER), "binder", keys)
        self.binder_thread = Task(f"{BINDER}/901", f"Binder:{BINDER}_1")
        self.wchans = binder["wchans"]

    def healthy_life(self, seconds):
        """Steps of a time in which nothing hangs. At every fifth scan a task is met in D, or a
        binder thread in a wait channel; another one comes and goes. A "watchdog" runs regularly."""
        dogs = [task for task in self.tasks.values() if task.name == "watchdog"]
        tasks = [task for task in self.tasks.values() if task not in dogs]
        tasks += [self.binder_thread] if self.binder_thread else []
        yield from (task.comes() for task in tasks + dogs)
        for second in itertools.accumulate(itertools.cycle(WATCHDOG_PERIODS)):
            if second > seconds:
                break
            yield from (f"@{second} {dog.moves()}" for dog in dogs)
        for scan in range(1, int(seconds / self.interval) + 2):
            at = f"@{int(scan * self.interval)} "
            for task in tasks[(scan - 1) % 5::5]:
                yield at + task.moves("state=S wchan=0")
            for task in tasks[scan % 5::5]:
                waits = self.wchans and task is self.binder_thread and scan % 2
                yield at + task.moves(f"state=S wchan={self.wchans[0]}" if waits else "state=D")
            if self.binder_thread:
                ids = f"{BINDER}/902"
                yield at + (f"{ids} comm=Binder:{BINDER}_2 state=S" if scan % 3 == 0 else f"-{ids}")
