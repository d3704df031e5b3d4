"""Warnings: valid settings that will surprise, each with the change that ends it."""
import collections
import itertools
import re

from .daemon import MAX_SAMPLES, World
from .device import BINDER, ZYGOTE, Device, main_thread
from .hangs import WHOLE, begin_of, others_of, responses, variants_without
from .reading import PREFIX

LIST, SHELL, SCAN = "Config.monitor_process.list", "Config.switches.use_shell", "Config.scan"
LONG = 10  # time-outs of a healthy life
MAX_ABSENT = 8  # tasks in turn
BINDER_POOL = 16  # threads that a process has for binder calls, as a rule


def false_alarms(world):
    """Task, seconds and text for the first dump or act of each task on a device where nothing
    hangs: as it is, and with each process, and threads of each, absent in turn."""
    seconds, processes = int(LONG * world.timeout), world.processes
    absent = [(name,) for name in processes] + [
        (name, thread) for name in processes for thread in others_of(name, processes)[:2]]
    variants = [(processes, ())]
    for one in absent[:MAX_ABSENT]:
        variants += variants_without(processes, one)
    plays = [(listed, [f"until {seconds}", f"{ZYGOTE} comm=zygote state=S",
                       *Device(world, listed, {one}).healthy_life(seconds)])
             for listed, one in variants]
    found = {}
    for (_, one), events in zip(variants, world.play(plays)):
        for response in responses(events):
            if response.name not in one:
                found.setdefault((response.name, response.state), (response, one))
    for response, one in found.values():
        is_asleep = response.name == "watchdog" and response.state == "S"
        cause = "sleeps for 30 s" if is_asleep else "is blocked at one scan"
        act = "acted on" if response.is_act else "dumped"
        where = " beside an absent one" if one else ""
        yield {"task": response.name, "seconds": response.seconds,
               "text": f"{response.name} is well, but {cause}, and is {act} at "
                       f"{response.seconds:g} s{where}"}


def overruns(world):
    """A scan that outlasts the self-watchdog, as a thread of each process and a pool of binder
    threads hang at once."""
    device, moment = Device(world, world.processes, ()), f"@{begin_of(world)} "
    steps = [f"{ZYGOTE} comm=zygote state=S", *[task.comes() for task in device.tasks.values()]]
    hung = {process: task for (process, _), task in device.tasks.items()
            if process in world.processes}
    steps += [moment + task.moves("state=D") for task in hung.values()]
    pool = range(BINDER + 1, BINDER + 1 + BINDER_POOL) if device.binder_thread else ()
    steps += [f"{moment}{BINDER}/{tid} comm=Binder:{BINDER}_{tid} state=D" for tid in pool]
    count = len(hung) + len(pool)
    until = f"until {int(begin_of(world) + world.timeout) + 10 * count}"
    events, = world.play([(world.processes, [until, *steps])])
    turns = [(seconds, text) for seconds, text in events if text.startswith("alarm")]
    longest = max(after - before for (before, _), (after, _) in zip(turns, turns[1:]))
    allowed = int(turns[0][1].split()[1])
    if longest >= allowed:
        yield (f"{count} tasks hung at once hold up a scan for {longest:g} s, and the "
               f"self-watchdog ends the daemon after {allowed}")


def pace_surprises(world):
    """False alarms and warnings, with a pace that ends them all."""
    alarms, texts = list(false_alarms(world)), list(overruns(world))
    wrong = [false_alarms] * bool(alarms) + [overruns] * bool(texts)
    change = mend(world, wrong) if wrong else ""
    for alarm in alarms:
        alarm.update(key=SCAN, text=f"{alarm['text']}; {change or 'watch it no longer'}")
    return alarms, [(SCAN, f"{text}; {change}") for text in texts if change]


def mend(world, wrong):
    """The first other pace with which nothing of that is wrong, in words."""
    rounds = (world.settings["round"], 4, 6, 8, 12)
    for factor in (1, 2, 3, 4, 6, 8):
        for count in rounds:
            pace = {"timeout_second": min(3600, int(factor * world.timeout)), "round": count}
            changed = world.changed("scan", **pace)
            if not any(any(find(changed)) for find in wrong):
                return "set " + " and ".join(f'"{key}" to {value}' for key, value in pace.items())
    return ""


