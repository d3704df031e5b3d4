"""Warnings: valid settings that will surprise, each with the change that ends it."""
import itertools
import re

from .device import ABSENT, BINDER, absentees, main_thread, tasks_of, worlds_without
from .hangs import WHOLE, begin_of
from .reading import PREFIX

LIST, SHELL, SCAN = "Config.monitor_process.list", "Config.switches.use_shell", "Config.scan"
LONG = 10  # time-outs of a healthy life
MAX_ABSENT = 8  # tasks in turn
# With less a missing thread is dumped or acted on in every scan, and hides others of its process.
MIN_ROUND = 3
BINDER_POOL = 16  # threads that a process has for binder calls, as a rule
WATCHDOG_SLEEP = 30  # s, and then it has a second's work


def healthy_life(world, seconds):
    """Steps of a time in which nothing hangs. A "watchdog" runs regularly. All others pass through
    D, and through a wait channel, for one scan each; a binder thread comes and goes."""
    tasks = tasks_of(world)
    yield from (f"{ids} {keys}" for ids, keys in tasks.values())
    dogs = [ids for (_, thread), (ids, _) in tasks.items() if thread == "watchdog"]
    others = [ids for ids, _ in tasks.values() if ids not in dogs]
    for second in range(WATCHDOG_SLEEP, seconds, WATCHDOG_SLEEP + 1):
        yield from (f"@{second} {ids} runs={second}" for ids in dogs)
    wchan = [*world.binder["wchans"], "0"][0]
    changes = ["state=D", "state=S", f"wchan={wchan}", "wchan=0", ""]
    for scan in range(1, int(seconds / world.interval) + 2):
        at = f"@{int(scan * world.interval)}"
        for number, ids in enumerate(others):
            yield f"{at} {ids} runs={scan + 9} {changes[(scan - number) % len(changes)]}"
        if scan % 3 == 1:
            yield f"{at} {BINDER}/{BINDER + 2} comm=Binder:2 state=S"
        if scan % 3 == 2:
            yield f"{at} -{BINDER}/{BINDER + 2}"


def false_alarms(world):
    """The first dump of each task on a device where nothing hangs: as it is, and with each process,
    and each thread beside a main one, absent in turn."""
    found, seconds = {}, int(LONG * world.timeout)
    absent = itertools.islice(absentees(world.processes), MAX_ABSENT)
    worlds = [world, *[one for gone in absent for one in worlds_without(world, *gone)]]
    scripts = [one.script(healthy_life(one, seconds), seconds) for one in worlds]
    for one, (_, responses) in zip(worlds, world.play(*scripts)):
        for response in responses:
            if response.name not in ABSENT:
                found.setdefault(response.name, (response.seconds, one))
    for name, (second, one) in found.items():
        cause = "sleeps for 30 s" if name == "watchdog" else "is blocked at one scan"
        where = "" if one is world else " beside an absent one"
        yield {"task": name, "seconds": second, "key": SCAN,
               "text": f"{name} is well, but {cause}, and is dumped at {second:g} s{where}"}


def overruns(world):
    """A scan that outlasts the self-watchdog, as all tasks hang at once."""
    tasks, moment = tasks_of(world).values(), begin_of(world)
    steps = [f"{ids} {keys}" for ids, keys in tasks]
    steps += [f"@{moment} {ids} state=D" for ids, _ in tasks]
    pool = range(BINDER + 1, BINDER + 1 + BINDER_POOL)
    steps += [f"@{moment} {BINDER}/{tid} comm=Binder:{tid} state=D" for tid in pool]
    script = world.script(steps, moment + world.timeout + 10 * len(steps))
    [(turns, _)] = world.play(script)
    longest = max(after - before for before, after in zip(turns, turns[1:]))
    if longest >= 2 * world.timeout:
        yield (f"a scan takes {longest:g} s when all that is watched hangs at once, and the "
               f"self-watchdog ends the daemon after {2 * world.timeout:g}")


