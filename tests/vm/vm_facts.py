"""What scripts/test-vm proves: the daemon's configurations, and what the consoles must show."""
import json
import pathlib
from typing import NamedTuple

ETC = pathlib.Path(__file__).resolve().parents[2] / "etc"
SAMPLE_WCHANS = json.loads((ETC / "tovrel.json").read_text())["Config"]["monitor_binder"]["wchans"]


def config(policy, *processes, timeout=6, use_shell=False, uids=()):
    """One scan a second. A process is "NAME" or "NAME:THREAD"."""
    names = [process.split(":") for process in processes]
    return {"Config": {
        "switches": {"main": True, "debug": True, "use_shell": use_shell}, "policy": policy,
        "scan": {"timeout_second": timeout, "interval_min_second": 1, "round": timeout,
                 "log_timeout_second": 20},
        "monitor_process": {"enable": bool(names), "list": [
            {"process": name, "thread": threads} for name, *threads in names]},
        "monitor_binder": {"enable": bool(uids), "monitor_uids": uids, "wchans": SAMPLE_WCHANS},
        "default_open_hw_list": {}, "black_white_list": {}}}


CONFIGS = {
    "kill": config("kill", "stuck_stopped", "healthy_app:worker", "healthy_busy"),
    "kill_parent": config("kill", "stuck_zombie"),
    "frozen": config("nothing", "healthy_busy"),
    "no_group": config("nothing", "tovrel", "stuck_stopped"),
    "no_sysrq": config("kill", "stuck_stopped", timeout=4),
    "watchdog": config("nothing", "stuck_vfork", timeout=4),
    "nothing": config("nothing", "stuck_vfork", "stuck_stopped", "stuck_zombie", "dd",
                      "stuck_server:watchdog", "stuck_unstarted:RenderThread",
                      "healthy_app:worker", "healthy_busy:worker", timeout=10, uids=[1000]),
    "shell": config("nothing", "absent", use_shell=True),
    "blind": config("nothing", uids=[1000]),
    "sighted": config("nothing", uids=[1000]),
    "reboot": config("reboot", "stuck_stopped"),
    "panic": config("panic", "stuck_vfork"),
}


class Fact(NamedTuple):
    text: str
    case: str
    found: list        # patterns; "^" and "$" are the ends of a record, "." is any character
    absent: list = []
    seconds: int = 0   # at least, from group "a" to group "b" of the first pattern


LISTED = "|".join(SAMPLE_WCHANS)
IDLE = "binder_wait_for_work|binder_thread_read|binder_ioctl_write_read|binder_ioctl"
NEXT = r"\n(?:(?!sighted:)[^\n]*\n)*?sighted: "  # the next line of the daemon "sighted"

# The line of check-device that must turn from ok to missing by what the case "device" breaks.
BROKEN = {"no group frozen": "group frozen", "threads named binder": "binder threads",
          "no configuration": "configuration", "a linked configuration": "configuration",
          "SysRq of another user": "writable /proc/sysrq-trigger",
          "read-only kernel log": "writable /dev/kmsg", "console log level 5": "console log level",
          "no daemon": "daemon process", "daemon in group 0": "group 3009"}


def told(label, others):
    return [rf"^{label}: {'missing' if need == BROKEN.get(label) else others} +{need}"
            for need in (*BROKEN.values(), "run counts", "wait channels")]


