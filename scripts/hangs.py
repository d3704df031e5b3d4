"""What logs tell about hung tasks.

A Reader is fed the lines of Android and kernel logs and of crash dumps, in any mixture, and
collects the hangs in them.
"""
import calendar
import dataclasses
import os
import re
import sys
import time as clocks
from dataclasses import replace
from typing import Optional

DATE = (r"(?P<date>(?:\d{4}-)?\d\d-\d\d)[ T](?P<clock>\d\d:\d\d:\d\d)(?:[.,]\d+)?"
        r"(?: ?[+-]\d\d:?\d\d|Z)?")
SECONDS = r"\s*(?P<seconds>\d{1,10}\.\d+)"
CALLER = r"(?: ?\[[^\]]*\])?"
# The forms of a line. One that has none of them is the kernel's or a crash dump's, as it stands.
FORMS = [re.compile(form) for form in (
    # logcat -v threadtime, year or epoch; a bug report adds the user
    rf"(?:{DATE}|{SECONDS})\s+(?:\S+\s+)?\d+\s+\d+ [VDIWEF] (?P<tag>.*?)\s*: (?P<text>.*)",
    # logcat -v time, brief or tag
    rf"(?:{DATE} )?[VDIWEF]/(?P<tag>.*?)\s*(?:\(\s*\d+\))?: (?P<text>.*)",
    # the log library on a host
    rf"(?P<tag>\w+) [VDIWEF] {DATE}\s+\d+\s+\d+ (?P<text>.*)",
    # dmesg and the console
    rf"(?:<\d+>)?\[{SECONDS}\]{CALLER}(?P<text>.*)",
    rf"(?:<\d+>)?\[\w+ (?P<human>\w+ [ \d]\d \d\d:\d\d:\d\d \d+)\]{CALLER}(?P<text>.*)")]
# Before the line of another log that somebody has copied to the kernel's.
WRITER = re.compile(r"^\w+: ")

# What the daemon writes.
FOUND = re.compile(r"proc(?:ess)? (?P<process>\S+) pid changed(?: to (?P<pid>\d+))?\.|"
                   r"bw add proc (?P<iowait>.*) pid=(?P<iowait_pid>\d+)")
STANDING = re.compile(r"thread: (?P<thread>.*) tid=(?P<tid>\d+), count=(?P<count>\d+), "
                      r"state=(?P<state>.)")
BINDER_STANDING = re.compile(r"(?P<thread>.*) (?P<tid>\d+) state=(?P<state>.) wchan=(?P<wchan>.*) "
                             r"count=(?P<count>\d+)")
# In shell mode the name ends with a line feed, and the rest of the message is a line of its own.
DUMPED = re.compile(r"dumped(?: hung proc)?:(?P<pid>\d+)(?: (?P<process>\S+))?"
                    r"(?: parent=(?P<ppid>\d+) (?:stat=(?P<state>.)|wchan=(?P<wchan>.*)))?")
REPORT = re.compile(
    r"(?:tid:(?P<tid>\d+) |(?P<thread>\S+) in )?pid:(?P<pid>\d+) ppid:(?P<ppid>\d+)"
    r"(?: in (?P<state>[DTZ]|unswitch S) | (?P<missing>cannot start) | wchan: (?P<wchan>\S*?))"
    r"(?P<timeout>\d+)s")
NOTHING = "nothing to do according to policy"
UNKNOWN = 2 ** 32 - 1  # how it prints an id that it does not have

# What the kernel and the rest of the system write.
BOOT = re.compile(r"Linux version \d.*|Booting Linux on .*")
# Above a task's stack in the output of SysRq "w", on newer and on older kernels.
TASK = re.compile(r"task:(?P<name>.*?)\s+state:\S.*? pid:\s*(?P<tid>\d+)\s.*|"
                  r"(?P<old_name>\S.{0,14}?)\s+[DTZ]\s.*?(?P<old_tid>\d+)\s+\d+ 0x[0-9a-f]{8,}")
FRAME = re.compile(r"(?:\? )?[\w.$]+\+0x[0-9a-f]+/0x[0-9a-f]+.*")
STACK_TITLE = re.compile(r"call trace:|</?task>", re.IGNORECASE)
TOMBSTONE = re.compile(r"pid: (?P<pid>\d+), tid: (?P<tid>\d+), name: (?P<thread>.*?)\s+"
                       r">>> (?P<process>.*) <<<")