def mend(world):
    """The first other pace with which nothing of that is wrong, in words."""
    for factor in (1, 2, 3, 4, 6, 8):
        for count in (max(MIN_ROUND, world.settings["round"]), 4, 6, 8, 12):
            timeout = min(3600, int(factor * world.timeout))
            changed = world.changed(scan={"timeout_second": timeout, "round": count})
            if not any(overruns(changed)) and not any(false_alarms(changed)):
                return f'set "timeout_second" to {timeout} and "round" to {count}'
    return "watch less"


def pace_surprises(world):
    """False alarms and warnings, with a pace that ends them all."""
    alarms, texts = list(false_alarms(world)), list(overruns(world))
    change = mend(world) if alarms or texts else ""
    for alarm in alarms:
        alarm["text"] += f"; {change}"
    return alarms, [(SCAN, f"{text}; {change}") for text in texts]


def without_zygote(world):
    """What becomes of tasks at rest then."""
    tasks = tasks_of(world)
    del tasks["the zygote", ""]
    steps = [f"{ids} {keys}" for ids, keys in tasks.values()]
    [(_, responses)] = world.play(world.script(steps, 5 * world.timeout))
    if not responses:
        return "makes no difference"
    first_act = next(response.seconds for response in responses if response.is_act)
    return (f"tasks at rest count as stuck: the first dump after {responses[0].seconds:g} s, the "
            f"first act after {first_act:g} s")


def warnings(world, hangs):
    """Key and text of each, but for the pace's."""
    settings = world.settings
    watches = settings["process_enable"] or world.binder["enable"]
    if not (watches or settings["bw_enable"]):
        yield "Config", 'no detector is on, so the daemon idles; enable "monitor_process"'
    elif world.idle and not settings["hw_list"]:
        yield "Config.switches.main", "off, so the daemon idles; switch it on"
    elif watches and not settings["debug"] and settings["policy"] in ("nothing", "kill"):
        yield "Config.policy", 'no line names who hung; switch "debug" on'

    entries = world.document["Config"]["monitor_process"].get("list", [])
    for name in world.processes:
        if [entry["process"] for entry in entries].count(name) > 1:
            yield LIST, f"{name}: listed twice, the second entry is dropped; merge them"
    for name in itertools.chain(*world.processes.values()):
        if re.match(r"[Bb]inder:\d", name):
            yield LIST, f'{name}: holds a process id, which changes; use "monitor_binder"'
    if settings["use_shell"]:
        yield from shell_warnings(world)
    yield from hang_warnings(world, hangs)
    yield from property_warnings(world)


def hang_warnings(world, hangs):
    amiss = [hang for hang in hangs if not hang["act"] or
             hang["what"] == WHOLE and hang["act"][1] < world.timeout]
    words = "; ".join(dict.fromkeys(f"{hang['what']}, {hang['how']}" for hang in amiss))
    if world.settings["use_shell"]:
        key, change = SHELL, "switch it off"
    elif any(hang["what"] == WHOLE for hang in amiss):
        key, change = LIST, 'name the main thread in "thread"'
    else:
        key, change = SCAN, f'set "round" to {MIN_ROUND}'
    if amiss:
        yield key, f"not always found, or in half the time: {words}; {change}"


def shell_warnings(world):
    groups = [world.processes, world.binder["uid_map"]]
    for process, threads in world.processes.items():
        groups.append({main_thread(process, threads), *threads})
    for names in groups:
        for name, other in itertools.permutations(sorted(names), 2):
            if name in other:
                yield SHELL, f"{name} in {other}: grep finds both; rename or drop one"
    for uid in set(world.binder["monitor_uids"]) - set(world.binder["uid_map"].values()):
        yield "Config.monitor_binder.uid_map", f"{uid}: no name, so not watched, or all are; add it"


def property_warnings(world):
    lines = world.properties.decode("utf-8", "backslashreplace").split("\n")
    for name, _, value in [line.partition("=") for line in lines if line.startswith(PREFIX)]:
        if value and effect(world.changed(f"{name}=")) == effect(world):
            yield name, f"{value!r} changes nothing, or is no value of it; remove it"


def effect(world):
    return world.idle, {**world.settings, "process_list": world.processes}
