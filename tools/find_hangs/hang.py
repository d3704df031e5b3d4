"""A task that stands still, and what tells two of them apart."""
import dataclasses
import re

from . import prefixes

ECHO = 1.5  # s between the daemon's line about a report and the kernel's
USUAL_TIMEOUTS = range(10, 3601)  # s; those that the daemon's configuration may have


@dataclasses.dataclass(slots=True)
class Hang:
    """A task that stands still; what is not known is empty, 0 or None."""
    boot: int  # a number
    is_last: bool  # whether a bug report has it from the boot before; None if it is none
    source: str  # where it was found, as people read it
    condition: str = ""  # "D", "T", "Z", "unswitch", "missing", "wchan" or "self stuck"
    wchan: str = ""
    tid: int = None
    pid: int = None
    ppid: int = None
    thread: str = ""
    process: str = ""
    counted_from: prefixes.Time = None
    dumped: prefixes.Time = None
    reported: list = dataclasses.field(default_factory=list)
    timeout: int = 0  # s
    text: str = ""  # of the report
    writer: int = None  # of the last report
    act: str = ""
    stack: list = ()
    likely: list = ()  # the parts that may be another's

    @property
    def time(self):
        return self.reported[0] if self.reported else self.dumped

    @property
    def last(self):
        return self.reported[-1] if self.reported else self.dumped

    @property
    def since(self):
        """When it stood still, by the daemon's count or else the time-out before the report."""
        if self.counted_from or not (self.timeout and self.reported):
            return self.counted_from
        return self.reported[0].minus(self.timeout)

    def learn(self, parts, is_sure=True):
        """Fills gaps."""
        gaps = [name for name, value in parts.items() if value and not getattr(self, name)]
        for name in gaps:
            setattr(self, name, parts[name])
        if not is_sure:
            self.likely = [*self.likely, *gaps]

    def learn_from(self, other, is_sure=True):
        self.learn({part: getattr(other, part) for part in (
            "condition", "tid", "pid", "ppid", "thread", "process", "wchan", "timeout", "text",
            "act", "stack")}, is_sure)

    def fits(self, before):
        """Whether it can be the task told of before: nothing differs that both have."""
        self.split_wchan(before.wchan)
        parts = ["condition", "tid", "pid", "ppid", "wchan", "timeout"]
        if self.condition == "missing":
            parts.append("thread")
        pairs = [(getattr(self, part), getattr(before, part)) for part in parts]
        return all(mine == its for mine, its in pairs if mine and its)

    def split_wchan(self, wchan):
        """Splits wait channel and time-out; a report has nothing between them."""
        rest = self.wchan.removeprefix(wchan)
        if self.text and not self.timeout and re.fullmatch(r"[1-9]\d{0,8}", rest):
            self.wchan, self.timeout = wchan, int(rest)

    def likely_timeout(self, timeouts=()):
        """The time-out of the report, or that behind the wait channel: one of those that other
        reports have if it is possible.
        """
        digits = re.search(r"\d{0,9}$", self.wchan)[0]
        ends = [int(digits[start:]) for start, digit in enumerate(digits) if digit != "0"]
        likeliest = max(ends, default=0,
                        key=lambda end: (end in timeouts, end in USUAL_TIMEOUTS, end))
        return self.timeout or likeliest


def is_within(earlier, later, most=float("inf")):
    """Whether the one time comes before the other, by at most so many seconds. Where a log has no
    times it does.
    """
    return earlier.clock == later.clock and -ECHO <= later.seconds - earlier.seconds <= most
