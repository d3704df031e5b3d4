"""Time and writer of a line, by the forms in which devices and tools write them."""
import datetime
import re
import typing

# Clocks. Seconds count from the boot, from 1970 as if local time were UTC, or from the begin of a
# leap year, where a date has no year. Those of two clocks cannot be compared.
UPTIME, DATE, DAY, NO_CLOCK = "uptime", "date", "day", "none"
EPOCHS = {DATE: datetime.datetime(1970, 1, 1), DAY: datetime.datetime(2000, 1, 1)}
FORMATS = {DATE: "%Y-%m-%d %H:%M:%S", DAY: "%m-%d %H:%M:%S"}
# Writers. A line of no known form may be anybody's.
DAEMON, KERNEL, CRASH_DUMP, OTHER, UNKNOWN = range(5)
TAGS = {"tovrel": DAEMON, "DEBUG": CRASH_DUMP, "kernel": KERNEL}


class Time(typing.NamedTuple):
    clock: str = NO_CLOCK
    seconds: float = 0.0

    def minus(self, seconds):
        return self._replace(seconds=self.seconds - seconds) if self.is_known() else self

    def without_year(self):
        date = EPOCHS[DATE] + datetime.timedelta(seconds=self.seconds)
        return Time(DAY, (date.replace(year=2000) - EPOCHS[DAY]).total_seconds())

    def is_known(self):
        return self.clock != NO_CLOCK

    def __str__(self):
        if self.clock == UPTIME:
            return f"{self.seconds:.1f}"
        if not self.is_known():
            return "?"
        date = EPOCHS[self.clock] + datetime.timedelta(seconds=self.seconds)
        return date.strftime(FORMATS[self.clock])


class Piece(typing.NamedTuple):
    """What one writer wrote at one time; a line of a serial console may be of several."""
    text: str
    time: Time = Time()
    writer: int = UNKNOWN
    caller: str = ""  # the kernel's task or processor
    pid: int = None  # of the writer


MONTHS = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split()
# "2026-11-21 13:44:20.5 +0100", "11-21 13:44:20", "2026-11-21T13:44:20,5Z"; and
# "Nov 21 13:44:20", "Nov21 13:44", "Sat Nov 21 13:44:20.5 2026"
DATE_FORM = (r"(?:(?:(?P<year>[12]\d{3})-)?(?P<month>\d\d)-(?P<day>\d\d)[ T]|(?:[A-Z][a-z]{2} )?"
             rf"(?P<name>{'|'.join(MONTHS)}) {{0,2}}(?P<named_day>\d\d?) )"
             r"(?P<hour>\d\d):(?P<minute>\d\d)(?::(?P<second>\d\d(?:[.,]\d{1,9})?))?"
             r"(?(name)(?: (?P<named_year>[12]\d{3}))?|(?:Z| ?[+-]\d\d:?\d\d)?)")
SECONDS = r"(?P<seconds>\d{1,10}\.\d{1,9})"
STAMP = rf"(?:(?<!\d){DATE_FORM}|(?<![\d.]){SECONDS})"
# Before a line: quoting, and the file and number that grep adds.
START = r"^\s*(?:> ?)*(?:[^\s:]*:)?(?:\d+:)?"
LEVEL = r"[VDIWEFAS]"
PID = r"(?P<pid>\d{1,10})"
PADDING = " {0,30}"
USER = r"(?:[^():]{,32}:)?\s*"

# Lines with a tag; the first form that fits counts.
TAGGED = [re.compile(form) for form in (
    # threadtime, also with the user
    rf"{STAMP}\s+(?:[\w.-]+\s+)?{PID}\s+\d+ {LEVEL} (?P<tag>.*?){PADDING}: ?(?P<text>.*)",
    # time, brief and tag
    rf"(?:{STAMP} |{START}){LEVEL}/(?P<tag>.*?){PADDING}(?:\({USER}{PID}\))?: ?(?P<text>.*)",
    # the log library on a host
    rf"(?:^|\s)(?P<tag>\w+) {LEVEL} {STAMP}\s+{PID}\s+\d+ (?P<text>.*)",
    # development environments, the older ones and the newer
    rf"{STAMP} +{PID}-\d+/\S+ {LEVEL}/(?P<tag>.*?){PADDING}: ?(?P<text>.*)",
    rf"{STAMP} +{PID}-\d+ +(?P<tag>\S.*?) {{1,30}}\S+ {{1,40}}{LEVEL}  (?P<text>.*)",
    # process and thread
    rf"{START}{LEVEL}\({USER}{PID}\) (?P<text>.*) \((?P<tag>[^()]*)\)\s*$",
    rf"{START}{LEVEL}\({USER}{PID}:\s*\w+\) (?P<text>.*)",
    # syslog
    rf"{START}{DATE_FORM} [\w.-]+ (?!kernel:)(?P<tag>[\w./-]+)(?:\[\d+\])?: (?P<text>.*)")]
