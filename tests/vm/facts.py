"""What scripts/test-vm proves: the daemon's configurations, and what the console must show."""
import json
import pathlib
from typing import NamedTuple

ETC = pathlib.Path(__file__).resolve().parents[2] / "etc"
SAMPLE = json.loads((ETC / "tovrel.json").read_text(encoding="utf-8"))["Config"]


def config(policy, *processes, timeout=6, use_shell=False, binder_uids=()):
    """One scan a second; of a process "name:thread:..." the threads."""
    names = [process.split(":") for process in processes]
    scan = {"timeout_second": timeout, "timeout_min_second": 0, "interval_min_second": 1,
            "log_timeout_second": 20, "round": timeout}
    return {"Config": {
        "switches": {"main": True, "debug": True, "use_shell": use_shell},
        "policy": policy,
        "scan": scan,
        "monitor_process": {"enable": bool(names), "list": [
            {"process": name, "thread": threads} for name, *threads in names]},
        "monitor_binder": {"enable": bool(binder_uids), "monitor_uids": binder_uids,
                           "uid_map": [], "wchans": SAMPLE["monitor_binder"]["wchans"]},
        "default_open_hw_list": {"enable": False, "list": []},
        "black_white_list": {"enable": False, "list": []}}}


POPULATION = ("stuck_vfork", "stuck_stopped", "stuck_zombie", "stuck_server:watchdog",
              "stuck_unstarted:RenderThread", "healthy_app:worker", "healthy_busy:worker", "dd")

CONFIGS = {
    "kill": config("kill", "stuck_stopped", "stuck_zombie", "healthy_app:worker", "healthy_busy"),
    "frozen": config("nothing", "healthy_busy"),
    "no_group": config("nothing", "tovrel", "stuck_stopped"),
    "no_sysrq": config("kill", "stuck_stopped", timeout=4),
    "watchdog": config("nothing", "stuck_vfork", timeout=4),
    "nothing": config("nothing", *POPULATION, timeout=10, binder_uids=[1000]),
    "shell": config("nothing", "absent", use_shell=True),
    "blind": config("nothing", binder_uids=[1000]),
    "sighted": config("nothing", binder_uids=[1000]),
    "reboot": config("reboot", "stuck_stopped"),
    "panic": config("panic", "stuck_vfork"),
}

# The guest starts anew with its memory kept.
RESTARTING = {"panic"}


class Fact(NamedTuple):
    text: str
    case: str
    found: list          # patterns over the console's text; "^" and "$" are a record's ends
    absent: list = []
    seconds: float = 0   # at least, from group "a" to group "b" of the first pattern


WCHANS = "|".join(SAMPLE["monitor_binder"]["wchans"])
IDLE_WCHANS = "binder_wait_for_work|binder_thread_read|binder_ioctl_write_read|binder_ioctl"
# The next line of the same daemon.
NEXT = r"\n(?:(?!sighted:)[^\n]*\n)*?"