ACT = re.compile(r".*(?:(?P<reboot>reboot,tovrel|command 'tovrel'|reason=tovrel)|"
                 r"Trigger a crash|sysrq triggered crash).*")

# Most lines of a large log tell nothing; this is the fast way to know.
TELLING = re.compile(rb"tovrel|pid:|task:|sysrq|Linux|[DTZ] {2,9}.{1,40} 0x0")


@dataclasses.dataclass(frozen=True, order=True)
class Time:
    """Seconds of a clock: "date" (without the year), "year", "uptime" or "?" if there is none."""
    clock: str = "?"
    seconds: float = 0

    def minus(self, seconds):
        return self if self.clock == "?" else Time(self.clock, self.seconds - seconds)

    def __str__(self):
        if self.clock in ("uptime", "?"):
            return f"{self.seconds:.1f}" if self.clock == "uptime" else "?"
        form = "%m-%d %H:%M:%S" if self.clock == "date" else "%Y-%m-%d %H:%M:%S"
        return clocks.strftime(form, clocks.gmtime(self.seconds))


@dataclasses.dataclass
class Hang:
    condition: str  # "D", "T", "Z", "unswitch", "missing", "wchan NAME" or "self stuck"
    tid: Optional[int] = None
    pid: Optional[int] = None
    ppid: Optional[int] = None
    thread: str = ""
    process: str = ""
    since: Optional[Time] = None
    dumped: Optional[Time] = None
    logs: dict = dataclasses.field(default_factory=dict)  # that tell of it; of a kernel's, the boot
    reports: dict = dataclasses.field(default_factory=dict)  # by log: their times
    text: str = ""  # of the report
    act: str = ""
    stack: list = dataclasses.field(default_factory=list)

    @property
    def task(self):
        return " ".join(dict.fromkeys(filter(None, (self.process, self.thread))))

    @property
    def reported(self):
        """How often; a report may stand in both logs."""
        return max(map(len, self.reports.values()), default=0)

    @property
    def time(self):
        """Of the first report, else of the dump; by the Android log's clock if that has it."""
        times = [times[0] for times in self.reports.values()] or [self.dumped or Time()]
        return min(times, key=lambda time: time.clock in ("uptime", "?"))

    def may_be(self, other):
        return self.condition == other.condition and not any(
            getattr(self, key) and getattr(other, key) and getattr(self, key) != getattr(other, key)
            for key in ("tid", "pid", "ppid", "thread"))

    def learn(self, other):
        vars(self).update({key: value for key, value in vars(other).items() if value})


