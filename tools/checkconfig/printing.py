"""What is printed for the eye."""
import textwrap

from .alarms import describe_without_zygote

WIDTH, FIRST, CELL = 100, 58, 14


def printable(text):
    """Names may hold what would move a terminal's cursor."""
    return "".join(char if char.isprintable() else ascii(char)[1:-1] for char in text)


def say(line="", file=None):
    print(printable(line), file=file)


def say_row(title, text):
    for line in textwrap.wrap(f"{title:16}{text}", WIDTH, subsequent_indent=" " * 16):
        say(line)


def describe(world, board):
    """What the daemon does, beside its times."""
    settings = world.settings
    debug = "on" if settings["debug"] else "off"
    say_row("Interval", f"{world.interval:g} s, time-out {world.timeout:g} s")
    say_row("Policy", f"{settings['policy']}, debug {debug}")
    if board:
        say_row("Boards", ", ".join(settings["hw_list"]) + "; idle on any other")
    if settings["process_enable"]:
        for name, threads in settings["process_list"].items():
            say_row("Process", f"{name}: {', '.join(threads) or 'as a whole'}")
    binder, iowait = settings["binder_monitor"], settings["black_white_list"]
    if binder and binder["enable"]:
        uids = ", ".join(map(str, binder["monitor_uids"]))
        say_row("Binder threads", f"of {uids or 'no user'}: {', '.join(['D, T, Z', *binder['wchans']])}")
    if iowait:
        say_row("I/O-wait list", ", ".join(iowait["list"]))
    if not world.idle:
        say_row("Without zygote", describe_without_zygote(world))


def cell(window):
    if not window:
        return "never"
    return " to ".join(dict.fromkeys(f"{seconds:g}" for seconds in window))


def say_table(rows):
    """Hangs with the same answer share a line."""
    lines = {}
    for hang, when, answer in rows:
        lines.setdefault((hang.what, when, answer), []).append(hang.how)
    if not lines:
        return
    title = "Seconds after a task got stuck"
    say()
    say(title.ljust(FIRST) + "".join(word.rjust(CELL) for word in ("dump", "act", "then each")))
    for (what, when, answer), hows in lines.items():
        text = f"{what} {', or '.join(dict.fromkeys(hows))}" + (f"; {when}" if when else "")
        first, *rest = textwrap.wrap(text, FIRST - 3, subsequent_indent="  ")
        say(f"  {first:{FIRST - 2}}" + "".join(cell(window).rjust(CELL) for window in answer))
        for line in rest:
            say("  " + line)
