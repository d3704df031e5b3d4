"""What the lines of one boot tell together: its hangs."""
import itertools

from . import prefixes
from .hang import ECHO, Hang, is_within

DUMP_AFTER_REPORT = 10  # s; the policy "panic" asks for stacks once more
ACT_AFTER_REPORT = 60  # s; the stacks of many tasks on a slow console
LINES_IN_STACKS = 400  # until all count as ended
NUMBERS = itertools.count()


class Boot:
    def __init__(self, source, is_last=None):
        self.is_last = is_last  # whether a bug report has it from the boot before; or unknown
        self.hangs = []
        self._number = next(NUMBERS)
        self._processes = {}  # names by id
        self._latest = {}  # hangs by what tells them apart
        self._stacks, self.open_stacks = {}, {}  # by thread, and by who is writing one
        self._lines_since_task = 0  # of the kernel, since a stack began
        self.start_log(source)

    def start_log(self, source):
        """A log of this boot follows."""
        self.source = source  # as people read it
        self.uptime = 0  # s, by the kernel's line read last
        self.has_begun = False  # whether the log tells of more than its begin
        self._told = None  # the hang told of last, until it is acted on
        self._standing = None  # the task told of in the line before
        self.open_stacks.clear()

    def take(self, piece, kind, parts):
        """Takes what a piece tells."""
        if piece.writer in (prefixes.KERNEL, prefixes.UNKNOWN):
            self._follow_stack(piece, kind, parts)
        self.has_begun |= kind is not None
        if kind == "stands":
            self._stand(piece.time, **parts)
        elif kind == "dumped":
            self._tell(self._hang(dumped=piece.time, **parts))
        elif kind == "reported":
            act = parts.pop("act", None)
            self._tell(self._hang(reported=[piece.time], writer=piece.writer, **parts))
            self._act(piece.time, act)
        elif kind == "acted":
            self._act(piece.time, parts["act"])
        elif kind == "process":
            self._processes[parts["pid"]] = parts["process"]

    def _hang(self, **parts):
        return Hang(self._number, self.is_last, self.source, **parts)

    def _stand(self, time, count, **parts):
        self._standing = self._hang(counted_from=time.minus((count or 0) / 1000), **parts)

    def _tell(self, new):
        """Takes a task that is dumped or reported."""
        standing, self._standing = self._standing, None
        if standing and new.condition != "self stuck" and new.fits(standing):
            new.learn_from(standing)
            # The count starts over with the dump.
            new.counted_from = new.dumped and standing.counted_from
        latest = (self._latest.get(key) for key in keys(new))
        hang = next((hang for hang in latest if hang and new.fits(hang)), None)
        if hang and is_copy(hang, new):
            return
        if hang and new.reported and continues(hang, new):
            hang.learn_from(new)
            hang.reported += new.reported
            hang.writer = new.writer
        else:
            hang = new
            self.hangs.append(hang)
        self._complete(hang)

    def _act(self, time, act):
        hang = self._told
        if act and hang and hang.reported and is_within(hang.last, time, ACT_AFTER_REPORT):
            hang.act, self._told = act, None

    def _complete(self, hang):
        """Gives what was told before of other things to a hang, now the one told of last."""
        self._told = hang
        self._latest.update((key, hang) for key in keys(hang))
        hang.learn({"process": self._processes.get(hang.pid)})
        stack = self._stacks.get(hang.tid)
        # A dump of all blocked tasks comes at half the time-out of any of them.
        if stack and hang.condition in ("D", "T") and is_within(stack.dumped, hang.last) \
                and is_within(hang.since or hang.last, stack.dumped):
            give(hang, stack)

    def _follow_stack(self, piece, kind, parts):
        self._lines_since_task += 1
        if kind == "task":
            self._lines_since_task = 0
            stack = self._hang(dumped=piece.time, stack=[], **parts)
            self.open_stacks[piece.caller] = self._stacks[stack.tid] = stack
            hang = self._latest.get(("D", "thread", stack.tid))
            if hang and hang.reported and is_within(hang.last, stack.dumped, DUMP_AFTER_REPORT):
                give(hang, stack)
        elif kind == "frame" and piece.caller in self.open_stacks:
            self.open_stacks[piece.caller].stack.append(parts["frame"])
        elif kind != "inside":
            self.open_stacks.pop(piece.caller, None)
        if self._lines_since_task > LINES_IN_STACKS:
            self.open_stacks.clear()


def keys(hang):
    """What tells a hang apart, the surest first; a report does not have all of it."""
    if hang.tid:
        yield hang.condition, "thread", hang.tid
    if hang.condition == "missing":
        yield hang.condition, hang.pid, hang.thread
        yield hang.condition, None, hang.thread
    elif hang.pid or hang.condition == "self stuck":
        yield hang.condition, hang.pid


def continues(hang, new):
    """Whether the task can have stood still until the new report. It is reported each half
    time-out; it moved if that took a whole one, unless the dumps are told, of which there was none.
    """
    most = new.timeout or hang.likely_timeout() or float("inf")
    return is_within(hang.last, new.last, 10 * most if hang.dumped else most - 1)


def is_copy(hang, new):
    """Whether the hang has this dump or report, from the other log or twice from one."""
    if new.dumped:
        return new.dumped.is_known() and new.dumped == hang.dumped
    if hang.text != new.text or not hang.reported:
        return False
    if hang.writer != new.writer:
        return is_within(hang.last, new.last, ECHO)
    return new.last.is_known() and new.last in hang.reported[-4:]


def give(hang, stack):
    if hang.stack:
        return
    hang.learn({"dumped": stack.dumped, "thread": stack.thread})
    hang.stack = stack.stack  # and the frames that follow
    if not stack.dumped.is_known():
        hang.likely = ["stack"]
