"""How the daemon is started on a Linux host: its files are those of a directory."""
import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

HOST = pathlib.Path(__file__).resolve().parent.parent / "host"
CONFIG = "vendor/etc/tovrel.json"
# What the kernel has on a device.
KERNEL_LOG, SYSRQ = "dev/kmsg", "proc/sysrq-trigger"
PER_TASK, *EXTENSION = (f"proc/sys/hung_task_enh/{name}" for name in (
    "per_task_detect_mode", "global_detect_mode", "max_iowait_timeout_cnt", "max_iowait_task_cnt"))

# What the sandbox must catch, in all but the languages' own libraries and the host's properties.
CAUGHT = re.compile(r"_*(f|fre)?open(at)?(64)?(_2)?|creat(64)?|kill|_ZN\w*(filebuf|fstream)\w*")
NOT_CHECKED = re.compile(r"lib(c|m|stdc\+\+|gcc_s|cutils|\w+san)\.so.*")

@contextlib.contextmanager
def directory(config, keep):
    """A new sandbox: the configuration's text, and empty files in the place of the kernel's."""
    root = pathlib.Path(tempfile.mkdtemp(prefix="tovrel."))
    try:
        for name in (CONFIG, KERNEL_LOG, SYSRQ, PER_TASK, *EXTENSION):
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).touch()
        (root / CONFIG).write_text(config)
        yield root
    finally:
        if keep:
            print(f"The daemon's files are left in {root}")
        else:
            shutil.rmtree(root)


def command(build, root, properties="", send_signals=True):
    """The command line of the daemon, which dies with the process that starts it. Refuses a daemon
    that would reach a file or a process past the sandbox.
    """
    daemon, library = (pathlib.Path(build).resolve() / name for name in ("tovrel", "libsandbox.so"))
    if past := imports_past(daemon, library):
        sys.exit(f"The daemon is not started, it would get past {library}: {past}")
    return ["env", f"PATH={HOST / 'bin'}:{os.environ['PATH']}", f"LD_PRELOAD={library}",
            f"TOVREL_SANDBOX={root}",
            f"TOVREL_PROPERTIES={properties and pathlib.Path(properties).resolve()}",
            *([] if send_signals else ["TOVREL_NO_SIGNALS=1"]),
            "setpriv", "--pdeathsig", "KILL", str(daemon)]


def imports_past(daemon, library):
    """Which functions the daemon and its libraries would take from elsewhere than the sandbox."""
    listing = subprocess.run(["ldd", daemon], capture_output=True, text=True).stdout
    libraries = [pathlib.Path(path) for path in re.findall(r" => (\S+) \(", listing)]
    if not libraries:
        return "it is not linked dynamically"
    caught = symbols("--defined-only", library) if library.exists() else ()
    return ", ".join(f"{symbol} of {user.name}" for user in (daemon, *libraries)
                     if not NOT_CHECKED.fullmatch(user.name)
                     for symbol in symbols("--undefined-only", user)
                     if CAUGHT.fullmatch(symbol) and symbol not in caught)


def symbols(kind, file):
    """The names of a file's dynamic symbols, without their versions."""
    listing = subprocess.check_output(["nm", "--dynamic", "--just-symbols", kind, file], text=True)
    return [line.partition("@")[0] for line in listing.splitlines()]


@contextlib.contextmanager
def run(daemon_command, log):
    """The running daemon, and its log opened for reading."""
    open(log, "wb").close()
    # Others may add to the log.
    with open(log, "ab") as output, open(log, "rb") as lines:
        daemon = subprocess.Popen(daemon_command, stdin=subprocess.DEVNULL, stdout=output,
                                  stderr=output)
        try:
            yield daemon, lines
        finally:
            daemon.kill()
            daemon.wait()
