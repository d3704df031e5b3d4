"""What the lines of one boot tell together: its hangs."""
import itertools

from . import prefixes
from .hang import ECHO, Hang, is_within

DUMP_AFTER_REPORT = 10  # s; the policy "panic" asks for stacks once more
ACT_AFTER_REPORT = 60  # s; the stacks of many tasks on a slow console
LONGEST_STACK = 64
LINES_IN_STACK = 200  # of others, until all stacks count as ended
NUMBERS = itertools.count()


class Boot:
    def __init__(self, source, is_last=None):
        self.is_last = is_last  # whether a bug report has it from the boot before; or unknown
        self.hangs = []
        self._number = next(NUMBERS)
        self._processes = {}  # names by id
        self._latest = {}  # hangs by what tells them apart
        self._stacks, self.open_stacks = {}, {}  # by thread, and by who is writing one
        self._others = 0  # lines of others since the last of a stack
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
            self._dump(self._hang(dumped=piece.time, **parts))
        elif kind == "reported":
            self._report(piece, **parts)
        elif kind == "acted":
            self._act(piece.time, **parts)
        elif kind == "process":
            self._processes[parts["pid"]] = parts["process"]

    def _hang(self, **parts):
        return Hang(self._number, self.is_last, self.source, **parts)

    def _stand(self, time, count, **parts):
        self._standing = self._hang(counted_from=time.minus(count / 1000), **parts)

    def _dump(self, hang):
        self._learn_standing(hang)
        before = self._same(hang)
        is_copy = before and hang.dumped.is_known() and before.dumped == hang.dumped
        if not is_copy:
            self._add(hang)

    def _report(self, piece, act=None, **parts):
        new = self._hang(reported=[piece.time], writer=piece.writer, **parts)
        self._learn_standing(new)
        if new.condition == "self stuck":
            new.learn({"process": "tovrel", "tid": piece.pid, "pid": piece.pid})
        hang = self._same(new)
        if not hang or not continues(hang, new):
            self._add(new)
        elif is_echo(hang, new):
            return
        else:
            hang.learn_from(new)
            hang.reported.append(piece.time)
            hang.writer = piece.writer
            self._complete(hang)
        if act:
            self._act(piece.time, act)

    def _act(self, time, act):
        hang = self._told
        if hang and hang.reported and is_within(hang.last, time, ACT_AFTER_REPORT):
            hang.act, self._told = act, None

    def _learn_standing(self, hang):
        """Gives a hang what the line before told of it."""
        standing, self._standing = self._standing, None
        if standing and hang.condition != "self stuck" and hang.fits(standing):
            hang.learn_from(standing)
            # The count starts over with the dump.
            hang.counted_from = hang.dumped and standing.counted_from

    def _same(self, new):
        """The hang of the same task told of before, if any."""
        for key in keys(new):
            hang = self._latest.get(key)
            if hang and new.fits(hang):
                return hang
        return None

    def _add(self, hang):
        self.hangs.append(hang)
        self._complete(hang)

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
        self._others += 1
        if kind == "task":
            stack = self._hang(dumped=piece.time, stack=[], **parts)
            self.open_stacks[piece.caller] = self._stacks[stack.tid] = stack
            hang = self._latest.get(("D", "thread", stack.tid))
            if hang and hang.reported and is_within(hang.last, stack.dumped, DUMP_AFTER_REPORT):
                give(hang, stack)
        elif kind == "frame" and piece.caller in self.open_stacks:
            stack = self.open_stacks[piece.caller].stack
            if len(stack) < LONGEST_STACK:
                stack.append(parts["frame"])
        elif kind != "inside":
            self.open_stacks.pop(piece.caller, None)
        if kind in ("task", "frame"):
            self._others = 0
        elif self._others > LINES_IN_STACK:
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


def is_echo(hang, new):
    """Whether the hang has this report, from the other log or from a copy of this one."""
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