class Reader:
    """`hangs` has what the lines that were fed tell; finish() completes it."""

    def __init__(self):
        self.hangs = []
        self._threads, self._processes, self._stacks = {}, {}, {}  # by id
        self._wchans = set()
        self._boot = 0  # numbers what the kernel log has of each
        self._standing = None  # what the daemon has just told to stand still
        self._stack = None  # whose lines are read
        self._last = None  # the hang whose report was read last
        self._read = set()

    def start_boot(self):
        """The kernel log that follows is of another boot, as it is in another file."""
        self._boot += 1
        self._stack = self._last = None

    def feed(self, line):
        """Takes a line, as bytes. Returns None, or kind ("found", "dumped", "reported" or "acted")
        and text of what it tells, if that is worth a line while the log is written.
        """
        if self._stack is None and not TELLING.search(line):
            return None
        time, tag, text = split_form(line.decode("utf-8", "replace").strip("\0\r\n "))
        if tag == "tovrel":
            return self._read_daemon(time, text)
        if tag is None:
            self._read_stacks(time, text)
            if match := REPORT.fullmatch(text):
                self._standing = None
                return self._reported("kernel", time, self._report(time, match))
        return self._read_system(time, text)

    def finish(self):
        for hang in self.hangs:
            hang.thread = hang.thread or self._threads.get(hang.tid, "")
            hang.process = hang.process or self._processes.get(hang.pid, "")
            hang.stack = hang.stack or self._stacks.get(hang.tid, (None, []))[1]

    def _read_daemon(self, time, text):
        if match := STANDING.fullmatch(text) or BINDER_STANDING.fullmatch(text):
            return self._stands(time, match)
        if match := DUMPED.fullmatch(text):
            return self._dumped(time, match)
        if match := REPORT.fullmatch(text):
            return self._reported("android", time, self._report(time, match))
        if match := FOUND.fullmatch(text):
            name, pid = match["process"] or match["iowait"], match["pid"] or match["iowait_pid"]
            self._processes[number(pid)] = name
            return "found", f"{name}, process {pid}" if pid else name
        if text.startswith("killing "):
            return self._acted(time, text)
        if text == NOTHING and self._standing:
            # The report itself is not logged.
            return self._reported("android", time, replace(self._standing, act="nothing"))
        if text.startswith("Self stuck!"):
            hang = Hang("self stuck", process="tovrel", text=text, act="restart")
            return self._reported("android", time, hang)
        return None

    def _stands(self, time, match):
        told = match.groupdict()
        tid, wchan = number(told["tid"]), told.get("wchan")
        is_new = wchan is not None and tid not in self._threads
        self._threads[tid] = told["thread"]
        self._wchans.add(wchan)
        self._standing = Hang(condition_of(told["state"], wchan), tid, thread=told["thread"],
                              since=time.minus(int(told["count"]) / 1000))
        self._last = None
        return ("found", f"{told['thread']}, thread {tid}") if is_new else None

    def _dumped(self, time, match):
        condition = condition_of(match["state"], match["wchan"]) if match["ppid"] else None
        task = self._standing_as(condition)
        dumped = replace(task, pid=number(match["pid"]), ppid=number(match["ppid"]), dumped=time,
                         process=match["process"] or "")
        if self._is_read(time, "dumped", dumped):
            return None
        hang = self._find("android", dumped)
        if hang is None or "android" in hang.logs:
            hang = self._add(dumped)
        hang.learn(dumped)
        hang.logs["android"] = None
        return "dumped", f"{hang.task or hang.pid} ({hang.condition})"

    def _report(self, time, match):
        """The hang as the report has it."""
        wchan, timeout = match["wchan"], match["timeout"]
        if wchan is not None:
            wchan, timeout = self._split_wait(wchan + timeout)
        task = self._standing_as(condition_of(match["state"], wchan, match["missing"]))
        return replace(task, tid=number(match["tid"]) or task.tid, pid=number(match["pid"]),
                       ppid=number(match["ppid"]), thread=match["thread"] or task.thread,
                       since=time.minus(int(timeout)), text=match[0])

    def _reported(self, log, time, report):
        self._last = None
        if self._is_read(time, log, report):
            return None
        hang = self._find(log, report) or self._add(report)
        if log == "kernel" or log in hang.logs:  # what was learnt first, by the better clock
            report = replace(report, since=hang.since)
        hang.learn(report)
        hang.logs[log] = self._boot if log == "kernel" else None
        hang.reports.setdefault(log, []).append(time)
        if hang.tid in self._stacks:
            dumped, hang.stack = self._stacks[hang.tid]
            hang.dumped = hang.dumped or dumped
        self._last = hang
        if sum(map(len, hang.reports.values())) > 1:
            return None
        if not hang.text:
            return "acted", f"{hang.act}: {hang.task}"
        return "reported", hang.text

    def _acted(self, time, act):
        hang = self._last
        if hang is None or hang.act == act:
            return None
        hang.act = act
        return "acted", f"{act}: {hang.task or hang.text}"

    def _read_stacks(self, time, text):
        if self._stack is not None and FRAME.fullmatch(text):
            self._stack.append(text)
        elif match := TASK.fullmatch(text):
            tid = int(match["tid"] or match["old_tid"])
            self._threads[tid] = match["name"] or match["old_name"]
            self._stack = []
            self._stacks[tid] = time, self._stack
        elif not STACK_TITLE.fullmatch(text):
            self._stack = None

    def _read_system(self, time, text):
        if match := TOMBSTONE.fullmatch(text):
            self._threads[int(match["tid"])] = match["thread"]
            self._processes[int(match["pid"])] = match["process"].rsplit("/", 1)[-1]
        elif match := ACT.fullmatch(text):
            return self._acted(time, "reboot" if match["reboot"] else "crash")
        elif BOOT.fullmatch(text):
            self.start_boot()
        return None

    def _standing_as(self, condition):
        """What stands still, if it does so in this condition or if that is not told."""
        task = self._standing
        return task if task and condition in (None, task.condition) else Hang(condition or "-")

    def _find(self, log, task):
        """The last hang of this task that a line of the log may be about."""
        boot = self._boot if log == "kernel" else None
        return next((hang for hang in reversed(self.hangs)
                     if hang.may_be(task) and hang.logs.get(log, boot) == boot), None)

    def _add(self, task):
        self.hangs.append(replace(task, logs={}, reports={}))
        return self.hangs[-1]

    def _is_read(self, time, kind, hang):
        """Whether this was read before, in another copy of the log."""
        line = (time, kind, hang.condition, hang.tid, hang.pid, hang.thread)
        is_read = time != Time() and line in self._read
        self._read.add(line)
        return is_read

    def _split_wait(self, text):
        """Wait channel and seconds, which a report writes without anything between."""
        for wchan in filter(None, self._wchans):
            if text.startswith(wchan) and text[len(wchan):].isdigit():
                return wchan, text[len(wchan):]
        return re.fullmatch(r"(.*?)(\d+)", text).groups()


