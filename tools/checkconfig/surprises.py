"""Warnings: valid settings that will surprise, each with the change that ends it."""
import re

from .daemon import World
from .device import BINDER, ZYGOTE, Device, main_thread
from .hangs import WHOLE, answers_of, begin_of, kinds, responses, rows_of, variants_without
from .reading import PREFIX

LIST, SHELL = "Config.monitor_process.list", "Config.switches.use_shell"
LONG = 10  # time-outs of a healthy life
MAX_WORK = 1000  # samples in a time-out: more would take minutes to be played
MAX_ABSENT = 8  # processes in turn
BINDER_POOL = 16  # threads that a process has for binder calls, as a rule
PROPERTIES = {  # what has an effect
    "enable": "only true or 1 has an effect, where the daemon is off",
    "debug": "only true or 1 has an effect, where debug is off",
    "binder": 'only true or 1 has an effect, with "monitor_uids" or "wchans" in the file',
    "timeout": "only seconds above the file's have an effect",
    "policy": 'only another one of "panic", "reboot" and "kill" has an effect',
    "processes": 'only new names have an effect, with "monitor_process" on'}


def false_alarms(world):
    """The first dump or act of each task on a device where nothing hangs, as it is and with each
    process absent in turn."""
    seconds = int(LONG * world.timeout)
    variants = [(world.processes, ())]
    for name in list(world.processes)[:MAX_ABSENT]:
        variants += variants_without(world.processes, (name,))
    plays = [(processes, [f"until {seconds}", f"{ZYGOTE} comm=zygote state=S",
                          *Device(world, processes, {absent}).healthy_life(seconds)])
             for processes, absent in variants]
    found = {}
    for (_, absent), events in zip(variants, world.play(plays)):
        for response in responses(events):
            found.setdefault((response.name, response.state), (response, bool(absent)))
    return list(found.values())


def false_alarm_rows(world):
    """"task", "seconds", "key" and "text" of each."""
    alarms = false_alarms(world)
    change = alarms and mend(world, false_alarms)
    for alarm, is_absent in alarms:
        cause = "sleeps for 30 s" if alarm.state == "S" else "is blocked at one scan"
        act = "acted on" if alarm.is_act else "dumped"
        where = " while another process does not run" if is_absent else ""
        yield {"task": alarm.name, "seconds": alarm.seconds, "key": "Config.scan",
               "text": f"{alarm.name} is well, but {cause} and is {act} at {alarm.seconds:g} s"
                       f"{where}; {change or 'remove it from what is watched'}"}


def late_text(world):
    """Whether the dump of a task in D comes after half the time-out."""
    half = world.timeout / 2
    for hang in kinds(world):
        if hang.state != "D" or hang.others or not hang.process or hang.how == "missing":
            continue
        dumps = [dump[0] for dump, *_ in answers_of(world, hang, [(world.processes, ())]) if dump]
        return f"dumps come {dumps[0] - half:g} s late" if dumps and dumps[0] > half else ""
    return ""


def overrun_text(world):
    """Whether the self-watchdog ends the daemon while a thread of each process, and a pool of
    binder threads, hang at once."""
    device, moment = Device(world, world.processes, ()), f"@{begin_of(world)} "
    hung = {process: task for (process, _), task in device.tasks.items()
            if process in world.processes}
    pool = range(BINDER_POOL if device.binder_thread else 0)
    steps = [f"{ZYGOTE} comm=zygote state=S", *[task.comes() for task in device.tasks.values()],
             *[moment + task.moves("state=D") for task in hung.values()]]
    for number in pool:
        thread = device.binder_thread
        thread.ids = f"{BINDER}/{BINDER + 1 + number}"
        steps.append(moment + thread.comes("state=D"))
    until = f"until {int(begin_of(world) + world.timeout) + 10 * (len(hung) + len(pool))}"
    turns = [(seconds, text) for seconds, text in world.play([(world.processes, [until, *steps])])[0]
             if text.startswith("alarm")]
    allowed = int(turns[0][1].split()[1])
    longest = max(after - before for (before, _), (after, _) in zip(turns, turns[1:]))
    if longest < allowed:
        return ""
    return (f"{len(hung) + len(pool)} tasks hung at once hold up a scan for {longest:g} s, and the "
            f"self-watchdog ends the daemon after {allowed}")


def mend(world, is_wrong):
    """The first other pace with which it is not, in words."""
    rounds = sorted(range(2, 26, 2), key=lambda count: abs(count - world.settings["round"]))[:5]
    paces = [{"round": count} for count in rounds]
    paces += [{"round": count, "interval_min_second": 1} for count in rounds]
    for factor in (2, 3, 4, 6, 8):
        timeout = {"timeout_second": min(3600, int(factor * world.timeout))}
        paces += [timeout, *[{**timeout, "round": count} for count in rounds]]
    for pace in paces:
        if not is_wrong(world.changed("scan", **pace)):
            return "set " + " and ".join(f'"{key}" to {value}' for key, value in pace.items())
    return ""


