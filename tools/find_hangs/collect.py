"""Collects the hangs of many texts: counts copies once, and joins the logs of one boot."""
import collections
import hashlib

from . import prefixes
from .hang import LATER, is_within, split_wchan
from .reader import Reader

CRASH_AFTER_REPORT = 600  # s; a blocked process leaves its dump when it can run again
DAY = 86400  # s; what logs of one boot lie apart at most
NAMES = "thread", "process"


class Family:
    """The texts of one archive or directory, taken for those of one device."""

    def __init__(self):
        self.boots = []
        self._crashes = collections.defaultdict(list)  # times and names, by process and thread
        self._dates = {}  # the first and the last, by clock

    def add_date(self, time):
        first, last = self._dates.get(time.clock, (time, time))
        self._dates[time.clock] = min(first, time), max(last, time)

    def add_crash(self, log_time, file_time, told):
        """A thread that a tombstone names."""
        time = log_time if log_time.is_known() else file_time
        self._crashes[told.pid, told.tid].append((time, told))

    def close(self):
        """The hangs, completed by all that the family tells."""
        timeouts = {hang.timeout for boot in self.boots for hang in boot.hangs if hang.timeout}
        for boot in self.boots:
            for hang in boot.hangs:
                if hang.condition == "wchan" and hang.text and not hang.timeout:
                    split_wchan(hang, timeouts)
        dropped = join([hang for boot in self.boots for hang in boot.hangs])
        for boot in self.boots:
            boot.hangs = [hang for hang in boot.hangs if id(hang) not in dropped]
            for hang in boot.hangs:
                self._name(hang)
                yield hang
            boot.forget()

    def _name(self, hang):
        for time, told in reversed(self._crashes.get((hang.pid, hang.tid or hang.pid), [])):
            is_sure = self._is_of(hang, time)
            if is_sure is not False:
                learn(hang, {"thread": hang.tid and told.thread, "process": told.process}, is_sure)

    def _is_of(self, hang, crash):
        """Whether the crash dump is of this hang; None if it only may be."""
        if hang.time.clock == prefixes.DAY and crash.clock == prefixes.DATE:
            crash = crash.without_year()
        if crash.is_known() and hang.time.clock == crash.clock:
            return is_within(hang.since or hang.time, crash, LATER) \
                and is_within(crash.minus(CRASH_AFTER_REPORT), hang.last, LATER)
        first, last = self._dates.get(crash.clock, (crash, crash))
        if not first.seconds - DAY <= crash.seconds <= last.seconds + DAY:
            return False
        return None


class Collector:
    """Reads texts; has all hangs when it is closed."""

    def __init__(self):
        self.hangs = []
        self.lines = self.unreadable = 0
        self.first_unreadable = ""
        self._families = collections.defaultdict(Family)
        self._archives = []  # the families that are archives, each within the one before
        self._digests, self._known = set(), {}  # of texts, and hangs by their moments

    def read(self, text):
        while self._archives and not f"{text.family}:".startswith(f"{self._archives[-1]}:"):
            self._close(self._archives.pop())
        if text.is_member and text.family not in self._archives:
            self._archives.append(text.family)
        family, digest = self._families[text.family], hashlib.sha1()
        reader = Reader(text, family, self._add_unreadable)
        for block in text.blocks:
            digest.update(block)
            reader.read(block)
        self.lines += reader.lines
        if digest.digest() not in self._digests:
            self._digests.add(digest.digest())
            family.boots += reader.boots
            self._drop_copies(reader.boots)

    def _drop_copies(self, boots):
        """Drops what other texts have told, and keeps what only these tell of it."""
        for boot in boots:
            kept = []
            for hang in boot.hangs:
                same = next((self._known[moment] for moment in moments(hang)
                             if moment in self._known), None)
                if same:
                    complete(same, hang)
                else:
                    kept.append(hang)
            boot.hangs = kept
        for boot in boots:
            for hang in boot.hangs:
                self._known.update((moment, hang) for moment in moments(hang))

    def close(self):
        for name in list(self._families):
            self._close(name)

    def _close(self, name):
        self.hangs += self._families.pop(name).close()

    def _add_unreadable(self, place):
        self.unreadable += 1
        self.first_unreadable = self.first_unreadable or place


def moments(hang):
    """What no other hang has: when the task was dumped and reported."""
    for time in (hang.dumped, *hang.reported):
        if time and time.is_known():
            yield identity(hang), time


def identity(hang):
    """What the reports of one hang have in common in every log."""
    if hang.condition in ("D", "T", "unswitch"):
        return hang.condition, hang.pid, hang.tid
    return hang.condition, hang.pid, hang.thread if hang.condition == "missing" else None


def join(hangs):
    """Makes one of the hangs that the kernel's and the Android log of a boot tell of. Returns the
    ids of those that are dropped.
    """
    groups, dropped = collections.defaultdict(list), set()
    for hang in hangs:
        groups[identity(hang)].append(hang)
    for group in groups.values():
        boots = collections.defaultdict(list)
        for hang in group:
            boots[id(hang.boot)].append(hang)
        for of_boot in boots.values():
            dropped |= join_clocks(of_boot, True)
        dropped |= join_clocks([hang for hang in group if id(hang) not in dropped], False)
    return dropped


def join_clocks(hangs, is_sure):
    """Joins hangs of the kernel's clock with those of the other; the last are in both logs."""
    by_clock = [[], []]
    for hang in hangs:
        if hang.time.is_known():
            by_clock[hang.time.clock == prefixes.UPTIME].append(hang)
    boots = [{id(hang.boot) for hang in part} for part in by_clock]
    # Of several boots' logs none is known to belong to another one's.
    if not is_sure and (list(map(len, boots)) != [1, 1] or boots[0] == boots[1]):
        return set()
    dropped = set()
    for dated, kernel in zip(*map(reversed, by_clock)):
        lasts = {dated.boot.is_last, kernel.boot.is_last}
        if {True, False} <= lasts or dated.text and kernel.text and dated.text != kernel.text:
            continue
        kept, gone = (dated, kernel) if dated.reported or not kernel.reported else (kernel, dated)
        complete(kept, gone, is_sure)
        dropped.add(id(gone))
    return dropped


def complete(hang, other, is_sure=True):
    """Gives it what another log tells of it."""
    parts = {name: getattr(other, name) for name in (
        "tid", "ppid", *NAMES, "wchan", "timeout", "text", "act", "stack")}
    learn(hang, parts, is_sure)
    if hang.time.clock == other.time.clock:
        hang.learn(since=other.since, dumped=other.dumped)
        hang.reported = sorted({*hang.reported, *other.reported})


def learn(hang, parts, is_sure):
    news = [name for name, value in parts.items() if value and not getattr(hang, name)]
    hang.learn(**parts)
    if not is_sure:
        hang.likely = [*hang.likely, *news]
