"""Finds the boots in one text, and the lines of each."""
import re

from . import contents, inputs, prefixes
from .boot import Boot
from .contents import Kind

SECTION = re.compile(r"------ (?P<title>\S.*?)(?: \(.*\))? ------")
LAST = re.compile("(?<![a-z])last|ramoops|pmsg", re.I)  # what a bug report has of the boot before
KERNEL_LOG = re.compile("kernel|kmsg|dmesg|ramoops|pstore", re.I)
UPTIME = re.compile(rb"(?:<\d+>)?\[ *(\d{1,9})\.\d")
DATES = prefixes.DATE, prefixes.DAY


class Reader:
    def __init__(self, text, family, tell_unreadable):
        self.lines = 0
        self.boots = []
        self._text, self._family, self._tell_unreadable = text, family, tell_unreadable
        self._sections = {}  # boots, by whether the bug report has them from the boot before
        self._has_uptime = True  # whether a number before a line is the kernel's uptime
        self._heading = None  # of the lines that follow it
        self._crash_time = prefixes.Time()  # of the tombstone
        member = text.name.removeprefix(text.family)
        self._start(Boot(text.name, bool(LAST.search(member)) if text.is_member else None))

    def read(self, block):
        lines = block.splitlines()
        if self._boot.is_in_stack() or self._heading or may_tell(block):
            for number, line in enumerate(lines, self.lines + 1):
                self._take(line, number)
        self.lines += len(lines)

    def _take(self, line, number):
        if self._has_uptime and (stamp := UPTIME.match(line)):
            self._check_uptime(int(stamp[1]))
        if self._boot.is_in_stack() or self._heading or contents.MAY_TELL.search(line):
            for part in inputs.parts_of(line):
                self._take_part(part.decode("utf-8", "replace"), number)

    def _take_part(self, line, number):
        if section := SECTION.match(line):
            self._start_section(section["title"])
        elif heading := prefixes.heading_of(line):
            self._heading = heading
        elif not line.strip():
            self._heading = None
        else:
            for piece in prefixes.pieces(line, self._heading):
                self._take_piece(piece, number)

    def _take_piece(self, piece, number):
        if self._has_uptime and piece.writer == prefixes.KERNEL \
                and piece.time.clock == prefixes.UPTIME:
            self._check_uptime(piece.time.seconds)
        for told in contents.read(piece) or [None]:
            if told and piece.time.clock in DATES:
                self._family.add_date(piece.time)
            if told is None or told.kind not in FOR_TEXT:
                self._boot.take(piece, told)
            elif told.kind is Kind.UNREADABLE:
                self._tell_unreadable(f"{self._text.name}:{number}")
            elif told.kind is Kind.BOOT:
                self._start_next()
            elif told.kind is Kind.DATE:
                self._crash_time = prefixes.date_of(told.text)
            elif told.kind is Kind.NOW:
                self._family.add_date(prefixes.date_of(told.text))
            elif told.kind is Kind.CRASH:
                self._family.add_crash(piece.time, self._crash_time, told)

    def _check_uptime(self, seconds):
        if seconds + 1 < self._boot.uptime:
            self._start_next()
        self._boot.uptime = seconds
        self._boot.has_begun |= seconds > 1

    def _start(self, boot):
        self._boot = boot
        self.boots.append(boot)

    def _start_next(self):
        """A boot that follows in the same text."""
        before = self._boot
        if not before.has_begun:
            return
        self._start(Boot(before.source, before.is_last))
        for is_last, boot in self._sections.items():
            if boot is before:
                self._sections[is_last] = self._boot

    def _start_section(self, title):
        is_last = bool(LAST.search(title))
        source = f"{self._text.name} ({title})"
        if is_last not in self._sections:
            self._start(Boot(source, is_last))
            self._sections[is_last] = self._boot
        self._boot = self._sections[is_last]
        self._boot.start_log(source)
        self._has_uptime = bool(KERNEL_LOG.search(title))
        self._heading = None


FOR_TEXT = {Kind.UNREADABLE, Kind.BOOT, Kind.DATE, Kind.NOW, Kind.CRASH}


def may_tell(block):
    """Whether it has lines that tell something, or that show the kernel's uptime."""
    return block[:1] in b"[<" or b"\n[" in block or b"\n<" in block \
        or any(mark in block for mark in contents.MARKS)
