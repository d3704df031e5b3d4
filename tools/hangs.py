"""What Android and kernel logs and crash dumps, in any mixture, tell about hung tasks."""
import calendar
import dataclasses
import os
import re
import sys
import time as clocks

# How a time is written, by its clock.
DATE, YEAR, UPTIME, NO_CLOCK = "%m-%d %H:%M:%S", "%Y-%m-%d %H:%M:%S", "uptime", "?"
RED, GREEN, YELLOW = 31, 32, 33
UNKNOWN = 2 ** 32 - 1  # how the daemon prints an id that it does not have

STAMP = r"\s*(?P<stamp>(?:\d{4}-)?\d\d-\d\d \d\d:\d\d:\d\d|\d+\.\d+)(?:\.\d+)?(?: [+-]\d{4})?"
# The forms of a line. One that has none of them is the kernel's or a crash dump's, as it stands.
FORMS = [re.compile(form) for form in (
    # logcat -v threadtime, year or epoch; a bug report adds the user
    rf"{STAMP}\s+(?:\S+\s+)?\d+\s+\d+ [VDIWEF] (?P<tag>.*?)\s*: (?P<text>.*)",
    # logcat -v time or brief
    rf"(?:{STAMP} )?[VDIWEF]/(?P<tag>.*?)\s*\(\s*\d+\): (?P<text>.*)",
    # the log library on a host, also on the console of a machine
    rf"(?:\[.*?\] \w+: )?(?P<tag>\w+) [VDIWEF] {STAMP}\s+\d+\s+\d+ (?P<text>.*)",
    # dmesg and the console, with or without the caller
    rf"(?:<\d+>)?\[{STAMP}\](?: ?\[[^\]]*\])?(?P<text>.*)")]

# What a line may tell: a method of Reader, and the whole text with <parts>, of digits unless here.
PARTS = {"thread": ".*?", "process": r"\S+", "wchan": r"\S*?",
         "state": r"unswitch S|cannot start|Self stuck|\S", "timeout": r"[1-9]\d*",
         "act": r"killing \d+|nothing|restarting|reboot|crash"}
REPORTS = [
    ("_reported", "(?:tid:<tid> )?pid:<pid> ppid:<ppid> in <state> <timeout>s"),
    ("_reported", "<thread> in pid:<pid> ppid:<ppid> <state> <timeout>s"),
    ("_reported", "pid:<pid> ppid:<ppid> wchan: <wchan><timeout>s")]
DAEMON = [
    ("_found", r"(?:process|proc|bw add proc) <process> pid(?: changed to <pid>| changed|=\d+)\.?"),
    ("_stands", "thread: <thread> tid=<tid>, count=<count>, state=<state>"),
    ("_stands", "<thread> <tid> state=<state> wchan=<wchan> count=<count>"),
    # In shell mode the name ends with a line feed, and what follows is a line of its own.
    ("_dumped", "dumped:<pid> <process>(?: parent=<ppid> stat=<state>)?"),
    ("_dumped", "dumped hung proc:<pid> parent=<ppid> (?:stat=<state>|wchan=<wchan>)"),
    ("_acted", "<act>"),
    ("_reported", "<act> to do according to policy"),  # the report itself is not logged
    ("_reported", r"<state>! <act>\.\.\.")]
SYSTEM = [
    ("_crashed", r"pid: <pid>, tid: <tid>, name: <thread>\s+>>> (?:\S*/)?<process> <<<"),
    ("_acted", ".*?<act>.*[,'=]tovrel.*"),
    ("_acted", ".*(?:Trigger a|sysrq triggered) <act>.*")]
KERNEL = [
    ("_task", r"task:<thread>\s+state:\S.*? pid:\s*<tid>\s.*"),  # SysRq "w"
    ("_frame", r"(?:\? )?[\w.$]+\+0x[0-9a-f]+/0x[0-9a-f]+.*|(?i:call trace:|</?task>)"),
    ("start_boot", r"Linux version \d.*|Booting Linux on .*")]
CONDITIONS = {"S": "unswitch", "unswitch S": "unswitch", "?": "missing", "cannot start": "missing"}
STAGES = ("_dumped", "_reported", "_acted")
# Most lines of a large log tell nothing; this is the fast way to know.
TELLING = re.compile(rb"tovrel|pid:|task:|sysrq|Linux")


def compiled(lines):
    def part(match):
        return f"(?P{match[0]}{PARTS.get(match[1], '[0-9]+')})"
    return [(method, re.compile(re.sub(r"<(\w+)>", part, text))) for method, text in lines]


