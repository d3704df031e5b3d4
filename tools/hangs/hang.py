"""A task that stands still, and what tells two of them apart."""
import dataclasses
import re

from . import prefixes
from .contents import Kind

ECHO = 1.5  # s between the daemon's line about a report and the kernel's
TIMEOUT = r"[1-9]\d{0,8}"
USUAL_TIMEOUTS = range(10, 3601)  # s; those that the daemon's configuration may have


@dataclasses.dataclass(slots=True)
class Hang:
    """A task that stands still; what is not known is empty, 0 or None."""
    boot: object
    source: str  # where it was found
    condition: str = ""  # "D", "T", "Z", "unswitch", "missing", "wchan" or "self stuck"
    wchan: str = ""
    tid: int = None
    pid: int = None
    ppid: int = None
    thread: str = ""
    process: str = ""
    since: prefixes.Time = None
    dumped: prefixes.Time = None
    reported: list = dataclasses.field(default_factory=list)
    timeout: int = 0
    text: str = ""  # of the report
    writer: int = None  # of the last report
    act: str = ""
    acted: int = 0  # the reports until the act
    stack: list = dataclasses.field(default_factory=list)
    likely: list = dataclasses.field(default_factory=list)  # the parts that may be another's

    @property
    def time(self):
        return (self.reported or [self.dumped])[0]

    @property
    def last(self):
        return (self.reported or [self.dumped])[-1]

    def learn(self, **parts):
        """Fills gaps."""
        for name, value in parts.items():
            if value and not getattr(self, name):
                setattr(self, name, value)


def passed(earlier, later):
    """Seconds between times of one clock; 0 where a log has no times, None if not comparable."""
    if earlier is None or earlier.clock != later.clock:
        return None
    return later.seconds - earlier.seconds


def is_within(earlier, later, most):
    seconds = passed(earlier, later)
    return seconds is not None and -ECHO <= seconds <= most


def fits(standing, told):
    """Whether the task told to stand still is the one of this dump or report."""
    if told.condition == "self stuck":
        return False
    if told.condition == "wchan":
        if told.kind is Kind.DUMPED:
            return told.wchan == standing.wchan
        rest = told.wchan.removeprefix(standing.wchan)
        return rest != told.wchan and bool(re.fullmatch(TIMEOUT, rest))
    return all(a == b for a, b in ((standing.condition, told.condition), (standing.tid, told.tid),
                                   (standing.thread, told.thread)) if a and b)


def may_be_same(hang, new):
    """Whether the reported hang, known by part of its ids, can be the one told of before."""
    if any(a != b for a, b in ((new.tid, hang.tid), (new.ppid, hang.ppid),
                               (new.timeout, hang.timeout)) if a and b):
        return False
    if new.wchan == hang.wchan or not new.text:
        return True
    rest = new.wchan.removeprefix(hang.wchan)
    if new.timeout or not re.fullmatch(TIMEOUT, rest):
        return False
    new.timeout = int(rest)
    return True


def split_wchan(hang, timeouts):
    """Parts wait channel and time-out, which have nothing between them."""
    digits = re.search(r"[1-9]?\d*$", hang.wchan)[0]
    ends = [digits[i:] for i in range(len(digits)) if digits[i] != "0"]
    known = [end for end in ends if int(end[-9:]) in timeouts and len(end) < 10]
    usual = [end for end in ends if len(end) < 10 and int(end) in USUAL_TIMEOUTS]
    if end := next(iter(known or usual or ends), ""):
        hang.wchan, hang.timeout = hang.wchan[:-len(end)], int(end[-9:])
        hang.since = hang.reported[0].minus(hang.timeout)