def pace_warnings(world):
    for text_of in (late_text, overrun_text):
        text = text_of(world)
        change = mend(world, text_of) if text else ""
        if change:
            yield "Config.scan", f"{text}; {change}"


def hang_warnings(world, rows):
    """Of hangs that are never acted on, or of processes as a whole in half the time."""
    never = [hang for hang, _, (_, act, _) in rows if not act]
    early = [hang for hang, when, (dump, *_) in rows
             if hang.what == WHOLE and dump and dump[1] < world.timeout / 2 and not when]
    if world.settings["use_shell"]:
        for words in dict.fromkeys(f"{hang.what} {hang.how}" for hang in never):
            yield SHELL, f"{words}: never found; switch it off"
        return
    for hang in [hang for hang in never + early if hang.what == WHOLE][:1]:
        yield LIST, (f"{hang.process}: as a whole it is sampled twice in some scans, and so found "
                     'never or in half the time; name its main thread in "thread"')
    for hang in [hang for hang in never if hang.what != WHOLE][:1]:
        change = mend(world, lambda other: not all(act for *_, (_, act, _) in rows_of(other, hang)))
        if change:
            yield "Config.scan", f"{hang.what} {hang.how}: never acted on beside an absent one; {change}"


def property_warnings(world):
    lines = world.properties.decode("utf-8", "backslashreplace").split("\n")
    values = dict(line.partition("=")[::2] for line in lines if line.startswith(PREFIX))
    for name, value in values.items():
        without = world.properties + f"\n{name}=\n".encode()
        if value and World(world.daemon, world.document, without).effect == world.effect:
            rule = PROPERTIES.get(name.removeprefix(PREFIX), "there is no such property")
            yield name, f"{value!r} changes nothing: {rule}; remove it"


def setting_warnings(world):
    """Whether to warn, key and text."""
    settings, policy = world.settings, world.settings["policy"]
    binder = settings["binder_monitor"] or {"enable": False, "timeout": 0}
    watches = settings["process_enable"] or binder["enable"]
    is_silent = watches and not settings["debug"] and not world.idle
    is_large = not world.idle and world.work > MAX_WORK
    is_off = world.idle and not settings["hw_list"]
    return [
        (is_large, "Config", f"too much to be played: {world.work} samples in a time-out, more than "
         f"{MAX_WORK}; watch less, or lower \"round\" for this check"),
        (not watches and not settings["bw_enable"], "Config",
         'no detector is on, so the daemon idles; enable "monitor_process"'),
        (is_off and (watches or settings["bw_enable"]), "Config.switches.main",
         "off, so the daemon idles; switch it on"),
        (is_silent and policy in ("nothing", "kill"), "Config.policy",
         f'{policy}, with debug off: no line names who hung; switch "debug" on'),
        (binder["enable"] and not binder["monitor_uids"], "Config.monitor_binder.monitor_uids",
         "empty: nobody is watched, in shell mode everyone; fill it"),
        (binder["enable"] and binder["timeout"] < settings["timeout"], PREFIX + "timeout",
         f'"monitor_binder" keeps {binder["timeout"] // 1000} s; raise "timeout_second" instead')]


def name_warnings(world):
    """The names to warn of, key and text."""
    is_shell, watched = world.settings["use_shell"], world.processes
    entries = world.document["Config"]["monitor_process"].get("list", [])
    listed = [entry["process"] for entry in entries]
    binder = world.settings["binder_monitor"] or {"uid_map": {}, "monitor_uids": []}
    groups = [watched, binder["uid_map"],
              *[{main_thread(name, names), *names} for name, names in watched.items()]]
    contained = [f"{name} in {other}" for group in groups for name in group for other in group
                 if name in other and name != other]
    nameless = set(binder["monitor_uids"]) - set(binder["uid_map"].values())
    return [
        ([name for name in watched if listed.count(name) > 1], LIST,
         "listed twice, the second entry is dropped; merge them"),
        ([name for name in sum(watched.values(), []) if re.match(r"[Bb]inder:\d", name)], LIST,
         'holds a process id, which changes; use "monitor_binder"'),
        (contained * is_shell, SHELL, "grep finds both; rename or drop one"),
        (sorted(map(str, nameless)) * is_shell, "Config.monitor_binder.uid_map",
         "no name: not watched, or everyone is, if no other has a name; add it")]


def warnings(world, rows):
    """Key and text of each."""
    yield from [(key, text) for warns, key, text in setting_warnings(world) if warns]
    yield from [(key, f"{', '.join(names)}: {text}")
                for names, key, text in name_warnings(world) if names]
    yield from property_warnings(world)
    if rows:
        yield from hang_warnings(world, rows)
        yield from pace_warnings(world)
