"""What a line tells about hung tasks, whatever stands before it."""
import enum
import re
import typing

from . import prefixes

UNKNOWN_ID = 2 ** 32 - 1  # how the daemon prints an id that it does not have

# Every telling line has one of these: the fast way past the others.
MARKS = (b"ppid:", b"tid:", b"task:", b"tid=", b"state=", b"dumped", b"killing ", b"nothing to do",
         b"pid changed to ", b"bw ", b"Self stuck", b" 0x", b"Trigger a", b"sysrq triggered",
         b"tovrel'", b"=tovrel", b">>> ", b"Timestamp: ", b"== dumpstate", b"Linux version",
         b"Booting Linux", b"------ ", b" Part", b" ]")
MAY_TELL = re.compile(b"|".join(map(re.escape, MARKS)))


class Kind(enum.Enum):
    STANDS, DUMPED, REPORTED, ACTED, PROCESS, TASK, FRAME, INSIDE, NOW, DATE, CRASH, \
        BOOT, UNREADABLE = range(13)


class Told(typing.NamedTuple):
    kind: Kind
    condition: str = ""  # as hangs have it
    thread: str = ""
    process: str = ""
    tid: int = None
    pid: int = None
    ppid: int = None
    wchan: str = ""  # in a report with the time-out behind it
    timeout: int = 0  # s
    count: int = 0  # ms
    text: str = ""  # of the report, the act or the frame of a stack


ID = r"\d{1,10}"
# Names have 15 bytes; one that shares its line with something else begins at a blank.
REPORT = re.compile(
    rf"(?:(?<![^\s\"'>\]])(?P<thread>[^\s:,;\"'\]].{{0,14}}?) in |(?:tid:\s*|^)(?P<tid>{ID}) )?"
    rf"(?:(?<!p)pid:\s?|^)(?P<pid>{ID}) ppid:(?P<ppid>{ID}) "
    r"(?:(?:in (?P<state>[DTZ]|unswitch \S) |(?P<missing>cannot start ))(?P<timeout>\d{1,9})s"
    r"|wchan: (?P<wchan>[\w.$-]*\d)s)(?! to kmsg failed)")
LIKE_REPORT = re.compile(rf"tid:\s*{ID} pid:|pid:\d+ ppid:|^pid:\d+ p*$")

DAEMON = [(Kind[kind], re.compile(form)) for kind, form in (
    ("STANDS", rf"thread: (?P<thread>.+) tid=(?P<tid>{ID}), count=(?P<count>\d{{1,12}}), "
               r"state=(?P<state>\S)"),
    ("STANDS", rf"(?P<thread>\S.*) (?P<tid>{ID}) state=(?P<state>\S) wchan=(?P<wchan>\S*) "
               r"count=(?P<count>\d{1,12})"),
    # In shell mode the name ends with a line feed, and what follows is a line of its own.
    ("DUMPED", rf"dumped:(?P<pid>{ID}) (?P<process>\S.*?)(?: parent=(?P<ppid>{ID}) "
               r"stat=(?P<state>\S))?$"),
    ("DUMPED", rf"dumped hung proc:(?P<pid>{ID}) parent=(?P<ppid>{ID}) "
               r"(?:stat=(?P<state>\S)|wchan=(?P<wchan>\S*))"),
    ("PROCESS", rf"process (?P<process>\S.*) pid changed to (?P<pid>{ID})\."),
    ("PROCESS", rf"bw (?:add )?proc (?P<process>\S.*?) (?:change )?pid=(?P<pid>{ID})"),
    ("ACTED", rf"(?P<text>killing {ID})$"),
    # The report itself is not logged.
    ("REPORTED", "(?P<text>nothing) to do according to policy"),
    ("REPORTED", r"(?P<stuck>Self stuck)! (?P<text>restarting)"))]