FACTS = [
    Fact("credentials: uid 0, group 3009, capability KILL alone", "kill",
         [r"^credentials: kill Uid: 0 0 0 0 Gid: 3009 3009 3009 3009 Groups: "
          r"CapPrm: 0{14}20 CapEff: 0{14}20$"]),
    Fact("panic: the report is one record, unchanged", "panic",
         [r"^stuck_tasks: process D stuck_vfork - (\d+) \1 (\d+) .*"
          r"^tid:\1 pid:\1 ppid:\2 in D 6s$"]),
    Fact("panic: SysRq w lists the stuck task, l follows; the crash 3 s later", "panic",
         [r"^tid:(\d+) .*^sysrq: Show Blocked State$.*^task:stuck_vfork +state:D .*? pid:\1 .*"
          r"(?P<a>^sysrq: Show backtrace of all active CPUs$).*(?P<b>^sysrq: Trigger a crash$)\n"
          r"Kernel panic - not syncing: sysrq triggered crash$"], seconds=3),
    Fact("panic: after the restart ramoops gives report and dumps back", "panic",
         [r"^Kernel panic .*^pstore: \S+\[ *\S+\] tid:(\d+) pid:\1 ppid:\d+ in D 6s$.*"
          r"^pstore: .*\] sysrq: Show Blocked State$.*^pstore: .*\] task:stuck_vfork +state:D .*"
          r"^pstore: .*\] sysrq: Show backtrace of all active CPUs$.*"
          r"^pstore: .*\] Kernel panic - not syncing: sysrq triggered crash$"]),
    Fact("reboot: the report, then a restart with the reason \"tovrel\"", "reboot",
         [r"^tid:(\d+) pid:\1 ppid:\d+ in T 6s$.*"
          r"^reboot: Restarting system with command 'tovrel'$"]),
    Fact("kill: a stopped process of another user is gone", "kill",
         [r"^stuck_tasks: process T stuck_stopped - (\d+) .*^kill: killing \1$.*"
          r"^after kill: stuck_stopped Z \(zombie\) \1$"]),
    Fact("kill: the parent of a zombie is gone", "kill",
         [r"^stuck_tasks: process Z stuck_zombie - \d+ \d+ (\d+) .*^kill_parent: killing \1$.*"
          r"^after kill: zombie_parent Z \(zombie\) \1$"]),
    Fact("kill: healthy neighbours live", "kill",
         [rf"^kill: process {name} pid changed.*^after kill: {name} [SR] "
          for name in ("healthy_app", "healthy_busy")]),
    Fact("nothing: dumps, no report, no act", "detectors",
         [r"^sysrq: Show Blocked State$.*^nothing: dumped:(\d+) stuck_stopped .*"
          r"^nothing: thread: stuck_stopped tid=\1, .*^nothing: nothing to do according to policy$"
          r".*^after nothing: stuck_stopped T \(stopped\) \1$"],
         [r"^(\S+ in )?(tid:\d+ )?pid:\d+ ppid:", r"^nothing: killing"]),
    Fact("frozen by the v1 freezer, state D: not judged", "means",
         [r"^frozen: process healthy_busy pid changed.*"
          r"^freezer: State: D \(disk sleep\) in frozen$"],
         [r"^frozen: (thread:|dumped).*^freezer: moved out"]),
    Fact("moved out of the group \"frozen\" and stuck: judged", "means",
         [r"^freezer: moved out.*^frozen: dumped:\d+ healthy_busy parent=\d+ stat=T$"]),
    Fact("a writer to a frozen file system, unkillable: found, dumped", "detectors",
         [r"^nothing: dumped:(\d+) dd parent=1 stat=D$.*^after SIGKILL: dd D \(disk sleep\) \1$"]),
    Fact("wait channels read 0 without SYS_PTRACE, and nothing is found", "waits",
         [r"^wchan: KILL Binder:t_futex 0$", r"^wchan: KILL Binder:t_idle 0$",
          r"^blind: binder enable=1 list size=1, wchan size=\d$"],
         [r"^wchan: KILL Binder:\w+ [^0]", r"^blind: (Binder:|dumped)"]),
    Fact("with it, those of futex and FUSE are the sample's", "waits",
         [rf"^wchan: KILL,SYS_PTRACE Binder:t_{kind} ({LISTED})$" for kind in ("futex", "fuse")]),
    Fact("futex in S: dumped, acted on after the second half", "waits",
         [rf"^sighted: Binder:t_futex \d+ state=S .* count=3000{NEXT}dumped hung proc.*"
          rf"^sighted: Binder:t_futex \d+ state=S [^\n]* count=3000{NEXT}nothing to do"]),
    Fact("futex woken by signal 35: dumped again, never acted on", "waits",
         [rf"^sighted: Binder:m_futex \d+ state=S [^\n]* count=3000{NEXT}dumped hung proc:(\d+) .*"
          r"^sighted: Binder:m_futex \d+ state=S [^\n]* count=0$.*^sighted: dumped hung proc:\1 "],
         [rf"^sighted: Binder:m_futex [^\n]*{NEXT}nothing to do"]),
    Fact("FUSE, S turned into D by signal 35: starts over, dumped, acted on", "waits",
         [r"^sighted: dumped hung proc:(\d+) parent=1 wchan=request_wait_answer$.*"
          r"^sighted: Binder:m_fuse \1 state=D [^\n]* count=0$.*"
          r"^sighted: dumped hung proc:\1 parent=1 stat=D$.*"
          rf"^sighted: Binder:m_fuse \1 state=D [^\n]* count=3000{NEXT}nothing to do"]),
    Fact("binder: idle and calling threads share a function, not the sample's", "waits",
         [rf"^wchan: KILL,SYS_PTRACE Binder:t_idle ({IDLE})$.*"
          r"^wchan: KILL,SYS_PTRACE Binder:t_call \1$"], [r"^sighted: Binder:t_(idle|call) "]),
    Fact("without the group the daemon sees itself alone", "means",
         [r"^no_group: process tovrel pid changed", r"^no_group: process stuck_stopped not found"],
         [r"^no_group: process stuck_stopped pid changed"]),
    Fact("without SysRq's file each command says so, the rest goes on", "means",
         [r"^no_sysrq: open sysrq failed!$.*^no_sysrq: open sysrq failed!$.*"
          r"^no_sysrq: dumped:(\d+) stuck_stopped .*^no_sysrq: killing \1$.*"
          r"^after no_sysrq: stuck_stopped Z \(zombie\) \1$"]),
    Fact("stalled, it dumps and kills itself; anew, it finds the same task", "means",
         [r"^stuck_tasks: process D stuck_vfork - (\d+) .*^watchdog: started$.*"
          r"^sysrq: Show Blocked State$.*^sysrq: Show backtrace.*^supervisor: .* status 137$.*"
          r"^watchdog: process stuck_vfork pid changed to \1\.$",
          r"^watchdog: Self stuck! restarting\.\.\.$"],
         [r"^watchdog: thread: stuck_vfork .*^supervisor: "]),
    Fact("a minute of scans leaves no descriptor and no child", "detectors",
         [rf"^resources: {name} (fds=\d children=0)$.*^resources: {name} \1$"
          for name in ("nothing", "shell")]),
    Fact("check-device: only what this kernel and shell lack is missing", "device",
         [rf"^whole: missing +{lack}" for lack in ("console log in", "all of /proc", "columns")] +
         told("whole", "ok")),
    *(Fact(f"check-device, {label}: turns to missing, alone", "device",
           told(label, "(ok|unknown)")) for label in BROKEN),
]
