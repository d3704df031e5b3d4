"""How the daemon is started on a Linux host: its files are those of a directory."""
import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import sys

HOST = pathlib.Path(__file__).resolve().parent.parent / "host"
CONFIG, PROPERTIES = "vendor/etc/tovrel.json", "properties"
# What the kernel has on a device.
KERNEL_LOG, SYSRQ = "dev/kmsg", "proc/sysrq-trigger"
PER_TASK, *EXTENSION = (f"proc/sys/hung_task_enh/{name}" for name in (
    "per_task_detect_mode", "global_detect_mode", "max_iowait_timeout_cnt", "max_iowait_task_cnt"))

# What the sandbox must catch, in all but the languages' own libraries and the host's properties.
CAUGHT = re.compile(r"_*(f|fre)?open(at)?(64)?(_2)?|creat(64)?|kill|_ZN\w*(filebuf|fstream)\w*")
NOT_CHECKED = re.compile(r"lib(c|m|stdc\+\+|gcc_s|cutils|\w+san)\.so.*")


def prepare(build, name):
    """Returns a new directory in the build for the daemon's files, which are empty. Ends this
    program if the daemon would reach a file or a process past its sandbox.
    """
    if past := imports_past(build / "tovrel", build / "libsandbox.so"):
        sys.exit(f"The daemon is not started, it would get past its sandbox: {past}")
    root = build / name
    shutil.rmtree(root, ignore_errors=True)
    for file in (CONFIG, PROPERTIES, KERNEL_LOG, SYSRQ, PER_TASK, *EXTENSION):
        (root / file).parent.mkdir(parents=True, exist_ok=True)
        (root / file).touch()
    return root


def log_of(root):
    """The file to which the daemon logs that runs in the directory."""
    return root.with_suffix(".log")


def imports_past(daemon, library):
    """Which functions the daemon and its libraries would take from elsewhere than the sandbox."""
    listing = subprocess.check_output(["ldd", daemon], text=True)  # fails if linked statically
    users = [daemon, *map(pathlib.Path, re.findall(r" => (\S+) \(", listing))]
    caught = symbols("--defined-only", library) if library.exists() else ()
    return ", ".join(f"{symbol} of {user.name}" for user in users
                     if not NOT_CHECKED.fullmatch(user.name)
                     for symbol in symbols("--undefined-only", user)
                     if CAUGHT.fullmatch(symbol) and symbol not in caught)


def symbols(kind, file):
    """The names of a file's dynamic symbols, without their versions."""
    listing = subprocess.check_output(["nm", "--dynamic", "--just-symbols", kind, file], text=True)
    return [line.partition("@")[0] for line in listing.splitlines()]


@contextlib.contextmanager
def running(build, root, send_signals):
    """The daemon while it runs in the directory. It dies with this process."""
    environment = os.environ | {
        "PATH": f"{HOST / 'bin'}:{os.environ['PATH']}", "LD_PRELOAD": build / "libsandbox.so",
        "TOVREL_SANDBOX": root, "TOVREL_PROPERTIES": root / PROPERTIES}
    if not send_signals:
        environment["TOVREL_NO_SIGNALS"] = "1"
    with (log_of(root).open("w") as log,
          subprocess.Popen(["setpriv", "--pdeathsig", "KILL", build / "tovrel"], env=environment,
                           process_group=0,  # not that of a Ctrl-C
                           stdin=subprocess.DEVNULL, stdout=log, stderr=log) as daemon):
        try:
            yield daemon
        finally:
            daemon.kill()