def split_form(line):
    """Time, tag and text; the tag is None in the kernel log."""
    for form in FORMS:
        if match := form.match(line):
            part = match.groupdict()
            outer = time_of(**part), part.get("tag"), part["text"].strip()
            inner = split_form(WRITER.sub("", outer[2])) if outer[1] is None else outer
            return outer if inner[0] == Time() else inner
    return Time(), None, line


def time_of(date=None, clock=None, seconds=None, human=None, **_):
    try:
        if seconds:
            return Time("year" if float(seconds) > 1e8 else "uptime", float(seconds))
        if human:
            return Time("year", calendar.timegm(clocks.strptime(human, "%b %d %H:%M:%S %Y")))
        if date:
            # Without a year any leap year will do.
            whole = date if len(date) > 5 else "2000-" + date
            parsed = clocks.strptime(f"{whole} {clock}", "%Y-%m-%d %H:%M:%S")
            return Time("year" if whole == date else "date", calendar.timegm(parsed))
    except ValueError:
        pass
    return Time()


def condition_of(state, wchan, missing=None):
    if state and state in "DTZ":
        return state
    if wchan is not None:
        return f"wchan {wchan}"
    return "missing" if missing or state == "?" else "unswitch"


def number(text):
    """An id; None if it is not known."""
    return int(text) if text and int(text) != UNKNOWN else None


def table_of(hangs, width=None):
    rows = [("WHEN", "TASK", "TID", "PID", "PPID", "SINCE", "DUMPED", "REPORTED", "CONDITION")]
    for hang in hangs:
        reported = f"{hang.reported}x" if hang.reported else "-"
        reported += f", {hang.act}" if hang.act else ""
        # The row begins with the date.
        since, dumped = (str(time or "-").split()[-1] for time in (hang.since, hang.dumped))
        ids = (str(part or "-") for part in (hang.task, hang.tid, hang.pid, hang.ppid))
        rows.append((str(hang.time), *ids, since, dumped, reported, hang.condition))
    return table(rows, width)


def table(rows, width=None):
    """Lines of rows of texts in columns, cut to the width."""
    widths = [max(map(len, column)) for column in zip(*rows)]
    for row in rows:
        line = "  ".join(text.ljust(size) for text, size in zip(row, widths)).rstrip()
        yield line if not width or len(line) <= width else line[:width - 3] + "..."


def tell(kind, text, when):
    """Prints a line about what feed() has returned."""
    colour = {"dumped": "yellow", "reported": "red"}.get(kind)
    print(f"{when}  {paint(kind.ljust(8), colour)}  {text}", flush=True)


def paint(text, colour):
    """The text in a colour, on a terminal of somebody who wants that."""
    if not colour or not sys.stdout.isatty() or os.environ.get("NO_COLOR"):
        return text
    return f"\033[{ {'red': 31, 'green': 32, 'yellow': 33}[colour]}m{text}\033[0m"
