"""What the daemon does on the virtual device with a configuration: who is found, and when."""
import copy
import re
from typing import NamedTuple

from .device import BINDER, ZYGOTE, Device, Task, main_thread, watched_processes

# With debug on, which does nothing but write log lines, the daemon names a task before each act.
WATCH = (r"watch alarm|kill|kmsg|I nothing to do|I thread: |I [^ ]+ [0-9]+ state=. wchan=;"
         "prop debug=1;turns 1000000")
NAMED = re.compile(r"I thread: (?P<name>.*) tid=(?P<tid>\d+), .*state=(?P<state>.)"
                   r"|I (?P<binder>\S+) (?P<id>\d+) state=(?P<its_state>.) wchan=")
DUMP = re.compile(r"kill \S+ (3|35)$")
ACT = re.compile(r"kill \S+ 9$|kmsg |I nothing to do")
MAX_SHELL_NAMES = 20  # names matter in shell mode alone; of more only the first are played
CALM_SCANS = 3
HASH_NAMES = ("Absent", "zabsent")


class Event(NamedTuple):
    seconds: float
    is_act: bool  # or a dump
    name: str
    tid: str
    state: str


class Hang(NamedTuple):
    what: str
    how: str
    process: str = ""
    thread: str = ""
    state: str = "state=D"
    others: str = ""  # threads beside the main one: "asleep" or "at work"
    is_new: bool = False  # it comes when it gets stuck


def responses(events):
    """The dumps and acts, with whom they are for."""
    found, last = [], None
    for seconds, text in events:
        named = NAMED.match(text)
        if named:
            task = named["name"] or named["binder"], named["tid"] or named["id"]
            last = *task, named["state"] or named["its_state"]
        elif last and (DUMP.match(text) or ACT.match(text)):
            found.append(Event(seconds, bool(ACT.match(text)), *last))
    return found


class World:
    """A configuration and properties, as the daemon reads them, and the daemon to play them."""

    def __init__(self, daemon, document, properties):
        self.daemon, self.document, self.properties = daemon, document, properties
        reading = daemon.read(document, properties)
        self.settings, self.idle = reading["settings"], reading["idle"]
        self.interval = self.settings["interval"] / 1000
        self.timeout = self.settings["timeout"] / 1000

    def configured(self, settings):
        """The configuration with the processes of `settings`, which may have come by a property."""
        document = copy.deepcopy(self.document)
        processes = [{"process": name, "thread": threads}
                     for name, threads in watched_processes(settings).items()]
        document["Config"]["monitor_process"] = {"enable": bool(processes), "list": processes}
        return document

    def play(self, plays):
        """The events of each play: settings, and steps."""
        return self.daemon.play([
            (self.configured(settings), self.properties, ";".join([*steps, "prop processes=", WATCH]))
            for settings, steps in plays])


def other_threads(name, settings):
    """The listed threads of a process beside its main one."""
    threads = watched_processes(settings)[name]
    return [thread for thread in threads if thread != main_thread(name, threads)]


def kinds(settings):
    """The hangs to be played."""
    processes, binder = watched_processes(settings), settings["binder_monitor"]
    # The walk compares whole names, so that one of a kind tells of all.
    count = MAX_SHELL_NAMES if settings["use_shell"] else 1
    largest = sorted(processes, key=lambda name: -len(other_threads(name, settings)))
    for name in [name for name in largest if not processes[name]][:count]:
        for others in ("", "asleep", "at work"):
            beside = f", other threads {others}" if others else ", no other thread"
            yield Hang("process as a whole", f"main thread in D{beside}", name, others=others)
            if others != "at work":  # such a process is alive
                yield Hang("process as a whole", f"zombie{beside}", name, "", "state=Z", others)
    for name in [name for name in largest if processes[name]][:count]:
        yield Hang("process with threads", "zombie", name, "", "state=Z")
        for thread in processes[name][:count]:
            yield Hang("thread", "in D", name, thread)
        for thread in other_threads(name, settings)[:count]:
            yield Hang("thread", "missing", name, thread, "")
    for name in [name for name in largest if "watchdog" in processes[name]][:count]:
        yield Hang("thread \"watchdog\"", "asleep", name, "watchdog", "state=S")
    if binder and binder["enable"] and (binder["monitor_uids"] or settings["use_shell"]):
        for is_new in (False, True):
            since = "new" if is_new else "known"
            yield Hang("binder thread", f"in D, {since}", is_new=is_new)
            for wchan in binder["wchans"][:1]:
                yield Hang("binder thread", f"in a wait channel, {since}",
                           state=f"state=S wchan={wchan}", is_new=is_new)


def steps_of(hang, device, end):
    """The steps of a play: all is well until the fourth scan, before which the hang begins."""
    interval = device.settings["interval"] / 1000
    moment = f"@{begin_of(interval)} "
    yield f"until {int(end)};{ZYGOTE} comm=zygote state=S"
    for (process, thread), step in device.at_rest().items():
        # A "watchdog" at work is never judged. Threads are missed from their process's start on.
        step = step.replace("state=S", "state=R") if thread == "watchdog" else step
        yield moment + step if hang.how == "missing" and process == hang.process else step
    if hang.how == "missing":
        return
    task = stuck_task(hang, device)
    if not hang.process and not hang.is_new:
        yield task.comes()
    yield moment + (task.comes(hang.state) if hang.is_new else task.moves(hang.state))
    if hang.state == "state=Z":
        yield f"{moment}{task.ids} cmdline:"
    if hang.others:
        other = Task(f"{task.ids}/{int(task.ids) + 99}", "other")
        yield other.comes()
        for scan in range(1, int(end / interval) + 2) if hang.others == "at work" else ():
            yield f"@{int(scan * interval)} {other.moves(f'utime={scan}')}"


