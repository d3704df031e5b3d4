"""Warnings: valid settings that will surprise, each with the change that ends it."""
import re

from .alarms import false_alarms, mend_of, slower
from .device import ZYGOTE, Device, main_thread, watched_processes
from .hangs import begin_of, kinds, play_hang
from .reading import PREFIX

LIST, SHELL = "Config.monitor_process.list", "Config.switches.use_shell"
BINDER_POOL = 16  # threads that a process has for binder calls, as a rule
PROPERTIES = {  # what has an effect
    "enable": "only true or 1 has an effect, where the daemon is off",
    "debug": "only true or 1 has an effect, where debug is off",
    "binder": 'only true or 1 has an effect, with "monitor_uids" or "wchans" in the file',
    "timeout": "only a number of seconds above the file's has an effect",
    "policy": 'only another one of "panic", "reboot" and "kill" has an effect',
    "processes": 'only names that are new have an effect, with "monitor_process" on'}


def property_warnings(world):
    lines = world.properties.decode("utf-8", "backslashreplace").split("\n")
    pairs = dict(line.partition("=")[::2] for line in lines if line.startswith(PREFIX))
    for name, value in pairs.items():
        unset = world.properties + f"\n{name}=\n".encode()
        without = world.daemon.read(world.document, unset)
        if value and (without["settings"], without["idle"]) == (world.settings, world.idle):
            rule = PROPERTIES.get(name.removeprefix(PREFIX), "there is no such property")
            yield name, f"{value!r} changes nothing: {rule}; remove it"


def setting_warnings(world):
    """Whether to warn, key and text."""
    settings, policy = world.settings, world.settings["policy"]
    binder = settings["binder_monitor"] or {"enable": False}
    watches = settings["process_enable"] or binder["enable"]
    detects = watches or settings["bw_enable"]
    is_silent = watches and not settings["debug"] and not world.idle
    boards = settings["hw_list"]
    return [
        (not detects, "Config",
         'no detector is on, so the daemon idles; enable "monitor_process"'),
        (detects and world.idle and not boards, "Config.switches.main",
         "off, so the daemon idles; switch it on"),
        (is_silent and policy == "nothing", "Config.policy",
         'nothing, with debug off: no line names who hung; switch "debug" on'),
        (is_silent and policy == "kill", "Config.policy",
         'kill, with debug off: no line names who was killed; switch "debug" on'),
        (binder["enable"] and not binder["monitor_uids"], "Config.monitor_binder.monitor_uids",
         "empty: nobody is watched, in shell mode everyone; fill it"),
        (binder["enable"] and binder["timeout"] < settings["timeout"], PREFIX + "timeout",
         f'"monitor_binder" keeps {binder.get("timeout", 0) // 1000} s, with longer intervals; '
         'raise "timeout_second" instead')]


def name_warnings(world):
    """The names to warn of, key and text."""
    settings, watched = world.settings, watched_processes(world.settings)
    listed = [entry["process"] for entry in world.document["Config"]["monitor_process"].get("list", [])]
    threads = [name for names in watched.values() for name in names]
    binder = settings["binder_monitor"] or {"enable": False, "uid_map": {}, "monitor_uids": []}
    users = list(binder["uid_map"])
    groups = [list(watched), users if binder["enable"] else [],
              *[{main_thread(name, names), *names} for name, names in watched.items()]]
    contained = [f"{name} in {other}" for group in groups for name in group for other in group
                 if name != other and name in other]
    nameless = [str(uid) for uid in binder["monitor_uids"] if uid not in binder["uid_map"].values()]
    is_shell = settings["use_shell"]
    return [
        ([name for name in watched if listed.count(name) > 1], LIST,
         "listed twice, the second entry is dropped; merge them"),
        ([name for name in threads if re.match(r"[Bb]inder:\d", name)], LIST,
         'the name has a process id, which changes; use "monitor_binder"'),
        (contained * is_shell, SHELL, "grep finds both; rename or drop one"),
        (nameless * (is_shell and binder["enable"]), "Config.monitor_binder.uid_map",
         "no name: not watched, or everyone is, if no other has a name; add it")]


