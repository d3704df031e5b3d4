"""False alarms: what the daemon does on a device on which nothing hangs."""
import copy
from typing import NamedTuple

from .device import ZYGOTE, Device, watched_processes
from .hangs import World, renamed, responses

TIMEOUTS = 10
MAX_ABSENT = 8


class FalseAlarm(NamedTuple):
    task: str
    seconds: float
    is_act: bool
    cause: str
    absent: str  # a process, or empty


def healthy_plays(settings):
    """What is absent, settings and steps."""
    seconds = int(TIMEOUTS * settings["timeout"] / 1000)
    variants = [("", settings, ())]
    for name in list(watched_processes(settings))[:MAX_ABSENT]:
        variants += [(name, *variant) for variant in renamed(settings, (name,))]
    for name, variant, absent in variants:
        life = Device(variant, {absent}).healthy_life(seconds)
        yield name, variant, [f"until {seconds};{ZYGOTE} comm=zygote state=S", *life]


def cause_of(event):
    if event.name == "watchdog" and event.state == "S":
        return "sleeps for 30 s"
    return "is in D for a moment" if event.state == "D" else "waits for a moment"


def false_alarms(world):
    """The first of each task."""
    plays = list(healthy_plays(world.settings))
    played = world.play([(settings, steps) for _, settings, steps in plays])
    first = {}
    for (absent, *_), events in zip(plays, played):
        for event in responses(events)[:50]:
            alarm = FalseAlarm(event.name, event.seconds, event.is_act, cause_of(event), absent)
            first.setdefault((alarm.task, alarm.cause), alarm)
    return list(first.values())


def with_scan(document, **changes):
    changed = copy.deepcopy(document)
    changed["Config"]["scan"].update(changes)
    return changed


def slower(settings):
    """Other paces, from slight changes to large ones: keys of "scan" and their values."""
    timeout, rounds = settings["timeout"] // 1000, settings["round"]
    for factor in (1, 2, 3, 4):
        for times in (1, 2, 4, 8):
            pace = {"timeout_second": factor * timeout} if factor > 1 else {}
            if times > 1:
                pace["round"] = times * rounds
            if pace and max(pace.values()) <= 3600:
                yield pace


def mend_of(world, paces, is_mended):
    """The first of the paces with which a configuration passes, in words; empty: none does."""
    for pace in paces:
        changed = World(world.daemon, with_scan(world.document, **pace), world.properties)
        if is_mended(changed):
            return " and ".join(f'"{key}" to {value}' for key, value in pace.items())
    return ""


def describe_without_zygote(world):
    """What becomes of tasks at rest once the last zygote has ended."""
    device = Device(world.settings)
    rest = [*device.at_rest().values()]
    if device.binder_thread:
        rest.append(device.binder_thread.comes())
    seconds = int(3 * world.timeout)
    found = responses(world.play([(world.settings, [f"until {seconds}", *rest])])[0])
    dumps = [event.seconds for event in found if not event.is_act]
    acts = [event.seconds for event in found if event.is_act]
    if not dumps:
        return "as with one"
    act = f", the first act after {acts[0]:g} s" if acts else ""
    return f"tasks at rest count as stuck: the first dump after {dumps[0]:g} s{act}"