FACTS = [
    Fact("credentials: uid 0, group 3009, capability KILL alone", "acts",
         [r"^credentials: kill Uid: 0 0 0 0 Gid: 3009 3009 3009 3009 Groups: "
          r"CapPrm: 0{14}20 CapEff: 0{14}20$"]),
    Fact("panic: the report is one record, unchanged", "panic",
         [r"^stuck_tasks: process D stuck_vfork - (\d+) \1 (\d+) .*^tid:\1 pid:\1 ppid:\2 in D 6s$"]),
    Fact("panic: SysRq w lists the stuck task, l follows", "panic",
         [r"^tid:(\d+) .*^sysrq: Show Blocked State$.*^task:stuck_vfork +state:D .*? pid:\1 .*"
          r"^sysrq: Show backtrace of all active CPUs$.*^Kernel panic"]),
    Fact("panic: the crash, 3 s after the dumps", "panic",
         [r"^tid:\d+ .*?(?P<a>^sysrq: Show backtrace).*?(?P<b>^sysrq: Trigger a crash$)\n"
          r"^Kernel panic - not syncing: sysrq triggered crash$"], seconds=3),
    Fact("panic: after the restart ramoops gives report and dumps back", "panic",
         [r"^Kernel panic .*^pstore: <\d+>\[ *[\d.]+\] tid:(\d+) pid:\1 ppid:\d+ in D 6s$.*"
          r"^pstore: .*\] sysrq: Show Blocked State$.*"
          r"^pstore: .*\] task:stuck_vfork +state:D .*? pid:\1 .*"
          r"^pstore: .*\] sysrq: Show backtrace of all active CPUs$.*"
          r"^pstore: .*\] Kernel panic - not syncing: sysrq triggered crash$"]),
    Fact("reboot: the report, then a restart with the reason \"tovrel\"", "reboot",
         [r"^tid:(\d+) pid:\1 ppid:\d+ in T 6s$.*^reboot: Restarting system with command 'tovrel'$"]),
    Fact("kill: a stopped process of another user is gone", "acts",
         [r"^stuck_tasks: process T stuck_stopped - (\d+) .*^kill: killing \1$.*^after kill:"],
         [r"^after kill: stuck_stopped [^Z]"]),
    Fact("kill: the parent of a zombie is gone", "acts",
         [r"^stuck_tasks: process Z stuck_zombie - \d+ \d+ (\d+) .*^kill: killing \1$.*^after kill:"],
         [r"^after kill: zombie_parent [^Z]"]),
    Fact("kill: healthy neighbours live", "acts",
         [r"^kill: process healthy_app pid changed.*^after kill: healthy_app S",
          r"^kill: process healthy_busy pid changed.*^after kill: healthy_busy [SR]"]),
    Fact("nothing: dumps, no report, no act", "detectors",
         [r"^sysrq: Show Blocked State$.*^nothing: dumped:(\d+) stuck_stopped .* stat=T$.*"
          r"^nothing: thread: stuck_stopped tid=\1, .*^nothing: nothing to do according to policy$",
          r"^after nothing: stuck_stopped T", r"^after nothing: zombie_parent S"],
         [r"^(\S+ in )?(tid:\d+ )?pid:\d+ ppid:", r"^nothing: killing"]),
    Fact("freezer: a task in the group \"frozen\", state D, is not judged", "acts",
         [r"^frozen: process healthy_busy pid changed.*^freezer: D \(disk sleep\) in frozen$"],
         [r"^frozen: (thread:|dumped).*^freezer: moved out"]),
    Fact("freezer: moved out and stuck, it is", "acts",
         [r"^freezer: moved out.*^frozen: dumped:\d+ healthy_busy .* stat=T$"]),
    Fact("frozen file system: the writer, unkillable, is found and dumped", "detectors",
         [r"^nothing: dumped:(\d+) dd parent=1 stat=D$.*^after SIGKILL: dd D \(disk sleep\) \1$"]),
    Fact("wait channels: 0 without SYS_PTRACE", "waits",
         [r"^wchan: KILL Binder:t_futex 0$", r"^wchan: KILL Binder:t_fuse 0$",
          r"^wchan: KILL Binder:idle 0$"], [r"^wchan: KILL Binder:\w+ [^0]"]),
    Fact("wait channels: without SYS_PTRACE nothing is found", "waits",
         [r"^blind: binder enable=1 list size=1, wchan size=3$.*^sighted: started$"],
         [r"^blind: (Binder:|dumped)"]),
    Fact("wait channels: with it, futex and FUSE are the sample's", "waits",
         [rf"^wchan: KILL,SYS_PTRACE Binder:t_{kind} ({WCHANS})$" for kind in ("futex", "fuse")]),
    Fact("futex: dumped, then acted on after the second half", "waits",
         [rf"^sighted: Binder:t_futex \d+ state=S wchan=({WCHANS}) count=3000{NEXT}"
          rf"sighted: dumped hung proc.*"
          rf"^sighted: Binder:t_futex \d+ state=S wchan=\1 count=3000{NEXT}"
          rf"sighted: nothing to do according to policy$"]),
    Fact("futex: a task that signal 35 wakes starts over, is dumped again, never acted on", "waits",
         [rf"^sighted: Binder:m_futex \d+ state=S .* count=3000{NEXT}sighted: dumped hung proc:(\d+) "
          r".*^sighted: Binder:m_futex \d+ state=S .* count=0$.*^sighted: dumped hung proc:\1 "],
         [rf"^sighted: Binder:m_futex \d+ [^\n]*{NEXT}sighted: nothing to do"]),
    Fact("FUSE: signal 35 turns S into D; the time starts over: dumps, then the policy", "waits",
         [rf"^sighted: dumped hung proc:(\d+) parent=1 wchan=request_wait_answer$.*"
          rf"^sighted: Binder:m_fuse \1 state=D wchan=request_wait_answer count=0$.*"
          rf"^sighted: dumped hung proc:\1 parent=1 stat=D$.*"
          rf"^sighted: Binder:m_fuse \1 state=D wchan=request_wait_answer count=3000{NEXT}"
          rf"sighted: nothing to do according to policy$"]),
    Fact("binder: idle threads and callers wait in the same function, not the sample's", "waits",
         [rf"^wchan: KILL,SYS_PTRACE Binder:idle ({IDLE_WCHANS})$.*"
          rf"^wchan: KILL,SYS_PTRACE Binder:t_call \1$"],
         [r"^sighted: Binder:(idle|t_call) "]),
    Fact("without the group the daemon sees itself alone", "acts",
         [r"^no_group: process tovrel pid changed",
          r"^no_group: process stuck_stopped not found, traverse$"],
         [r"^no_group: process stuck_stopped pid changed"]),
    Fact("without SysRq's file each command says so, the rest goes on", "acts",
         [r"^no_sysrq: open sysrq failed!$.*^no_sysrq: open sysrq failed!$.*"
          r"^no_sysrq: dumped:(\d+) stuck_stopped .*^no_sysrq: killing \1$.*"
          r"^after no_sysrq: stuck_stopped Z"]),
    Fact("stalled, the daemon dumps and kills itself; anew, it finds the same task", "acts",
         [r"^watchdog: process stuck_vfork pid changed to (\d+)\.$.*"
          r"^watchdog: Self stuck! restarting\.\.\.$.*^supervisor: tovrel ended with status 137$.*"
          r"^watchdog: started$.*^watchdog: process stuck_vfork pid changed to \1\.$",
          r"^freezer: D.*"]),
    Fact("a minute of scans leaves no descriptor and no child", "detectors",
         [rf"^resources: {name} (fds=\d children=0)$.*^resources: {name} \1$"
          for name in ("nothing", "shell")]),
]
