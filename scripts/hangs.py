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
from typing import NamedTuple, Optional

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
    rf"(?:<\d+>)?\[\w{{3}} (?P<human>\w{{3}} [ \d]\d \d\d:\d\d:\d\d \d{{4}})\]{CALLER}(?P<text>.*)")]

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
SELF_STUCK = "Self stuck! restarting..."
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


class Time(NamedTuple):
    """Seconds of a clock: "date" (without the year), "year" or "uptime"."""
    seconds: float
    clock: str

    def minus(self, seconds):
        return Time(self.seconds - seconds, self.clock)

    def __str__(self):
        if self.clock == "uptime":
            return f"{self.seconds:.1f}"
        form = "%m-%d %H:%M:%S" if self.clock == "date" else "%Y-%m-%d %H:%M:%S"
        return clocks.strftime(form, clocks.gmtime(self.seconds))


class Event(NamedTuple):
    """What is worth telling while a log is written: "found", "dumped", "reported" or "acted"."""
    kind: str
    text: str
    time: Optional[Time]


@dataclasses.dataclass
class Hang:
    condition: str  # "D", "T", "Z", "unswitch", "missing", "wchan NAME" or "self stuck"
    tid: Optional[int] = None
    pid: Optional[int] = None
    ppid: Optional[int] = None
    thread: str = ""
    process: str = ""
    timeout: Optional[int] = None  # s
    stood_still: Optional[Time] = None  # from here on, by the daemon's count
    is_dumped: bool = False
    dumped: Optional[Time] = None
    runs: dict = dataclasses.field(default_factory=dict)  # by log: the number of the run it is of
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
        times = [*(times[0] for times in self.reports.values()), self.dumped]
        return min(filter(None, times), key=lambda time: time.clock == "uptime", default=None)

    @property
    def since(self):
        if self.stood_still or not self.time or not self.timeout:
            return self.stood_still
        return self.time.minus(self.timeout)

    def may_be(self, condition, **known):
        return self.condition == condition and not any(
            value and getattr(self, key) not in (None, "", value) for key, value in known.items())

    def learn(self, **known):
        vars(self).update({key: value for key, value in known.items() if value})


