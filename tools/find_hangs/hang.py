"""A task that stands still, and what tells two of them apart."""
import dataclasses
import re

from . import prefixes
from .contents import Kind

ECHO = 1.5  # s between the daemon's line about a report and the kernel's
LATER = float("inf")  # s; any
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
    stack: list = ()
    likely: list = ()  # the parts that may be another's

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


def is_within(earlier, later, most):
    """Whether the one time comes before the other, by at most so many seconds. Where a log has no
    times it does.
    """
    return earlier.clock == later.clock and -ECHO <= later.seconds - earlier.seconds <= most


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


def timeout_behind(wchan, timeouts=()):
    """The time-out behind a wait channel; nothing stands between them. If one of the time-outs,
    which other reports have, is possible, it is that one.
    """
    digits = re.search(r"\d{0,9}$", wchan)[0]
    ends = [int(digits[start:]) for start, digit in enumerate(digits) if digit != "0"]
    likeliest = [end for end in ends if end in timeouts] \
        + [end for end in ends if end in USUAL_TIMEOUTS] + ends
    return next(iter(likeliest), 0)


def split_wchan(hang, timeouts):
    if timeout := timeout_behind(hang.wchan, timeouts):
        hang.wchan, hang.timeout = hang.wchan.removesuffix(str(timeout)), timeout
        hang.since = hang.reported[0].minus(timeout)
