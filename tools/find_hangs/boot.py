"""What the lines of one boot tell together: its hangs."""
import dataclasses

from . import prefixes
from .contents import Kind
from .hang import ECHO, LATER, Hang, fits, is_within, may_be_same, timeout_behind

DUMP_AFTER_REPORT = 10  # s; the policy "panic" asks for stacks once more
ACT_AFTER_REPORT = 60  # s; the stacks of many tasks on a slow console
LONGEST_STACK = 64
LINES_IN_STACK = 200  # of others, until a stack counts as ended


@dataclasses.dataclass(slots=True)
class Stack:
    thread: str
    time: prefixes.Time
    frames: list = dataclasses.field(default_factory=list)
    others: int = 0  # lines of others since its last


class Boot:
    def __init__(self, source, is_last=None):
        self.source = source  # as people read it
        self.is_last = is_last  # whether a bug report has it from the boot before; or unknown
        self.hangs = []
        self.processes = {}  # names by id
        self.uptime = 0  # s, by the kernel's line read last
        self.has_begun = False  # whether the log tells of more than its begin
        self._told = None  # the hang told of last
        self._standing = self._standing_time = None  # the task told of in the line before
        self._latest = {}  # hangs by what tells them apart
        self._stacks, self._open = {}, {}  # by thread, and by who is writing one

    def is_in_stack(self):
        return bool(self._open)

    def start_log(self, source):
        """Another log of this boot follows."""
        self.source, self.uptime, self.has_begun = source, 0, False
        self._told = self._standing = None
        self._open.clear()

    def forget(self):
        """Drops all but its source."""
        self.__init__(self.source, self.is_last)

    def take(self, piece, told):
        """Takes what a piece tells."""
        if piece.writer in (prefixes.KERNEL, prefixes.UNKNOWN):
            self._follow_stack(piece, told)
        if told is None:
            return
        self.has_begun = True
        if told.kind is Kind.STANDS:
            self._standing, self._standing_time = told, piece.time
        elif told.kind is Kind.DUMPED:
            self._dump(piece.time, told)
        elif told.kind is Kind.REPORTED:
            self._report(piece, told)
        elif told.kind is Kind.ACTED:
            self._act(piece.time, told.text)
        elif told.kind is Kind.PROCESS:
            self.processes[told.pid] = told.process

    def _dump(self, time, told):
        hang = self._hang_of(told)
        before = self._same(hang)
        if before and time.is_known() and before.dumped == time:
            return  # a copy of the line
        hang.learn(dumped=time)
        self._add(hang)
        self._complete(hang, time)

    def _report(self, piece, told):
        new = self._hang_of(told)
        if new.condition == "self stuck":
            new.learn(process="tovrel", tid=piece.pid, pid=piece.pid)
        hang = self._same(new)
        if hang is None or not self._continues(hang, piece.time, new.timeout):
            hang = new
            self._add(hang)
        elif hang.text == new.text and hang.reported and self._is_echo(hang, piece):
            return
        parts = {field: getattr(new, field) for field in (
            "wchan", "tid", "pid", "ppid", "thread", "process", "since", "timeout", "text")}
        hang.learn(**parts)
        if hang.timeout:
            hang.learn(since=piece.time.minus(hang.timeout))
        hang.reported.append(piece.time)
        hang.writer, self._told = piece.writer, hang
        self._complete(hang, piece.time)
        if told.text in ("nothing", "restarting"):
            self._act(piece.time, told.text)

    def _act(self, time, act):
        hang = self._told
        if hang and hang.acted < len(hang.reported) \
                and is_within(hang.last, time, ACT_AFTER_REPORT):
            hang.act, hang.acted = act, len(hang.reported)

    def _is_echo(self, hang, piece):
        """Whether the hang has this report, from the other log or from a copy of this one."""
        if piece.writer != hang.writer:
            return is_within(hang.last, piece.time, ECHO)
        return piece.time.is_known() and piece.time in hang.reported[-4:]

    @staticmethod
    def _continues(hang, time, timeout):
        """Whether the task can have stood still until then. It is reported each half time-out; it
        moved if that took a whole one, unless the dumps are told, of which there was none.
        """
        most = timeout or hang.timeout or timeout_behind(hang.wchan) or float("inf")
        return is_within(hang.last, time, 10 * most if hang.dumped else most - 1)

    def _hang_of(self, told):
        """A new hang, with what the daemon has told in the line before."""
        hang = Hang(self, self.source, told.condition, told.wchan, told.tid, told.pid, told.ppid,
                    told.thread, told.process, timeout=told.timeout)
        if told.kind is Kind.REPORTED and told.pid:
            hang.text = told.text
        standing, self._standing = self._standing, None
        if standing and fits(standing, told):
            hang.learn(condition=standing.condition, tid=standing.tid, thread=standing.thread,
                       since=self._standing_time.minus(standing.count / 1000)
                       if told.kind is Kind.DUMPED else None)
            if hang.condition == "wchan":
                hang.timeout = int(told.wchan.removeprefix(standing.wchan) or 0)
                hang.wchan = standing.wchan
        return hang

    @staticmethod
    def _keys(hang):
        """What tells a hang apart, the surest first; a report does not have all of it."""
        if hang.tid:
            yield hang.condition, "thread", hang.tid
        if hang.condition == "missing" and hang.thread:
            yield hang.condition, hang.pid, hang.thread
            yield hang.condition, None, hang.thread
        elif hang.pid or hang.condition == "self stuck":
            yield hang.condition, hang.pid

    def _add(self, hang):
        self.hangs.append(hang)
        for key in self._keys(hang):
            self._latest[key] = hang
        self._told = hang

    def _same(self, new):
        """The hang of the same task told of before, if any."""
        for key in self._keys(new):
            hang = self._latest.get(key)
            if hang and may_be_same(hang, new):
                if new.tid and not hang.tid:
                    self._latest[new.condition, "thread", new.tid] = hang
                return hang
        return None

    def _complete(self, hang, time):
        hang.learn(process=self.processes.get(hang.pid))
        stack = self._stacks.get(hang.tid)
        since = hang.since or time
        # A dump of all blocked tasks comes at half the time-out of any of them.
        if stack and not hang.stack and hang.condition in ("D", "T") \
                and is_within(since, stack.time, LATER) and is_within(stack.time, time, LATER):
            self._give(hang, stack)

    def _give(self, hang, stack):
        hang.learn(dumped=stack.time, thread=stack.thread)
        hang.stack = stack.frames
        if not stack.time.is_known():
            hang.likely = ["stack"]

    def _follow_stack(self, piece, told):
        kind = told and told.kind
        stack = self._open.get(piece.caller)
        if kind is Kind.TASK:
            self._open[piece.caller] = self._stacks[told.tid] = Stack(told.thread, piece.time)
            hang = self._latest.get(("D", "thread", told.tid))
            if hang and hang.reported and not hang.stack \
                    and is_within(hang.last, piece.time, DUMP_AFTER_REPORT):
                self._give(hang, self._stacks[told.tid])
        elif stack and kind is Kind.FRAME:
            stack.others = 0
            if len(stack.frames) < LONGEST_STACK:
                stack.frames.append(told.text)
        elif stack and kind is not Kind.INSIDE:
            del self._open[piece.caller]
        for caller, stack in list(self._open.items()):
            stack.others += 1
            if stack.others > LINES_IN_STACK:
                del self._open[caller]