class Reader:
    """`hangs` has what the lines that were fed tell; finish() completes it."""

    def __init__(self):
        self.hangs = []
        self._threads, self._processes, self._stacks = {}, {}, {}  # by id
        self._wchans = set()
        self._runs = {"android": 0, "kernel": 0}  # numbers the daemon's runs and the kernel's
        self._standing = None  # what the daemon has just told to stand still
        self._stack = None  # whose lines are read
        self._last = None  # the hang whose report was read last
        self._read = set()

    def start_file(self):
        """Two files that have the kernel's log have it from different boots."""
        self._start_run("kernel")

    def feed(self, line):
        """Takes a line, as bytes. Returns the event that it tells of, if any."""
        if self._stack is None and not TELLING.search(line):
            return None
        time, tag, text = split_form(line.decode("utf-8", "replace").strip("\0\r\n "))
        if tag == "tovrel":
            return self._read_daemon(time, text)
        if tag is None:
            self._read_stacks(text)
            if match := REPORT.fullmatch(text):
                return self._reported("kernel", time, match)
        return self._read_system(time, text)

    def finish(self):
        for hang in self.hangs:
            hang.thread = hang.thread or self._threads.get(hang.tid, "")
            hang.process = hang.process or self._processes.get(hang.pid, "")
            hang.stack = hang.stack or self._stacks.get(hang.tid, [])

    def _start_run(self, log):
        self._runs[log] += 1
        self._standing = self._stack = self._last = None

    def _read_daemon(self, time, text):
        if match := STANDING.fullmatch(text) or BINDER_STANDING.fullmatch(text):
            return self._stands(time, match)
        if match := DUMPED.fullmatch(text):
            return self._dumped(time, match)
        if match := REPORT.fullmatch(text):
            return self._reported("android", time, match)
        if match := FOUND.fullmatch(text):
            name, pid = match["process"] or match["iowait"], match["pid"] or match["iowait_pid"]
            self._processes[number(pid)] = name
            return Event("found", f"{name}, process {pid}" if pid else name, time)
        if text.startswith("killing "):
            return self._acted(time, text)
        if text == NOTHING:
            return self._unwritten_report(time)
        if text == SELF_STUCK:
            hang = Hang("self stuck", process="tovrel", text=text)
            self.hangs.append(hang)
            return self._report(hang, "android", time) and self._acted(time, "restart")
        if text == "started":
            self._start_run("android")
        return None

    def _stands(self, time, match):
        told = match.groupdict()
        tid, wchan = number(told["tid"]), told.get("wchan")
        is_new = wchan is not None and tid not in self._threads
        self._threads[tid] = told["thread"]
        self._wchans.add(wchan)
        self._standing = Hang(condition_of(told["state"], wchan), tid, thread=told["thread"],
                              stood_still=time and time.minus(int(told["count"]) / 1000))
        self._last = None
        return Event("found", f"{told['thread']}, thread {tid}", time) if is_new else None

    def _dumped(self, time, match):
        condition = None
        if match["ppid"]:
            condition = condition_of(match["state"], match["wchan"])
        task = self._standing_as(condition)
        condition = task.condition
        if self._is_read(time, match[0], task.tid):
            return None
        ids = {"tid": task.tid, "pid": number(match["pid"]), "ppid": number(match["ppid"])}
        hang = self._find("android", condition, **ids)
        if hang is None or hang.is_dumped or "android" in hang.reports:
            hang = Hang(condition)
            self.hangs.append(hang)
        hang.learn(thread=task.thread, process=match["process"], is_dumped=True, dumped=time,
                   stood_still=task.stood_still, **ids)
        hang.runs["android"] = self._runs["android"]
        return Event("dumped", f"{hang.task or hang.pid} in {condition}", time)

    def _reported(self, log, time, match):
        wchan, timeout = match["wchan"], match["timeout"]
        if wchan is not None:
            wchan, timeout = self._split_wait(wchan + timeout)
        condition = condition_of(match["state"], wchan, match["missing"])
        task = self._standing_as(condition)
        self._last = None
        if self._is_read(log, time, match[0]):
            return None
        ids = {"tid": number(match["tid"]) or task.tid, "pid": number(match["pid"]),
               "ppid": number(match["ppid"]), "thread": match["thread"] or task.thread}
        hang = self._find(log, condition, **ids)
        if hang is None:
            hang = Hang(condition)
            self.hangs.append(hang)
        hang.learn(timeout=int(timeout), text=match[0], **ids)
        return self._report(hang, log, time)

    def _unwritten_report(self, time):
        """Under the policy "nothing" the log has all but the report itself."""
        task, self._standing = self._standing, None
        if task is None or self._is_read(time, NOTHING, task.tid):
            return None
        hang = self._find("android", task.condition, tid=task.tid, thread=task.thread)
        if hang is None:
            hang = task
            self.hangs.append(hang)
        self._report(hang, "android", time)
        return self._acted(time, "nothing")

    def _report(self, hang, log, time):
        hang.runs[log] = self._runs[log]
        hang.reports.setdefault(log, []).append(time)
        hang.stack = self._stacks.get(hang.tid, hang.stack)
        self._last = hang
        is_first = sum(map(len, hang.reports.values())) == 1
        return Event("reported", hang.text, time) if is_first else None

    def _acted(self, time, act):
        hang = self._last
        if hang is None or hang.act == act:
            return None
        hang.act = act
        return Event("acted", f"{act}: {hang.task or hang.text}", time)

    def _read_stacks(self, text):
        if self._stack is not None and FRAME.fullmatch(text):
            self._stack.append(text)
        elif match := TASK.fullmatch(text):
            tid = int(match["tid"] or match["old_tid"])
            self._threads[tid] = match["name"] or match["old_name"]
            self._stack = self._stacks[tid] = []
        elif not STACK_TITLE.fullmatch(text):
            self._stack = None

    def _read_system(self, time, text):
        if match := TOMBSTONE.fullmatch(text):
            self._threads[int(match["tid"])] = match["thread"]
            self._processes[int(match["pid"])] = match["process"].rsplit("/", 1)[-1]
        elif match := ACT.fullmatch(text):
            return self._acted(time, "reboot" if match["reboot"] else "crash")
        elif BOOT.fullmatch(text):
            self._start_run("kernel")
        return None

    def _standing_as(self, condition):
        """The task that stands still, unless the log tells of another condition next."""
        task = self._standing
        return task if task and condition in (None, task.condition) else Hang(condition or "-")

    def _find(self, log, condition, **known):
        """The hang that a line in a log is about."""
        hangs = [hang for hang in self.hangs if hang.may_be(condition, **known)
                 and hang.runs.get(log, self._runs[log]) == self._runs[log]]
        behind = [hang for hang in hangs if len(hang.reports.get(log, ())) < hang.reported]
        return (behind[:1] or hangs[-1:] or [None])[0]

    def _is_read(self, time, *line):
        """Whether this line was read before, in another copy of the log."""
        if time is None or (time, line) in self._read:
            return time is not None
        self._read.add((time, line))
        return False

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
            return time_of(**part), part.get("tag"), part["text"].strip()
    return None, None, line


def time_of(date=None, clock=None, seconds=None, human=None, **_):
    try:
        if seconds:
            return Time(float(seconds), "year" if float(seconds) > 1e8 else "uptime")
        if human:
            return Time(calendar.timegm(clocks.strptime(human, "%b %d %H:%M:%S %Y")), "year")
        if date:
            # Without a year any leap year will do.
            whole = date if len(date) > 5 else "2000-" + date
            parsed = clocks.strptime(f"{whole} {clock}", "%Y-%m-%d %H:%M:%S")
            return Time(calendar.timegm(parsed), "year" if whole == date else "date")
    except ValueError:
        pass
    return None


def condition_of(state, wchan, missing=None):
    if state and state in "DTZ":
        return state
    if wchan is not None:
        return f"wchan {wchan}"
    return "missing" if missing or state == "?" else "unswitch"


def number(text):
    """An id; None if it is not known."""
    return int(text) if text and int(text) != UNKNOWN else None


def table(rows, width=None):
    """Lines of rows of texts in columns, cut to the width."""
    widths = [max(map(len, column)) for column in zip(*rows)]
    for row in rows:
        line = "  ".join(text.ljust(size) for text, size in zip(row, widths)).rstrip()
        yield line if not width or len(line) <= width else line[:width - 3] + "..."


def tell(event, start):
    """Prints a line about an event, with the seconds since the start."""
    after = f"{event.time.seconds - start.seconds:3.0f} s" if event.time and start else ""
    colour = {"dumped": "yellow", "reported": "red"}.get(event.kind)
    print(f"{after:>5}  {paint(event.kind.ljust(8), colour)}  {event.text}", flush=True)


def paint(text, colour):
    """The text in a colour, on a terminal of somebody who wants that."""
    if not colour or not sys.stdout.isatty() or os.environ.get("NO_COLOR"):
        return text
    return f"\033[{ {'red': 31, 'green': 32, 'yellow': 33}[colour]}m{text}\033[0m"