# The line before the text, by "long".
HEADING = re.compile(rf"\[ {STAMP}\s+{USER}{PID}:\s*\w+ {LEVEL}/(?P<tag>.*?){PADDING}\](?P<text>)$")
# What the platform's log daemon takes for a tag when it splits a kernel record at a colon.
KERNEL_TAGS = {"", "tid", "pid", "task", "sysrq", "reboot"}

# A stamp of the kernel, of dmesg or of a terminal, where a new piece begins.
PIECE = re.compile(
    rf"(?:<\d+>)?\[ *{SECONDS}(?:[@,] ?\d+|\s*<[^>]{{,30}}>| / [^]]{{,40}})? *\]"
    r"|^\W*(?:<\d+>)?\[ *(?P<uptime>\d{1,9})\]"
    r"|^\W*\d+,\d+,(?P<microseconds>\d{1,16}),(?P<fields>[^;]*);"
    rf"|(?:{START}|\[){DATE_FORM}(?:\s*<[^>]{{,30}}>)?\]?"
    r"|\[[ +<>\d.]+\]|^<\d+>")
# What devices put behind it: "[T312]", "(3)[412:comm]", "c0", "I[0: swapper/0: 0]".
CALLER = re.compile(r"\s*(?P<caller>\[ *[TC]\d+\]|\(\d+\)\[\d+:[^]]{,40}\]|"
                    r"\w?\[\d+: *[^]]{,40}: *\d+\]|c\d+ +(?:\d+ +)?)?\s?")
COLOUR = re.compile(r"\x1b\[[\d;]*[A-Za-z]")


def pieces(line, heading=None):
    """The pieces of a line; heading is the one of "long" above it."""
    line = COLOUR.sub("", line)
    if heading:
        return [heading._replace(text=heading.text + line)]
    for form in TAGGED:
        if match := form.search(line):
            return [tagged_piece(match)]
    return list(kernel_pieces(line))


def heading_of(line):
    """The line as a heading of "long"; None if it is none."""
    match = "]" in line and HEADING.match(COLOUR.sub("", line).strip())
    return tagged_piece(match) if match else None


def tagged_piece(match):
    parts = match.groupdict()
    tag, pid, text = parts.get("tag"), parts.get("pid"), parts["text"]
    writer = UNKNOWN if tag is None else TAGS.get(tag, OTHER)
    if pid and int(pid) == 0 or pid is None and tag in KERNEL_TAGS:
        writer = KERNEL
        text = f"{tag}:{text}" if tag else text
    return Piece(text.strip(), time_of(match), writer, pid=int(pid) if pid else None)


def kernel_pieces(line):
    start, time, caller, writer = 0, Time(), "", UNKNOWN
    for match in PIECE.finditer(line):
        if text := line[start:match.start()].strip():
            yield Piece(text, time, writer, caller)
        behind = CALLER.match(line, match.end())
        start, time = behind.end(), time_of(match)
        # Anybody's lines stand behind a date, which a terminal may have put there.
        writer = KERNEL if time.clock == UPTIME else UNKNOWN
        caller = (behind["caller"] or match["fields"] or "").strip()
    yield Piece(line[start:].strip(), time, writer, caller)


def date_of(text):
    match = re.match(DATE_FORM, text)
    return time_of(match) if match else Time()


def time_of(match):
    parts = match.groupdict("")
    if number := parts.get("seconds") or parts.get("uptime"):
        # What is not the time since the boot counts from 1970.
        return Time(DATE if float(number) > 1e8 else UPTIME, float(number))
    if number := parts.get("microseconds"):
        return Time(UPTIME, int(number) / 1e6)
    if not parts.get("hour"):
        return Time()
    name, year = parts["name"], parts["year"] or parts["named_year"]
    month = MONTHS.index(name) + 1 if name else int(parts["month"])
    day, second = parts["day"] or parts["named_day"], parts["second"].replace(",", ".")
    clock = DATE if year else DAY
    try:
        minute = datetime.datetime(int(year or 2000), month, int(day), int(parts["hour"]),
                                   int(parts["minute"]))
    except ValueError:
        return Time()
    return Time(clock, (minute - EPOCHS[clock]).total_seconds() + float(second or 0))
