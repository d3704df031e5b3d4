"""When a task that gets stuck is dumped and acted on, by playing it."""
import re
from typing import NamedTuple

from .device import ZYGOTE, Device, Task, main_thread

NAMED = re.compile(r"I thread: (?P<name>.*) tid=(?P<tid>\d+), .*state=(?P<state>.)"
                   r"|I (?P<binder>\S+) (?P<its_tid>\d+) state=(?P<its_state>.) wchan=")
DUMP, ACT = re.compile(r"kill \S+ (3|35)$"), re.compile(r"kill \S+ 9$|kmsg |I nothing to do")
CALM_SCANS = 3
WHOLE = "process as a whole"
ABSENT_NAMES = ("Absent", "zabsent")


class Response(NamedTuple):
    seconds: float
    is_act: bool  # or a dump
    name: str
    tid: str
    state: str


class Hang(NamedTuple):
    what: str
    how: str
    process: str = ""  # none: a binder thread
    thread: str = ""  # none: the main one
    state: str = "D"  # or what else a step takes
    others: str = ""  # a thread beside the main one: "asleep" or "at work"
    is_new: bool = False  # it comes when it gets stuck


def responses(events):
    """The dumps and acts of a play, with whom they are for."""
    task = None
    for seconds, text in events:
        if named := NAMED.match(text):
            task = (named["name"] or named["binder"], named["tid"] or named["its_tid"],
                    named["state"] or named["its_state"])
        elif task and (DUMP.match(text) or ACT.match(text)):
            yield Response(seconds, bool(ACT.match(text)), *task)


def others_of(name, processes):
    """The listed threads of a process beside its main one."""
    threads = processes[name]
    return [thread for thread in threads if thread != main_thread(name, threads)]


def kinds(world):
    """The hangs to be played, one of each kind."""
    processes, binder = world.processes, world.settings["binder_monitor"]
    names = sorted(processes, key=lambda name: -len(others_of(name, processes)))
    for name in [name for name in names if not processes[name]][:1]:
        for others in ("", "asleep", "at work"):
            beside = f"others {others}" if others else "no others"
            yield Hang(WHOLE, f"main thread in D, {beside}", name, others=others)
        yield Hang(WHOLE, "zombie", name, state="Z")
        yield Hang(WHOLE, "zombie, others asleep", name, state="Z", others="asleep")
    for name in [name for name in names if processes[name]][:1]:
        yield Hang("process with threads", "main thread a zombie", name, state="Z")
        yield Hang("thread", "in D", name, processes[name][0])
        for thread in others_of(name, processes)[:1]:
            yield Hang("thread", "missing", name, thread)
    for name in [name for name in names if "watchdog" in processes[name]][:1]:
        yield Hang('thread "watchdog"', "asleep", name, "watchdog", "S")
    if binder and binder["enable"] and (binder["monitor_uids"] or world.settings["use_shell"]):
        states = [("in D", "D"), *[("in a wait channel", f"S wchan={wchan}")
                                   for wchan in binder["wchans"][:1]]]
        for how, state in states:
            yield Hang("known binder thread", how, state=state)
            yield Hang("new binder thread", how, state=state, is_new=True)


def begin_of(world):
    """All is well until the last full second before the fourth scan."""
    return int((CALM_SCANS + 1) * world.interval)


def play_of(world, hang, processes, absent, parent):
    """The steps, and the stuck thread's id; a missing one has none."""
    is_missing = hang.how == "missing"
    missing = {(hang.process, hang.thread)} if is_missing else set()
    device = Device(world, processes, {absent} | missing, parent)
    end = begin_of(world) + 2 * (world.timeout + 2 * world.interval) + 30
    moment = f"@{begin_of(world)} "
    steps = [f"until {int(end)}", f"{ZYGOTE} comm=zygote state=S"]
    for (process, thread), task in device.tasks.items():
        # A "watchdog" at work is never judged. Threads are missed from their process's start on.
        step = task.comes("state=R" if thread == "watchdog" else "state=S")
        steps.append(moment + step if is_missing and process == hang.process else step)
    if is_missing:
        return steps, ""
    task = device.binder_thread
    if hang.process:
        main = main_thread(hang.process, processes[hang.process])
        task = device.tasks[hang.process, hang.thread or main]
    elif not hang.is_new:
        steps.append(task.comes())
    state = f"state={hang.state}"
    steps.append(moment + (task.comes(state) if hang.is_new else task.moves(state)))
    if hang.state == "Z":
        steps.append(f"{moment}{task.ids} cmdline:")
    if hang.others:
        other = Task(f"{task.ids}/{int(task.ids) + 99}", "other")
        steps.append(other.comes())
        work = range(1, int(end / world.interval) + 2) if hang.others == "at work" else ()
        steps += [f"@{int(scan * world.interval)} {other.moves(f'utime={scan}')}" for scan in work]
    return steps, task.ids.rpartition("/")[2]


