"""Finds the boots in one text, and the lines of each."""
import re

from . import contents, prefixes
from .boot import Boot

SECTION = re.compile(r"------ (?P<title>\S.*?)(?: \(.*\))? ------")
LAST = re.compile("(?<![a-z])last|ramoops|pmsg", re.I)  # what a bug report has of the boot before
KERNEL_LOG = re.compile("kernel|kmsg|dmesg|ramoops|pstore", re.I)
UPTIME = re.compile(r"^(?:<\d+>)?\[ *(\d{1,9})\.\d", re.M)
# A line or, of a longer one, a part that does not end within a report.
PART = re.compile(r"[^\n]{1,3072}(?:[^\n]{0,1022}\ds)?\n?|\n")


class Reader:
    def __init__(self, text, family, tell_unreadable):
        self.boots = []
        self.lines = 0
        self._name, self._family, self._tell_unreadable = text.name, family, tell_unreadable
        self._part = "file"  # or whether the section has the boot before
        self._boot_of = {}  # by part
        self._has_uptime = True  # whether a number before a line is the kernel's uptime
        self._heading = None  # of the lines that follow it
        self._crash_time = prefixes.Time()  # of the tombstone
        member = text.name.removeprefix(f"{text.family}:")
        is_last = None if member == text.name else bool(LAST.search(member))
        self._start(Boot(text.name, is_last))

    def read(self, block):
        number = self.lines + 1
        self.lines += block.count("\n")
        # Most blocks tell nothing.
        if self._boot.open_stacks or self._heading or contents.MAY_TELL.search(block) \
                or self._has_uptime and UPTIME.search(block):
            for part in PART.findall(block):
                self._take(part.removesuffix("\n"), number)
                number += part.endswith("\n")

    def _take(self, line, number):
        if self._has_uptime and (stamp := UPTIME.match(line)):
            self._check_uptime(int(stamp[1]))
        if not (self._boot.open_stacks or self._heading or contents.MAY_TELL.search(line)):
            return
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
        time = piece.time
        if self._has_uptime and piece.writer == prefixes.KERNEL and time.clock == prefixes.UPTIME:
            self._check_uptime(time.seconds)
        for kind, parts in contents.read(piece) or [(None, {})]:
            if kind:
                self._family.add_date(time)
            if kind == "unreadable":
                self._tell_unreadable(f"{self._name}:{number}")
            elif kind == "boot":
                self._start_next()
            elif kind == "crash date":
                self._crash_time = prefixes.date_of(parts["date"])
            elif kind == "now":
                self._family.add_date(prefixes.date_of(parts["date"]))
            elif kind == "crash":
                self._family.add_crash(time if time.is_known() else self._crash_time, parts)
            else:
                self._boot.take(piece, kind, parts)

    def _check_uptime(self, seconds):
        if seconds + 1 < self._boot.uptime:
            self._start_next()
        self._boot.uptime = seconds
        self._boot.has_begun |= seconds > 1

    def _start(self, boot):
        self._boot = self._boot_of[self._part] = boot
        self.boots.append(boot)

    def _start_next(self):
        """A boot that follows in the same text."""
        if self._boot.has_begun:
            self._start(Boot(self._boot.source, self._boot.is_last))

    def _start_section(self, title):
        source = f"{self._name} ({title})"
        self._part = bool(LAST.search(title))
        if self._part in self._boot_of:
            self._boot = self._boot_of[self._part]
            self._boot.start_log(source)
        else:
            self._start(Boot(source, self._part))
        self._has_uptime = bool(KERNEL_LOG.search(title))
        self._heading = None
