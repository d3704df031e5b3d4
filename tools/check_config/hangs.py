"""When a task that gets stuck is dumped and acted on, by playing it."""
from typing import NamedTuple

from .device import (ABSENT, BINDER_THREAD, INIT, ZYGOTE, absentees, main_thread, others_of,
                     tasks_of, worlds_without)

CALM_SCANS = 3
WHOLE = "process as a whole"


class Hang(NamedTuple):
    what: str
    how: str
    process: str
    thread: str
    state: str  # and what else changes; none: it is missing
    others: str = ""  # a thread beside the main one: "asleep" or "at work"
    is_new: bool = False  # its process comes only then


def kinds(world):
    """One of each kind: of the process with the most threads, where several have it."""
    processes, wchans = world.processes, world.binder["wchans"]
    names = sorted(processes, key=lambda name: -len(others_of(name, processes[name])))
    whole = [name for name in names if not processes[name]]
    threaded = [name for name in names if processes[name]]
    dogs = [name for name in names if "watchdog" in processes[name]]
    for name in whole[:1]:
        main = main_thread(name, [])
        yield Hang(WHOLE, "main thread in D, no others", name, main, "D")
        yield Hang(WHOLE, "main thread in D, others asleep", name, main, "D", "asleep")
        yield Hang(WHOLE, "main thread in D, others at work", name, main, "D", "at work")
        yield Hang(WHOLE, "zombie", name, main, "Z")
        yield Hang(WHOLE, "zombie, others asleep", name, main, "Z", "asleep")
    for name in threaded[:1]:
        threads = processes[name]
        main = main_thread(name, threads)
        yield Hang("process with threads", "main thread a zombie", name, main, "Z")
        yield Hang("thread", "in D", name, threads[0], "D")
        for thread in others_of(name, threads)[:1]:
            yield Hang("thread", "missing", name, thread, "", is_new=True)
    for name in dogs[:1]:
        yield Hang('thread "watchdog"', "asleep", name, "watchdog", "S")
    if world.binder["enable"]:
        states = {"in D": "D"}
        if wchans:
            states["in a wait channel"] = f"S wchan={wchans[0]}"
        for how, state in states.items():
            yield Hang("known binder thread", how, *BINDER_THREAD, state)
            yield Hang("new binder thread", how, *BINDER_THREAD, state, is_new=True)


def begin_of(world):
    """All is well until the last full second before the fourth scan."""
    return int((CALM_SCANS + 1) * world.interval)


def script_of(world, hang, parent):
    """Its play, and the id of the stuck thread, or the name of the missing one."""
    end = int(begin_of(world) + 2 * (world.timeout + 2 * world.interval) + 30)
    tasks, moment = tasks_of(world, parent), f"@{begin_of(world)}"
    stuck, _ = tasks[hang.process, hang.thread]
    if not hang.state:
        del tasks[hang.process, hang.thread]
    steps = []
    for (process, thread), (ids, keys) in tasks.items():
        comes = moment if hang.is_new and process == hang.process else ""
        at_work = "state=R" if thread == "watchdog" else ""  # and so never judged
        steps.append(f"{comes} {ids} {keys} {at_work}")
    if hang.others:
        steps.append(f"{stuck}/99 comm=other state=S")
    if hang.others == "at work":
        steps += [f"@{second} {stuck}/99 utime={second}" for second in range(end)]
    if hang.state:
        steps.append(f"{moment} {stuck} state={hang.state} runs=6")
    if hang.state == "Z":
        steps.append(f"{moment} {stuck} cmdline:")
    return world.script(steps, end), stuck.rpartition("/")[2] if hang.state else hang.thread


def window(times):
    """The earliest and the latest; none: never."""
    return (round(min(times), 3), round(max(times), 3)) if times else ()


def answer_of(world, hang):
    """Seconds of the dump, the first act and from one act to the next, each (earliest, latest): it
    got stuck right before the scan that finds it so, or right after the one before; it is a child
    of the zygote, whose dump takes longer, or of init."""
    dump, act, again = [], [], []
    scripts = [script_of(world, hang, parent) for parent in (ZYGOTE, INIT)]
    who = scripts[0][1]
    for turns, responses in world.play(*[script for script, _ in scripts]):
        scan = min(second for second in turns if second >= begin_of(world))
        scan_before = max(second for second in turns if second < scan)
        ours = [response for response in responses if who in (response.tid, response.name)]
        dumps = [response.seconds for response in ours if not response.is_act]
        acts = [response.seconds for response in ours if response.is_act]
        dump += [second - begin for second in dumps[:1] for begin in (scan, scan_before)]
        act += [second - begin for second in acts[:1] for begin in (scan, scan_before)]
        again += [after - before for before, after in zip(acts, acts[1:])]
    return window(dump), window(act), window(again)


def circumstances(world, hang):
    """What else may be absent, in words, and the worlds in which it is."""
    worlds = {"": [world]}
    for process, thread in absentees(world.processes):
        if process != hang.process:
            words = "a thread of another absent" if thread else "another process absent"
        elif thread not in ("", hang.thread):
            words = "another of its threads absent"
        else:
            continue
        if words not in worlds:
            worlds[words] = worlds_without(world, process, thread)
    if not set(world.iowait) <= set(world.processes):
        absent = {"list": list(ABSENT)}
        worlds["an I/O-wait process absent"] = [world.changed(black_white_list=absent)]
    return worlds


def rows_of(world, hang):
    """One for each answer, and when it holds."""
    answers = {}
    for when, worlds in circumstances(world, hang).items():
        found = dict.fromkeys(answer_of(one, hang) for one in worlds)
        order = " (by hash order)" if len(found) > 1 else ""
        for answer in found:
            answers.setdefault(answer, []).append(when + order)
    for (dump, act, again), whens in answers.items():
        yield {"what": hang.what, "how": hang.how, "when": "; ".join(whens) if whens[0] else "",
               "dump": dump or None, "act": act or None, "again": again or None}
