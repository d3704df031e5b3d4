"""What a line tells about hung tasks, whatever stands before it."""
import re

from . import prefixes

UNKNOWN_ID = str(2 ** 32 - 1)  # how the daemon prints an id that it does not have

# Every telling line has one of these: the fast way past the others.
MAY_TELL = re.compile(
    r"ppid:|tid:|task:|tid=|state=|dumped|killing |nothing to do|pid changed to |bw |Self stuck|"
    r" 0x|Trigger a|sysrq triggered|tovrel'|=tovrel|>>> |Timestamp: |== dumpstate|Linux version|"
    r"Booting Linux|------ | Part| \]")

ID = r"\d{1,10}"
# Names have 15 bytes; one that shares its line with something else begins at a blank.
REPORT = re.compile(
    rf"(?:(?<![^\s\"'>\]])(?P<thread>[^\s:,;\"'\]].{{0,14}}?) in |(?:tid:\s*|^)(?P<tid>{ID}) )?"
    rf"(?:(?<!p)pid:\s?|^)(?P<pid>{ID}) ppid:(?P<ppid>{ID}) "
    r"(?:(?:in (?P<state>[DTZ]|unswitch \S) |(?P<missing>cannot start ))(?P<timeout>\d{1,9})s"
    r"|wchan: (?P<wchan>[\w.$-]*\d)s)(?! to kmsg failed)")
LIKE_REPORT = re.compile(rf"tid:\s*{ID} pid:|pid:\d+ ppid:|^pid:\d+ p*$")

# Kinds of what is told, and their forms, whose groups are its parts.
DAEMON = [(kind, re.compile(form)) for kind, form in (
    ("stands", rf"thread: (?P<thread>.+) tid=(?P<tid>{ID}), count=(?P<count>\d{{1,12}}), "
               r"state=(?P<state>\S)"),
    ("stands", rf"(?P<thread>\S.*) (?P<tid>{ID}) state=(?P<state>\S) wchan=(?P<wchan>\S*) "
               r"count=(?P<count>\d{1,12})"),
    # In shell mode the name ends with a line feed, and what follows is a line of its own.
    ("dumped", rf"dumped:(?P<pid>{ID}) (?P<process>\S.*?)(?: parent=(?P<ppid>{ID}) "
               r"stat=(?P<state>\S))?$"),
    ("dumped", rf"dumped hung proc:(?P<pid>{ID}) parent=(?P<ppid>{ID}) "
               r"(?:stat=(?P<state>\S)|wchan=(?P<wchan>\S*))"),
    ("process", rf"process (?P<process>\S.*) pid changed to (?P<pid>{ID})\."),
    ("process", rf"bw (?:add )?proc (?P<process>\S.*?) (?:change )?pid=(?P<pid>{ID})"),
    ("acted", rf"(?P<act>killing {ID})$"),
    # The report itself is not logged.
    ("reported", "(?P<act>nothing) to do according to policy"),
    ("reported", r"(?P<stuck>Self stuck)! (?P<act>restarting)"))]
KERNEL = [(kind, re.compile(form)) for kind, form in (
    # SysRq "w" since 5.10, and before
    ("task", rf"task: {{0,9}}(?P<thread>\S.{{0,63}}?) {{1,20}}state:\S.*? pid: *(?P<tid>{ID}) "),
    ("task", r"(?P<thread>\S.{0,14}?) {1,20}[DRSTtXZPI]\s+(?:[0-9a-f]{16}\s+|[0-9a-f]{8}\s+)?"
             rf"\d+\s+(?P<tid>{ID})\s+\d+\s+0x[0-9a-f]{{8}}"),
    ("frame", r"(?:\[<[0-9a-fx]+>\] )?\(?(?P<frame>(?:\? )?[\w.$]+(?:\+0x[0-9a-f]+/0x[0-9a-f]+"
              r"(?: \[\w+\])?(?=\W|$)|(?= from \w)))"),
    ("inside", r"(?i:call trace:|backtrace:|workqueue:|</?task>|stack:|exception stack)"),
    ("boot", r"Linux version \d|Booting Linux on |\S+#\d+ Part\d"))]
ACTS = [(re.compile("Trigger a crash|sysrq triggered crash"), "crash"),
        (re.compile(r"Restarting system with command 'tovrel'|sys\.powerctl='?reboot,tovrel|"
                    r"^reboot not done: .*reason=tovrel"), "reboot")]
CRASH = [(kind, re.compile(form)) for kind, form in (
    ("now", r"== dumpstate: (?P<date>\d{4}-\d\d-\d\d \d\d:\d\d\S*)"),
    ("crash date", r"Timestamp: (?P<date>\d{4}-\d\d-\d\d \d\d:\d\d\S*)"),
    ("crash", rf"pid: (?P<pid>{ID}), tid: (?P<tid>{ID}), name: (?P<thread>\S.*?)\s+"
              r">>> (?:\S*/)?(?P<process>\S.*?) <<<"))]

# What is looked for from the begin of a piece, by its writer.
FORMS = {prefixes.DAEMON: DAEMON, prefixes.KERNEL: KERNEL, prefixes.CRASH_DUMP: CRASH,
         prefixes.OTHER: [], prefixes.UNKNOWN: DAEMON + KERNEL + CRASH}
CONDITIONS = {"D": "D", "T": "T", "Z": "Z", "?": "missing", "S": "unswitch"}  # by state


def read(piece):
    """What the piece tells, in its order: kinds and parts."""
    for kind, form in FORMS[piece.writer]:
        if match := form.match(piece.text):
            return [(kind, parts_of(match, piece.pid))]
    if piece.writer != prefixes.DAEMON:
        for form, act in ACTS:
            if (act == "reboot" or piece.writer != prefixes.OTHER) and form.search(piece.text):
                return [("acted", {"act": act})]
    if piece.writer in (prefixes.OTHER, prefixes.CRASH_DUMP):
        return []
    reports = list(REPORT.finditer(piece.text))
    told = [("reported", {"text": report[0], **parts_of(report, piece.pid)}) for report in reports]
    # A line cut within its second report still tells the first.
    is_cut = len(LIKE_REPORT.findall(piece.text)) > len(reports)
    if is_cut and " to kmsg failed" not in piece.text:
        told.append(("unreadable", {}))
    return told


def parts_of(match, writer):
    """What the form's groups have, as a Hang has it; the writer is a process."""
    parts = {name: text for name, text in match.groupdict().items() if text}
    for name in {"tid", "pid", "ppid", "timeout", "count"} & parts.keys():
        parts[name] = int(parts[name]) if parts[name] != UNKNOWN_ID else None
    state = parts.pop("state", "").removeprefix("unswitch ")
    if parts.pop("stuck", None):
        condition = "self stuck"
        parts.update(process="tovrel", tid=writer, pid=writer)
    elif parts.pop("missing", None):
        condition = "missing"
    elif parts.get("wchan") and state in ("", "S"):
        condition = "wchan"
    else:
        condition = CONDITIONS.get(state, "")
        parts.pop("wchan", None)
    return {**parts, "condition": condition} if condition else parts