LINES = {"tovrel": compiled(DAEMON + REPORTS), None: compiled(REPORTS + KERNEL + SYSTEM)}
OTHERS = compiled(SYSTEM)


@dataclasses.dataclass(frozen=True)
class Time:
    """Seconds of a clock; those of two clocks cannot be compared."""
    clock: str = NO_CLOCK
    seconds: float = 0

    def minus(self, seconds):
        return Time(self.clock, self.seconds - seconds)

    def __str__(self):
        if self.clock == UPTIME:
            return f"{self.seconds:.1f}"
        return clocks.strftime(self.clock, clocks.gmtime(self.seconds))


@dataclasses.dataclass
class Hang:
    """A task that stands still; what is not known is empty, 0 or None."""
    boot: int = 0  # of the kernel whose log tells of it, or 0: the Android log does
    condition: str = ""  # "D", "T", "Z", "unswitch", "missing", "wchan NAME" or "self stuck"
    tid: int = None
    pid: int = None
    ppid: int = None
    thread: str = ""
    process: str = ""
    since: Time = None
    dumped: Time = None
    reported: list = dataclasses.field(default_factory=list)  # when
    text: str = ""  # of the report
    act: str = ""
    stack: list = dataclasses.field(default_factory=list)

    @property
    def task(self):
        return " ".join(dict.fromkeys(filter(None, (self.process, self.thread))))

    @property
    def time(self):
        return (self.reported or [self.dumped])[0]

    def may_be(self, other):
        pairs = ((getattr(self, key), getattr(other, key))
                 for key in ("condition", "tid", "pid", "ppid", "thread"))
        return self.boot == other.boot and all(a == b for a, b in pairs if a and b)

    def learn(self, other):
        """Fills the gaps."""
        for key, value in vars(other).items():
            if value and not getattr(self, key):
                setattr(self, key, value)


class Reader:
    """Collects the hangs that lines of logs and crash dumps tell of; finish() completes them."""

    def __init__(self):
        self.hangs = []
        self._boot = 1
        self._tasks, self._processes = {}, {}  # by id: what other lines tell of them
        self._wchans = set()
        self._standing = Hang()  # what the daemon has just told to stand still
        self._last = None  # the hang whose report was read last
        self._stack = None  # whose lines are read
        self._read, self._told = set(), set()

    def feed(self, line):
        """Takes a line, as bytes. Returns None, or kind ("found", "dumped", "reported" or "acted")
        and text of what it tells, if that is worth a line while the log is written.
        """
        if self._stack is None and not TELLING.search(line):
            return None
        time, tag, text = split_line(line.decode("utf-8", "replace").strip("\0\r\n "))
        lines = ((method, form.fullmatch(text)) for method, form in LINES.get(tag, OTHERS))
        method, match = next((line for line in lines if line[1]), (None, None))
        if tag is None and method != "_frame":
            self._stack = None
        copied = time, text, str(self._standing)
        if not match or copied in self._read:
            return None
        if method in STAGES and time.clock != NO_CLOCK:
            self._read.add(copied)
        boot = self._boot if tag is None else 0
        event = getattr(self, method)(time, text, hang_of(boot, time, **match.groupdict()))
        is_new = event not in self._told
        self._told.add(event)
        return event if is_new else None

    def start_boot(self, *_):
        """The kernel log that follows is of another boot, as it is in another file."""
        self._boot += 1
        self._stack = self._last = None

    def finish(self):
        """Completes the hangs; a report that both logs have is of one."""
        for hang in self.hangs:
            self._look_up(hang)
        twins = {hang.text: hang for hang in self.hangs if hang.text and not hang.boot}
        for hang in [hang for hang in self.hangs if hang.boot and hang.text in twins]:
            twins.pop(hang.text).learn(hang)
            self.hangs.remove(hang)

    def _found(self, time, text, told):
        if told.pid:
            self._processes[told.pid] = told.process
        return "found", text

    def _stands(self, time, text, told):
        self._standing, self._last = told, None
        if told.tid:
            self._tasks.setdefault(told.tid, Hang()).thread = told.thread
        if told.condition.startswith("wchan "):
            self._wchans.add(told.condition[6:])
        return ("found", f"{told.thread}, thread {told.tid}") if "wchan=" in text else None

    def _dumped(self, time, text, told):
        self._add_standing(told)
        told.dumped = time
        self.hangs.append(told)
        return "dumped", f"{told.task or told.pid} ({told.condition})"

    def _reported(self, time, text, told):
        if told.condition.startswith("wchan "):
            # Wait channel and seconds have nothing between them.
            known = "|".join(map(re.escape, self._wchans))
            wchan, timeout = re.search(rf" wchan: ({known}|.*?)([1-9]\d*)s$", text).groups()
            told.condition, told.since = f"wchan {wchan}", time.minus(int(timeout))
        told.text = "" if told.act else text
        self._add_standing(told)
        hang = next((hang for hang in reversed(self.hangs) if hang.may_be(told)), None)
        if hang is None:
            self.hangs.append(hang := Hang(told.boot))
        hang.learn(told)
        hang.reported.append(time)
        self._look_up(hang)
        self._last = hang
        return "reported", hang.text or f"{hang.act}: {hang.task} ({hang.condition})"

    def _acted(self, time, text, told):
        if self._last is None:
            return None
        self._last.act = told.act
        return "acted", f"{told.act}: {self._last.task or self._last.text}"

    def _crashed(self, time, text, told):
        self._tasks.setdefault(told.tid, Hang()).thread = told.thread
        self._processes[told.pid] = told.process

    def _task(self, time, text, told):
        self._stack = []
        self._tasks[told.tid] = Hang(thread=told.thread, dumped=time, stack=self._stack)

    def _frame(self, time, text, told):
        if self._stack is not None and "+0x" in text:
            self._stack.append(text)

    def _add_standing(self, told):
        """Of the task of a stage the daemon has told more in the line before."""
        if told.may_be(self._standing):
            told.learn(self._standing)

    def _look_up(self, hang):
        """Completes it by what other lines tell of its ids."""
        if hang.tid in self._tasks:
            hang.learn(self._tasks[hang.tid])
        if hang.pid in self._processes:
            hang.learn(Hang(process=self._processes[hang.pid]))