def hang_warnings(world, rows):
    """Of hangs that are never acted on, or of processes as a whole in half the time."""
    never = [hang for hang, _, (_, act, _) in rows if not act]
    early = [hang for hang, when, (dump, *_) in rows
             if dump and dump[1] < world.timeout / 2 and not when]
    whole = [hang.process for hang in never + early if hang.what == WHOLE]
    if world.settings["use_shell"] and never:
        words = "; ".join(dict.fromkeys(f"{hang.what}, {hang.how}" for hang in never))
        yield SHELL, f"never found: {words}; switch it off"
    elif whole:
        yield LIST, (f"{whole[0]}: as a whole it is sampled twice, or by the time of all threads, "
                     "in a scan that walks, and so found never or in half the time; name its main "
                     'thread in "thread"')


def property_warnings(world):
    lines = world.properties.decode("utf-8", "backslashreplace").split("\n")
    values = dict(line.partition("=")[::2] for line in lines if line.startswith(PREFIX))
    for name, value in values.items():
        unset = world.properties + f"\n{name}=\n".encode()
        if value and World(world.daemon, world.document, unset).effect == world.effect:
            yield name, f"{value!r} changes nothing, or is no value of it; remove it"


def setting_warnings(world):
    """Whether to warn, key and text."""
    settings, policy = world.settings, world.settings["policy"]
    binder = settings["binder_monitor"] or {"enable": False, "timeout": 0}
    watches = settings["process_enable"] or binder["enable"]
    detects = watches or settings["bw_enable"]
    return [
        (not detects, "Config",
         'no detector is on, so the daemon idles; enable "monitor_process"'),
        (detects and world.idle and not settings["hw_list"], "Config.switches.main",
         "off, so the daemon idles; switch it on"),
        (watches and not settings["debug"] and not world.idle and policy in ("nothing", "kill"),
         "Config.policy", f'{policy}, with debug off: no line names who hung; switch "debug" on'),
        (binder["enable"] and not binder["monitor_uids"], "Config.monitor_binder.monitor_uids",
         "empty: nobody is watched, in shell mode everyone; fill it"),
        (binder["enable"] and binder["timeout"] < settings["timeout"], PREFIX + "timeout",
         f'"monitor_binder" keeps {binder["timeout"] // 1000} s; raise "timeout_second" instead'),
        (not world.idle and not world.is_small, SCAN, f"not played: over {MAX_SAMPLES} samples "
         'in a time-out; watch less, or lower "round"')]


def name_warnings(world):
    """The names to warn of, key and text."""
    watched, is_shell = world.processes, world.settings["use_shell"] and world.is_small
    entries = world.document["Config"]["monitor_process"].get("list", [])
    counts = collections.Counter(entry["process"] for entry in entries)
    threads = itertools.chain(*watched.values())
    binder = world.settings["binder_monitor"] or {"uid_map": {}, "monitor_uids": []}
    groups = [watched, binder["uid_map"],
              *[{main_thread(name, names), *names} for name, names in watched.items()]]
    contained = [f"{name} in {other}" for group in groups if is_shell
                 for name in group for other in group if name in other and name != other]
    nameless = set(binder["monitor_uids"]) - set(binder["uid_map"].values())
    return [
        ([name for name in watched if counts[name] > 1], LIST,
         "listed twice, the second entry is dropped; merge them"),
        ([name for name in threads if re.match(r"[Bb]inder:\d", name)], LIST,
         'holds a process id, which changes; use "monitor_binder"'),
        (contained, SHELL, "grep finds both; rename or drop one"),
        (map(str, sorted(nameless) * is_shell), "Config.monitor_binder.uid_map",
         "no name: not watched, or everyone is, if no other has a name; add it")]


def warnings(world, rows):
    """Key and text of each but those of the pace."""
    yield from [(key, text) for warns, key, text in setting_warnings(world) if warns]
    for names, key, text in name_warnings(world):
        if words := ", ".join(names):
            yield key, f"{words}: {text}"
    yield from property_warnings(world)
    yield from hang_warnings(world, rows)