def answer_of(world, hang, tid, events):
    """Seconds of the dump, the first act and from one act to the next, each (earliest, latest): it
    got stuck right before the scan that finds it so, or right after the one before. Never: ()."""
    turns = [seconds for seconds, text in events if text.startswith("alarm")]
    scan = next(seconds for seconds in turns if seconds >= begin_of(world))
    scan_before = max(seconds for seconds in turns if seconds < scan)
    ours = [response for response in responses(events)
            if response.tid == tid or not tid and response.name == hang.thread]
    dumps = [response.seconds for response in ours if not response.is_act]
    acts = [response.seconds for response in ours if response.is_act]
    waits = [after - before for before, after in zip(acts, acts[1:])]
    windows = [(times[0] - scan, times[0] - scan_before) if times else ()
               for times in (dumps, acts)] + [(min(waits), max(waits)) if waits else ()]
    return tuple(tuple(round(seconds, 3) for seconds in window) for window in windows)


def answers_of(world, hang, variants):
    """Each variant is played with a child of the zygote, whose dump takes longer, and of init."""
    parents = (ZYGOTE,) if hang.thread == "watchdog" else (ZYGOTE, 1)
    plays = [play_of(world, hang, *variant, parent) for variant in variants for parent in parents]
    processes = [variant[0] for variant in variants for _ in parents]
    played = world.play(list(zip(processes, [steps for steps, _ in plays])))
    answers = [answer_of(world, hang, tid, events) for (_, tid), events in zip(plays, played)]
    return {union(answers[first:first + len(parents)])
            for first in range(0, len(answers), len(parents))}


def union(answers):
    """Of windows; never only where all say so."""
    told = [[window for window in windows if window] for windows in zip(*answers)]
    return tuple((min(low for low, _ in windows), max(high for _, high in windows))
                 if windows else () for windows in told)


def circumstances(world, hang):
    """What else may be absent: words, and variants of threads by process and what is absent."""
    processes = world.processes
    threads = [(name, thread) for name in processes for thread in others_of(name, processes)]
    yield from [(words, list(variants_without(processes, absent[0]))) for words, absent in [
        ("another process absent", [(name,) for name in processes if name != hang.process]),
        ("a thread of another absent", [key for key in threads if key[0] != hang.process]),
        ("another of its threads absent", [(name, thread) for name, thread in threads
                                           if name == hang.process and thread != hang.thread])
    ] if absent]
    iowait = world.settings["black_white_list"] or {"list": []}
    for name in [name for name in iowait["list"] if name not in processes][:1]:
        yield "an I/O-wait process absent", [(processes, (name,))]


def variants_without(processes, absent):
    """What is absent bears names and stands at places in the file that bring it to the front and to
    the end of the daemon's hash tables, whose order is another one on the device."""
    process, *thread = absent
    others = {name: names for name, names in processes.items() if name != process}
    for name in ABSENT_NAMES:
        if thread:
            entry = {process: [name if known in thread else known for known in processes[process]]}
        else:
            entry = {name: processes[process]}
        for order in ({**entry, **others}, {**others, **entry}):
            yield order, (process, name) if thread else (name,)


def rows_of(world, hang):
    """A row for each answer: the hang, the circumstances in words, the answer."""
    usual = answers_of(world, hang, [(world.processes, ())])
    unusual = {}
    for words, variants in circumstances(world, hang):
        answers = answers_of(world, hang, variants)
        order = " (by hash order)" if len(answers) > 1 else ""
        for answer in answers - usual:
            unusual.setdefault(answer, []).append(words + order)
    return [*[(hang, "", answer) for answer in usual],
            *[(hang, "; ".join(words), answer) for answer, words in unusual.items()]]