def split_line(line):
    """Time, tag and text; the tag is None in the kernel log."""
    for form in FORMS:
        if match := form.match(line):
            part = match.groupdict()
            return time_of(part["stamp"] or ":"), part.get("tag"), part["text"].strip()
    return Time(), None, line


def time_of(stamp):
    try:
        if ":" not in stamp:
            return Time(YEAR if float(stamp) > 1e8 else UPTIME, float(stamp))
        # Without a year any leap year will do.
        clock, date = (DATE, "2000-" + stamp) if stamp[2:3] == "-" else (YEAR, stamp)
        return Time(clock, calendar.timegm(clocks.strptime(date, YEAR)))
    except ValueError:
        return Time()


def hang_of(boot, time, state=None, wchan=None, timeout=0, count=0, tid=None, pid=None, ppid=None,
            **names):
    """What the parts of a line tell."""
    waits = wchan and state in (None, "S")
    seconds = int(timeout) + int(count) / 1000
    return Hang(boot, f"wchan {wchan}" if waits else CONDITIONS.get(state, state) or "",
                *map(number, (tid, pid, ppid)), since=time.minus(seconds) if seconds else None,
                **{name: text for name, text in names.items() if text})


def number(text):
    """An id; None if it is not known."""
    return int(text) if text and int(text) != UNKNOWN else None


def table_of(hangs, width=None):
    """Lines of a table; if a width is given they are cut to that, and have no ids."""
    titles = ("WHEN", "TASK", "TID", "PID", "PPID", "SINCE", "DUMPED", "REPORTED", "CONDITION")
    rows = [titles, *map(row_of, hangs)]
    if width:
        rows = [row[:2] + row[5:] for row in rows]
    widths = [max(map(len, column)) for column in zip(*rows)]
    for row in rows:
        line = "  ".join(text.ljust(size) for text, size in zip(row, widths)).rstrip()
        yield line if not width or len(line) <= width else line[:width - 3] + "..."


def row_of(hang):
    reported = f"{len(hang.reported)}x" if hang.reported else "-"
    reported += f", {hang.act}" if hang.act else ""
    # The row begins with the date.
    since, dumped = (str(time or "-").split()[-1] for time in (hang.since, hang.dumped))
    ids = (str(part or "-") for part in (hang.task, hang.tid, hang.pid, hang.ppid))
    return str(hang.time), *ids, since, dumped, reported, hang.condition or "-"


def tell(kind, text, when):
    """Prints a line about what feed() has returned."""
    colour = {"dumped": YELLOW, "reported": RED}.get(kind)
    print(f"{when}  {paint(kind.ljust(8), colour)}  {text}", flush=True)


def paint(text, colour):
    """The text in a colour, on a terminal of somebody who wants that."""
    wanted = colour and sys.stdout.isatty() and not os.environ.get("NO_COLOR")
    return f"\033[{colour}m{text}\033[0m" if wanted else text