def hang_warnings(world, rows):
    """Of hangs that are found never, early, or late."""
    half = world.timeout / 2
    never = [(hang, when) for hang, when, answer in rows if not answer[1]]
    early = [(hang, when) for hang, when, (dump, *_) in rows if dump and dump[1] < half and not when]
    whole = [(hang, when) for hang, when in never + early if hang.what == "process as a whole"]
    if world.settings["use_shell"]:
        for what in {f"{hang.what} {hang.how}": None for hang, _ in never}:
            yield SHELL, f"{what}: never found; switch it off"
    elif whole:
        name = whole[0][0].process
        when = next((f" ({when})" for _, when in whole if when), "")
        yield LIST, (f"{name}: as a whole it is sampled twice a scan{when}, so found never or in "
                     'half the time; name its main thread in "thread"')
    yield from late_warnings(world, rows)


def first_dump(world):
    """Of a task in D, at the earliest after it got stuck; and half the time-out."""
    for hang in kinds(world.settings):
        timeout = world.timeout
        if not hang.process:
            timeout = world.settings["binder_monitor"]["timeout"] / 1000
        if hang.state == "state=D" and not hang.others:
            dump = play_hang(world, [(hang, world.settings, (), 1)])[0][0]
            return (dump or (0, 0))[0], timeout / 2
    return 0, 0


def late_warnings(world, rows):
    dump, half = first_dump(world)
    if dump <= half:
        return
    scan = world.document["Config"]["scan"]
    shortest = scan["interval_min_second"]
    rounds = sorted(range(2, 26, 2), key=lambda count: abs(count - world.settings["round"]))
    paces = [{"round": count} for count in rounds]
    paces += [{**pace, "interval_min_second": 1} for pace in paces if shortest > 1]
    change = mend_of(world, paces, lambda other: first_dump(other)[0] <= half)
    if change:
        yield "Config.scan", (f"dumps come {dump - half:g} s late, as scans do not meet half the "
                              f"time-out; set {change}")


def overrun_warnings(world):
    """When more tasks hang at once than the self-watchdog allows."""
    tasks, longest, allowed = longest_turn(world)
    if not tasks or longest < allowed:
        return

    def is_short(other):
        _, its_longest, its_allowed = longest_turn(other)
        return its_longest < its_allowed

    change = mend_of(world, slower(world.settings), is_short)
    if change:
        yield "Config.scan.timeout_second", (
            f"{tasks} tasks hung at once hold up a scan for {longest:g} s, and the self-watchdog "
            f"ends the daemon after {allowed:g}; set {change}")


def longest_turn(world):
    """Of the scan loop, while a thread of each process and a pool of binder threads are hung: how
    many, how long, and how long the self-watchdog allows (s)."""
    device = Device(world.settings)
    moment = f"@{begin_of(world.interval)} "
    first = {}
    for (process, _), task in device.tasks.items():
        if process in watched_processes(world.settings):
            first.setdefault(process, task)
    steps = [f"{ZYGOTE} comm=zygote state=S", *device.at_rest().values()]
    steps += [moment + task.moves("state=D") for task in first.values()]
    tasks = len(first)
    if device.binder_thread:
        tasks += BINDER_POOL
        steps += [f"{moment}900/{910 + n} comm=Binder:900_{n} state=D" for n in range(BINDER_POOL)]
    end = begin_of(world.interval) + world.timeout
    events = world.play([(world.settings, [f"until {int(end)}", *steps])])[0]
    alarms = [(seconds, text) for seconds, text in events if text.startswith("alarm")]
    turns = [after - before for (before, _), (after, _) in zip(alarms, alarms[1:])]
    return tasks, max(turns, default=0), int(alarms[0][1].split()[1])


def false_alarm_rows(world):
    """"task", "seconds", "key" and "text" of each."""
    alarms = false_alarms(world)
    change = alarms and mend_of(world, slower(world.settings), lambda other: not false_alarms(other))
    for alarm in alarms:
        act = "acted on" if alarm.is_act else "dumped"
        absent = f" while {alarm.absent} does not run" if alarm.absent else ""
        mend = f"set {change}" if change else 'drop it from "thread"'
        yield {"task": alarm.task, "seconds": alarm.seconds, "key": "Config.scan",
               "text": f"{alarm.task} is well, but {alarm.cause}, and is {act} at "
                       f"{alarm.seconds:g} s{absent}; {mend}"}


def warnings(world, rows):
    """Key and text of each."""
    told = [(key, text) for warns, key, text in setting_warnings(world) if warns]
    told += [(key, f"{', '.join(names)}: {text}") for names, key, text in name_warnings(world) if names]
    told += property_warnings(world)
    if rows:
        told += [*hang_warnings(world, rows), *overrun_warnings(world)]
    return told
