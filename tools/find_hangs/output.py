"""Hangs as a table, as JSON Lines and as a picture."""
import collections
import json

TITLES = ("WHEN", "TASK", "TID", "PID", "PPID", "SINCE", "DUMPED", "REPORTED", "CONDITION", "FILE")
MOST_BOOTS, MOST_DRAWN = 20, 200  # boots, and hangs of each; a picture of more cannot be read
LONGEST_NAME = 64
ROW_HEIGHT, WIDTH = 0.35, 10  # inches


def task_of(hang):
    """The names that are known; process and main thread often have the same."""
    return " ".join(dict.fromkeys(filter(None, (hang.process, hang.thread))))


def condition_of(hang):
    return f"wchan {hang.wchan}" if hang.condition == "wchan" else hang.condition


def printable(text):
    """The text without control characters, which could act on a terminal."""
    return "".join(char if char.isprintable() else
                   char.encode("unicode_escape", "surrogatepass").decode() for char in text)


def table(hangs):
    """Lines of a table, with the stack below each hang."""
    widths = [len(title) for title in TITLES]
    for hang in hangs:
        widths = [max(size, len(text)) for size, text in zip(widths, row_of(hang))]
    if hangs:
        yield line_of(TITLES, widths)
    for hang in hangs:
        yield line_of(row_of(hang), widths)
        for frame in hang.stack:
            yield ("  ? " if "stack" in hang.likely else "    ") + printable(frame)


def line_of(row, widths):
    return "  ".join(text.ljust(size) for text, size in zip(row, widths)).rstrip()


def row_of(hang):
    def doubt(*parts):
        return "?" if set(parts) & set(hang.likely) else ""
    reported = f"{len(hang.reported)}x" if hang.reported else "-"
    if hang.act:
        reported += f", {hang.act}{doubt('act')}"
    # The row begins with the date.
    since, dumped = (str(time or "-").split()[-1] for time in (hang.since, hang.dumped))
    task = task_of(hang) + doubt("thread", "process") or "-"
    ids = (str(part or "-") for part in (hang.tid, hang.pid, hang.ppid))
    parts = (str(hang.time), task, *ids, since, dumped, reported, condition_of(hang) or "-",
             hang.source)
    return tuple(map(printable, parts))


def json_lines(hangs):
    """A line for each hang, a JSON object; docs/hangs.md describes it."""
    numbers = {}  # from 1 on for the boots that have hangs
    for hang in hangs:
        yield json_of(hang, numbers.setdefault(hang.boot, len(numbers) + 1))


def json_of(hang, boot):
    def seconds(time):
        return round(time.seconds, 6) if time and time.is_known() else None
    def text(time):
        return str(time) if time and time.is_known() else None
    return json.dumps({
        "file": hang.source, "boot": boot, "clock": hang.time.clock,
        "process": hang.process or None, "thread": hang.thread or None,
        "tid": hang.tid, "pid": hang.pid, "ppid": hang.ppid,
        "condition": hang.condition or None, "wchan": hang.wchan or None,
        "timeout": hang.timeout or None, "since": seconds(hang.since),
        "dumped": seconds(hang.dumped), "reported": [seconds(time) for time in hang.reported],
        "since_text": text(hang.since), "dumped_text": text(hang.dumped),
        "reported_text": [text(time) for time in hang.reported], "report": hang.text or None,
        "act": hang.act or None, "stack": hang.stack, "likely": hang.likely})


def plot(hangs, path):
    """Draws a bar for each hang, on an axis for each boot. Returns how many hangs are drawn;
    without any there is no picture.
    """
    from matplotlib import pyplot
    pyplot.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "tovrel",
                            "text.parse_math": False, "axes.formatter.useoffset": False})
    groups = collections.defaultdict(list)
    for hang in hangs:
        if hang.time.is_known():
            groups[hang.boot, hang.time.clock].append(hang)
    boots = [boot[:MOST_DRAWN] for boot in list(groups.values())[:MOST_BOOTS]]
    if not boots:
        return 0
    heights = [len(boot) + 2.5 for boot in boots]
    figure, rows = pyplot.subplots(
        len(boots), squeeze=False, layout="constrained",
        figsize=(WIDTH, ROW_HEIGHT * sum(heights)), gridspec_kw={"height_ratios": heights})
    for axes, boot in zip(rows[:, 0], boots):
        draw_boot(axes, boot)
    figure.savefig(path, format="svg", metadata={"Date": None})
    return sum(map(len, boots))


def draw_boot(axes, hangs):
    starts = [hang.since or hang.dumped or hang.time for hang in hangs]
    first = min(starts, key=lambda time: time.seconds)
    for height, (hang, start) in enumerate(zip(hangs, starts)):
        begin, end, dumped, *reported = (
            time.seconds - first.seconds if time and time.clock == first.clock else None
            for time in (start, hang.last, hang.dumped, *hang.reported))
        axes.hlines(height, begin, end, colors="0.8", linewidth=6)
        axes.plot([dumped], [height], "bo")
        axes.plot(reported, [height] * len(reported), "rX")
    names = [printable(f"{task_of(hang) or hang.pid} {condition_of(hang)}") for hang in hangs]
    names = [name if len(name) <= LONGEST_NAME else name[:LONGEST_NAME] + "..." for name in names]
    axes.set_yticks(range(len(hangs)), names)
    axes.set_ylim(len(hangs) - 0.4, -0.6)
    axes.tick_params(left=False)
    axes.spines[["left", "top", "right"]].set_visible(False)
    axes.set_xlabel(f"seconds from {first} on: bar stands still, \u25cf dumped, \u2716 reported")
    axes.set_title(printable(hangs[0].source), loc="left", fontsize="small")
