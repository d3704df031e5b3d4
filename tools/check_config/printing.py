"""What is printed for the eye."""
import textwrap

from .device import Device
from .hangs import responses

WIDTH, FIRST, CELL = 100, 58, 14


def say(line="", file=None):
    """Names may hold what would move a terminal's cursor."""
    print("".join(char if char.isprintable() else ascii(char)[1:-1] for char in line), file=file)


def describe(world):
    """What the daemon does, beside the times."""
    settings, binder = world.settings, world.settings["binder_monitor"]
    rows = [("Interval", f"{world.interval:g} s, time-out {world.timeout:g} s"),
            ("Policy", f"{settings['policy']}, debug {'on' if settings['debug'] else 'off'}"),
            *[("Process", f"{name}: {', '.join(threads) or 'as a whole'}")
              for name, threads in world.processes.items()]]
    if binder and binder["enable"]:
        users = ", ".join(map(str, binder["monitor_uids"])) or "no user"
        rows.append(("Binder threads", f"of {users}: {', '.join(['D, T, Z', *binder['wchans']])}"))
    if settings["black_white_list"]:
        rows.append(("I/O-wait list", ", ".join(settings["black_white_list"]["list"])))
    boards = ", ".join(settings["hw_list"])
    if world.idle:
        rows.append(("Idle", f"on but these boards, as ro.board.platform may tell: {boards}"
                     if boards else "the daemon does nothing"))
    elif world.is_small:
        rows.append(("Without zygote", without_zygote(world)))
    for title, text in rows:
        for line in textwrap.wrap(f"{title:16}{text}", WIDTH, subsequent_indent=" " * 16):
            say(line)


def without_zygote(world):
    """What becomes of tasks at rest then."""
    device = Device(world, world.processes, ())
    rest = [task.comes() for task in device.tasks.values()]
    played = world.play([(world.processes, [f"until {int(3 * world.timeout)}", *rest])])
    first = {response.is_act: response for response in reversed(list(responses(played[0])))}
    if not first:
        return "as with one"
    stages = [f"the first {'act' if is_act else 'dump'} after {first[is_act].seconds:g} s"
              for is_act in sorted(first)]
    return "tasks at rest count as stuck: " + ", ".join(stages)


def cell(window):
    return " to ".join(dict.fromkeys(f"{seconds:g}" for seconds in window)) if window else "never"


def say_table(rows):
    """Hangs with the same answer share a line."""
    lines = {}
    for hang, when, answer in rows:
        lines.setdefault((hang.what, when, answer), []).append(hang.how)
    if not lines:
        return
    say()
    say("Seconds after a task got stuck".ljust(FIRST) +
        "".join(word.rjust(CELL) for word in ("dump", "act", "then each")))
    for (what, when, answer), hows in lines.items():
        text = f"{what}: {', or '.join(dict.fromkeys(hows))}" + (f"; {when}" if when else "")
        first, *rest = textwrap.wrap(text, FIRST - 3, subsequent_indent="  ")
        say(f"  {first:{FIRST - 2}}" + "".join(cell(window).rjust(CELL) for window in answer))
        for line in rest:
            say("  " + line)
    say()