def begin_of(interval):
    return int((CALM_SCANS + 1) * interval)


def stuck_task(hang, device):
    threads = watched_processes(device.settings).get(hang.process, ())
    main = main_thread(hang.process, threads)
    return device.tasks[hang.process, hang.thread or main] if hang.process else device.binder_thread


def answer_of(hang, events, task, interval):
    """The [earliest, latest] seconds of dump, first act and each further one: it got stuck after
    the last scan that found it well, or right before the next. None: never."""
    turns = [seconds for seconds, text in events if text.startswith("alarm")]
    late = next(seconds for seconds in turns if seconds >= begin_of(interval))
    early = max(seconds for seconds in turns if seconds < late)
    tid = task.ids.rpartition("/")[2] if task else ""
    ours = [event for event in responses(events)
            if (event.name == hang.thread if hang.how == "missing" else event.tid == tid)]
    dumps = [event.seconds for event in ours if not event.is_act][:1]
    acts = [event.seconds for event in ours if event.is_act]
    waits = [after - before for before, after in zip(acts, acts[1:])]
    return tuple((round(min(times), 3), round(max(times), 3)) if times else None for times in (
        [*(t - late for t in dumps), *(t - early for t in dumps)],
        [*(t - late for t in acts[:1]), *(t - early for t in acts[:1])], waits))


def circumstances(hang, settings):
    """What else may be absent, in words; for each the settings and what is absent in them, under
    names and at places that bring it to the front and to the end of the daemon's hash tables."""
    yield "", [(settings, ())]
    processes = watched_processes(settings)
    listed = [(name, thread) for name in processes for thread in other_threads(name, settings)]
    iowait = settings["black_white_list"] or {"list": []}
    candidates = [
        ("another process absent", [(name,) for name in processes if name != hang.process]),
        ("a thread of another absent", [key for key in listed if key[0] != hang.process]),
        ("another of its threads absent", [key for key in listed if key[0] == hang.process and key[1] != hang.thread])]
    for when, absent in candidates:
        if absent:
            yield when, list(renamed(settings, absent[0]))
    for name in [name for name in iowait["list"] if name not in processes][:1]:
        yield "an I/O-wait process absent", [(settings, (name,))]


def renamed(settings, absent):
    process, *thread = absent
    processes = dict(watched_processes(settings))
    threads = processes.pop(process)
    for name in HASH_NAMES:
        if thread:
            entry = {process: sorted({name, *threads} - {*thread})}
        else:
            entry = {name: threads}
        for order in ({**entry, **processes}, {**processes, **entry}):
            yield {**settings, "process_list": order}, (process, name) if thread else (name,)


def play_hang(world, jobs):
    """The answers to each of `jobs`: hang, settings, what is absent, and the parent."""
    end = begin_of(world.interval) + 4 * (world.timeout + 2 * world.interval) + 30
    plays, tasks = [], []
    for hang, settings, absent, parent in jobs:
        is_missing = hang.how == "missing"
        missing = {(hang.process, hang.thread)} if is_missing else set()
        device = Device(settings, missing | {absent}, parent)
        plays.append((settings, list(steps_of(hang, device, end))))
        tasks.append(None if is_missing else stuck_task(hang, device))
    return [answer_of(job[0], events, task, world.interval)
            for job, task, events in zip(jobs, tasks, world.play(plays))]


def union(answers):
    """One answer, where all have the same stages; else all of them."""
    if len({tuple(map(bool, answer)) for answer in answers}) > 1:
        return set(answers)
    return {tuple((min(low for low, _ in windows), max(high for _, high in windows))
                  if all(windows) else None for windows in zip(*answers))}


def hangs(world):
    """A row for each answer: a Hang, the circumstances in words, the answer."""
    jobs, keys, told = [], [], set()
    for hang in kinds(world.settings):
        for when, variants in circumstances(hang, world.settings):
            if when and (hang.what, hang.how) in told:
                break
            for number, (settings, absent) in enumerate(variants):
                for parent in (ZYGOTE,) if hang.thread == "watchdog" else (ZYGOTE, 1):
                    jobs.append((hang, settings, absent, parent))
                    keys.append((hang, when, number))
        told.add((hang.what, hang.how))
    by_variant = {}
    for key, answer in zip(keys, play_hang(world, jobs)):
        by_variant.setdefault(key, []).append(answer)
    answers = {}
    for (hang, when, _), of_variant in by_variant.items():
        answers.setdefault(hang, {}).setdefault(when, set()).update(union(of_variant))
    for hang, by_circumstance in answers.items():
        yield from rows_of(hang, by_circumstance)


def rows_of(hang, by_circumstance):
    usual = by_circumstance.pop("")
    for answer in usual:
        yield hang, "", answer
    others = {}
    for when, answers in by_circumstance.items():
        for answer in answers - usual:
            order = " (by hash order)" if len(answers) > 1 else ""
            others.setdefault(answer, []).append(when + order)
    for answer, circumstances_of_it in others.items():
        yield hang, "; ".join(circumstances_of_it), answer