KERNEL = [(Kind[kind], re.compile(form)) for kind, form in (
    # SysRq "w" since 5.10, and before
    ("TASK", rf"task: {{0,9}}(?P<thread>\S.{{0,63}}?) {{1,20}}state:\S.*? pid: *(?P<tid>{ID}) "),
    ("TASK", r"(?P<thread>\S.{0,14}?) {1,20}[DRSTtXZPI]\s+(?:[0-9a-f]{16}\s+|[0-9a-f]{8}\s+)?"
             rf"\d+\s+(?P<tid>{ID})\s+\d+\s+0x[0-9a-f]{{8}}"),
    ("FRAME", r"(?:\[<[0-9a-fx]+>\] )?\(?(?P<text>(?:\? )?[\w.$]+(?:\+0x[0-9a-f]+/0x[0-9a-f]+"
              r"(?: \[\w+\])?(?=\W|$)|(?= from \w)))"),
    ("INSIDE", r"(?i:call trace:|backtrace:|workqueue:|</?task>|stack:|exception stack)"),
    ("BOOT", r"Linux version \d|Booting Linux on |\S+#\d+ Part\d"))]
ACTS = [(re.compile("Trigger a crash|sysrq triggered crash"), "crash"),
        (re.compile(r"Restarting system with command 'tovrel'|sys\.powerctl='?reboot,tovrel|"
                    r"^reboot not done: .*reason=tovrel"), "reboot")]
CRASH = [(Kind[kind], re.compile(form)) for kind, form in (
    ("NOW", rf"== dumpstate: (?P<text>{prefixes.NUMERIC_DATE})"),
    ("DATE", rf"Timestamp: (?P<text>{prefixes.NUMERIC_DATE})"),
    ("CRASH", rf"pid: (?P<pid>{ID}), tid: (?P<tid>{ID}), name: (?P<thread>\S.*?)\s+"
              r">>> (?:\S*/)?(?P<process>\S.*?) <<<"))]

# What is looked for from the begin of a piece, by its writer.
FORMS = {prefixes.DAEMON: DAEMON, prefixes.KERNEL: KERNEL, prefixes.CRASH_DUMP: CRASH,
         prefixes.OTHER: [], prefixes.UNKNOWN: DAEMON + KERNEL + CRASH}
CONDITIONS = {"D": "D", "T": "T", "Z": "Z", "?": "missing", "S": "unswitch"}  # by state


def read(piece):
    """What the piece tells, in its order."""
    for kind, form in FORMS[piece.writer]:
        if match := form.match(piece.text):
            return [told_by(kind, match)]
    if piece.writer != prefixes.DAEMON:
        for form, act in ACTS:
            if (act == "reboot" or piece.writer != prefixes.OTHER) and form.search(piece.text):
                return [Told(Kind.ACTED, text=act)]
    if piece.writer in (prefixes.OTHER, prefixes.CRASH_DUMP):
        return []
    reports = [told_by(Kind.REPORTED, match) for match in REPORT.finditer(piece.text)]
    # A line cut within its second report still tells the first.
    looking = len(LIKE_REPORT.findall(piece.text))
    failed = " to kmsg failed" in piece.text
    return reports + [Told(Kind.UNREADABLE)] * (looking > len(reports) and not failed)


def told_by(kind, match):
    parts = {key: text for key, text in match.groupdict().items() if text}
    state = parts.get("state", "").removeprefix("unswitch ")
    condition = CONDITIONS.get(state, "")
    if "wchan" in parts and state in ("", "S"):
        condition = "wchan"
    elif "missing" in parts or "stuck" in parts:
        condition = "missing" if "missing" in parts else "self stuck"
    numbers = {key: int(parts[key]) for key in ("tid", "pid", "ppid", "timeout", "count")
               if key in parts and int(parts[key]) != UNKNOWN_ID}
    names = {key: parts[key] for key in ("thread", "process", "wchan") if key in parts}
    return Told(kind, condition, text=parts.get("text", match[0]), **names, **numbers)
