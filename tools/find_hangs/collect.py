"""Collects the hangs of many texts: counts copies once, and joins the logs of one boot."""
import collections
import hashlib

from . import prefixes
from .hang import is_within
from .reader import Reader

CRASH_AFTER_REPORT = 600  # s; a blocked process leaves its dump when it can run again
DAY = 86400  # s; what logs of one boot lie apart at most


class Family:
    """The texts of one archive or directory, taken for those of one device."""

    def __init__(self):
        self.hangs = []
        self._crashes = collections.defaultdict(list)  # times and names, by process and thread
        self._dates = {}  # the first and the last, by clock

    def add_date(self, time):
        first, last = self._dates.get(time.clock, (time, time))
        self._dates[time.clock] = min(first, time), max(last, time)

    def add_crash(self, time, parts):
        """A thread that a tombstone names."""
        self._crashes[parts["pid"], parts["tid"]].append((time, parts))

    def close(self):
        """The hangs, completed by all that the family tells."""
        timeouts = {hang.timeout for hang in self.hangs}
        for hang in self.hangs:
            hang.split_wchan(hang.wchan.removesuffix(str(hang.likely_timeout(timeouts))))
        hangs = join(self.hangs, lambda hang: (hang.boot, *identity(hang)), True)
        hangs = join(hangs, identity, False)
        for hang in hangs:
            self._name(hang)
        return hangs

    def _name(self, hang):
        """Gives the names that a crash dump of this hang has, or one that may be of it."""
        for time, parts in reversed(self._crashes.get((hang.pid, hang.tid or hang.pid), [])):
            if hang.time.clock == prefixes.DAY and time.clock == prefixes.DATE:
                time = time.without_year()
            is_sure = time.is_known() and time.clock == hang.time.clock
            if is_sure:
                first, last, most = hang.since or hang.time, hang.last, CRASH_AFTER_REPORT
            else:
                first, last = self._dates.get(time.clock, (time, time))
                first, most = first.minus(DAY), DAY
            if is_within(first, time) and is_within(time.minus(most), last):
                names = {"thread": hang.tid and parts["thread"], "process": parts["process"]}
                hang.learn(names, is_sure)


class Collector:
    """Reads texts; gives all hangs when it is closed."""

    def __init__(self):
        self.lines = self.unreadable = 0
        self.first_unreadable = ""
        self._families = collections.defaultdict(Family)
        self._digests, self._known = set(), {}  # of texts, and hangs by their moments

    def read(self, text):
        family, digest = self._families[text.family], hashlib.sha1()
        reader = Reader(text, family, self._add_unreadable)
        for block in text.blocks:
            digest.update(block.encode())
            reader.read(block)
        self.lines += reader.lines
        if digest.digest() not in self._digests:
            self._digests.add(digest.digest())
            hangs = [hang for boot in reader.boots for hang in boot.hangs]
            del reader  # and what only the boots need
            family.hangs += self._new_ones(hangs)

    def _new_ones(self, hangs):
        """The hangs of which no other text tells; the others complete those that it told of."""
        news = []
        for hang in hangs:
            copies = [self._known[moment] for moment in moments(hang) if moment in self._known]
            if copies:
                complete(copies[0], hang)
            else:
                news.append(hang)
        for hang in news:
            self._known.update((moment, hang) for moment in moments(hang))
        return news

    def close(self):
        self._known.clear()
        return [hang for family in self._families.values() for hang in family.close()]

    def _add_unreadable(self, place):
        self.unreadable += 1
        self.first_unreadable = self.first_unreadable or place


def moments(hang):
    """What no other hang has: when the task was dumped and reported."""
    for time in (hang.dumped, *hang.reported):
        if time and time.is_known():
            yield *identity(hang), time


def identity(hang):
    """What the reports of one hang have in common in every log."""
    if hang.condition in ("D", "T", "unswitch"):
        return hang.condition, hang.pid, hang.tid
    return hang.condition, hang.pid, hang.thread if hang.condition == "missing" else None


def join(hangs, key, is_sure):
    """The hangs, one for two with the same key in the kernel's and the Android log of a boot. The
    last ones are in both logs.
    """
    groups, dropped = collections.defaultdict(list), set()
    for hang in hangs:
        if hang.time.is_known():
            groups[key(hang)].append(hang)
    for group in groups.values():
        kernel = [hang for hang in group if hang.time.clock == prefixes.UPTIME]
        dated = [hang for hang in group if hang.time.clock != prefixes.UPTIME]
        boots = [{hang.boot for hang in logs} for logs in (dated, kernel)]
        # Of several boots' logs none is known to belong to another one's.
        if not is_sure and (boots[0] == boots[1] or max(map(len, boots)) > 1):
            continue
        for one, other in zip(reversed(dated), reversed(kernel)):
            if {one.is_last, other.is_last} >= {True, False} \
                    or one.text and other.text and one.text != other.text:
                continue
            if other.reported and not one.reported:
                one, other = other, one
            complete(one, other, is_sure)
            dropped.add(id(other))
    return [hang for hang in hangs if id(hang) not in dropped]


def complete(hang, other, is_sure=True):
    """Gives a hang what another log tells of it."""
    hang.learn_from(other, is_sure)
    if hang.time.clock == other.time.clock:
        hang.learn({"counted_from": other.counted_from, "dumped": other.dumped})
        hang.reported = sorted({*hang.reported, *other.reported})
